#include "plugin/PbrAclPluginSm.h"

#include "framework/Errors.h"
#include "plugin/PbrPolicyMapSm.h"

namespace Pbr {

Vix::Ptr<PolicyMap::PolicyMapSm> PbrAclPluginSm::createPolicyMapSm(
    const PolicyMap::PolicyMapSmKey& key,
    const Vix::Ptr<PolicyMap::PolicyMapConfig>& policyMapConfig,
    const Vix::Ptr<PolicyMap::PolicyMapTypeStatus>& policyMapStatus) {
  auto sm = Vix::make<PolicyMapSm>(globalCommonData(), key, policyMapConfig,
                                   globalCommonData()->classMapTypeConfig, policyMapStatus,
                                   nexthopTableManager_);
  if (!sm) throw Vix::NullPtrError();
  return sm;
}

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
    const Vix::Ptr<NexthopTableManager>& nexthopTableManager) {
  auto sm =
      Vix::make<PbrAclPluginSm>(policyMapTypeConfig, classMapTypeConfig, statusRequestDir,
                                policyMapTypeStatus, aclConfig, lagInputConfig, ipStatus, ip6Status,
                                routingInfo, routing6Info, aclHelper, nexthopTableManager);
  if (!sm) throw Vix::NullPtrError();
  return sm;
}

}  // namespace Pbr
