// PolicyMap::ServicePolicySm: the root of the policy framework. Once
// initialised it has the hardware helper initialise the hardware, then
// creates a policy state machine per configured policy map (in configuration
// order, through the plug-in's factory), and from then on follows the
// configuration: policies added, changed and removed, interfaces applying
// them, class maps and access lists changing under them.
#pragma once

#include <string>
#include <vector>

#include "framework/Entity.h"
#include "framework/Ptr.h"
#include "policymap/AclConfig.h"
#include "policymap/GlobalCommonData.h"
#include "policymap/Ip6Status.h"
#include "policymap/IpStatus.h"
#include "policymap/PlatformEntities.h"
#include "policymap/PolicyMapAclHelper.h"
#include "policymap/PolicyMapSm.h"
#include "policymap/PolicyMapTypeConfig.h"
#include "policymap/PolicyMapTypeStatus.h"

namespace Acl {
// The difference of two ACL configurations; not used by the PBR framework.
class AclDiff : public Vix::Entity {};
}  // namespace Acl

namespace PolicyMap {

class ServicePolicySm : public Vix::Entity {
 public:
  ServicePolicySm(const Vix::Ptr<const PolicyMapTypeConfig>& policyMapTypeConfig,
                  const Vix::Ptr<const ClassMapTypeConfig>& classMapTypeConfig,
                  const Vix::Ptr<const PolicyMapStatusRequestDir>& statusRequestDir,
                  const Vix::Ptr<PolicyMapTypeStatus>& policyMapTypeStatus,
                  const Vix::Ptr<const Acl::Config>& aclConfig,
                  const Vix::Ptr<const Lag::Input::Config>& lagInputConfig,
                  const Vix::Ptr<const Ip::Status>& ipStatus,
                  const Vix::Ptr<const Ip6::Status>& ip6Status,
                  const Vix::Ptr<const Routing::RoutingInfo>& routingInfo,
                  const Vix::Ptr<const Routing6::RoutingInfo>& routing6Info,
                  const Vix::Ptr<PolicyMapAclHelper>& aclHelper,
                  const Vix::Ptr<const Acl::AclDiff>& aclDiff, bool hitlessReload,
                  bool perFamilyPolicies, bool countersOnly);
  ~ServicePolicySm() override;

  const Vix::Ptr<GlobalCommonData>& globalCommonData() const { return globalCommonData_; }
  bool initialized() const { return initialized_; }
  void initializedIs(bool initialized);
  // The hardware lost what was programmed (drift, a resync): sets it up
  // and programs every policy again, as the start did. Nothing when not
  // initialised.
  void rebuild();
  // The policy's state machine; null when there is none.
  Vix::Ptr<PolicyMapSm> policyMapSm(const std::string& name) const;
  const std::vector<Vix::Ptr<PolicyMapSm>>& policyMapSms() const { return policyMapSms_; }

  virtual Vix::Ptr<PolicyMapSm> createPolicyMapSm(
      const PolicyMapSmKey& key, const Vix::Ptr<PolicyMapConfig>& policyMapConfig,
      const Vix::Ptr<PolicyMapTypeStatus>& policyMapStatus) = 0;

  void handlePolicyMap(const std::string& name);
  void handleIntf(const Velnet::IntfId& intf);
  void handleClassMap(const std::string& name);
  void handleAccessList(const std::string& name);

 private:
  class ConfigReactor;
  class ClassMapReactor;
  class AclReactor;

  void addPolicy(const Vix::Ptr<PolicyMapConfig>& config);

  const Vix::Ptr<GlobalCommonData> globalCommonData_;
  std::vector<Vix::Ptr<PolicyMapSm>> policyMapSms_;
  Vix::Ptr<ConfigReactor> configReactor_;
  Vix::Ptr<ClassMapReactor> classMapReactor_;
  Vix::Ptr<AclReactor> aclReactor_;
  bool initialized_ = false;
};

}  // namespace PolicyMap
