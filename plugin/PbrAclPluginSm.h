// Pbr::PbrAclPluginSm: the root of the plug-in's state machines. It is the
// policy framework's root, built on the plug-in's configuration and helper,
// and keeps the nexthop table manager to hand down to every class.
#pragma once

#include "nexthop/NexthopTableManager.h"
#include "policymap/ServicePolicySm.h"

namespace Pbr {

class PbrAclPluginSm : public PolicyMap::ServicePolicySm {
 public:
  PbrAclPluginSm(const Vix::Ptr<const PolicyMap::PolicyMapTypeConfig>& policyMapTypeConfig,
                 const Vix::Ptr<const PolicyMap::ClassMapTypeConfig>& classMapTypeConfig,
                 const Vix::Ptr<const PolicyMap::PolicyMapStatusRequestDir>& statusRequestDir,
                 const Vix::Ptr<PolicyMap::PolicyMapTypeStatus>& policyMapTypeStatus,
                 const Vix::Ptr<const Acl::Config>& aclConfig,
                 const Vix::Ptr<const Lag::Input::Config>& lagInputConfig,
                 const Vix::Ptr<const Ip::Status>& ipStatus,
                 const Vix::Ptr<const Ip6::Status>& ip6Status,
                 const Vix::Ptr<const Routing::RoutingInfo>& routingInfo,
                 const Vix::Ptr<const Routing6::RoutingInfo>& routing6Info,
                 const Vix::Ptr<PolicyMap::PolicyMapAclHelper>& aclHelper,
                 const Vix::Ptr<NexthopTableManager>& nexthopTableManager)
      : PolicyMap::ServicePolicySm(policyMapTypeConfig, classMapTypeConfig, statusRequestDir,
                                   policyMapTypeStatus, aclConfig, lagInputConfig, ipStatus,
                                   ip6Status, routingInfo, routing6Info, aclHelper, nullptr, false,
                                   true, false),
        nexthopTableManager_(nexthopTableManager) {}

  const Vix::Ptr<NexthopTableManager>& nexthopTableManager() const { return nexthopTableManager_; }

  Vix::Ptr<PolicyMap::PolicyMapSm> createPolicyMapSm(
      const PolicyMap::PolicyMapSmKey& key,
      const Vix::Ptr<PolicyMap::PolicyMapConfig>& policyMapConfig,
      const Vix::Ptr<PolicyMap::PolicyMapTypeStatus>& policyMapStatus) override;

 private:
  const Vix::Ptr<NexthopTableManager> nexthopTableManager_;
};

Vix::Ptr<PbrAclPluginSm> pbrAclPluginSmFactory(
    const Vix::Ptr<const PolicyMap::PolicyMapTypeConfig>& policyMapTypeConfig,
    const Vix::Ptr<const PolicyMap::ClassMapTypeConfig>& classMapTypeConfig,
    const Vix::Ptr<const PolicyMap::PolicyMapStatusRequestDir>& statusRequestDir,
    const Vix::Ptr<PolicyMap::PolicyMapTypeStatus>& policyMapTypeStatus,
    const Vix::Ptr<const Acl::Config>& aclConfig,
    const Vix::Ptr<const Lag::Input::Config>& lagInputConfig,
    const Vix::Ptr<const Ip::Status>& ipStatus, const Vix::Ptr<const Ip6::Status>& ip6Status,
    const Vix::Ptr<const Routing::RoutingInfo>& routingInfo,
    const Vix::Ptr<const Routing6::RoutingInfo>& routing6Info,
    const Vix::Ptr<PolicyMap::PolicyMapAclHelper>& aclHelper,
    const Vix::Ptr<NexthopTableManager>& nexthopTableManager);

}  // namespace Pbr
