// Pbr::PolicyMapSm: the plug-in's policy state machine; its one decision is
// to build the plug-in's class state machines, handing them the nexthop
// table manager.
#pragma once

#include "nexthop/NexthopTableManager.h"
#include "policymap/PolicyMapSm.h"

namespace Pbr {

class PolicyMapSm : public PolicyMap::PolicyMapSm {
 public:
  PolicyMapSm(const Vix::Ptr<PolicyMap::GlobalCommonData>& globalCommonData,
              const PolicyMap::PolicyMapSmKey& key,
              const Vix::Ptr<PolicyMap::PolicyMapConfig>& policyMapConfig,
              const Vix::Ptr<const PolicyMap::ClassMapTypeConfig>& classMapTypeConfig,
              const Vix::Ptr<PolicyMap::PolicyMapTypeStatus>& policyMapStatus,
              const Vix::Ptr<NexthopTableManager>& nexthopTableManager)
      : PolicyMap::PolicyMapSm(globalCommonData, key, policyMapConfig, classMapTypeConfig,
                               policyMapStatus),
        nexthopTableManager_(nexthopTableManager) {}

  Vix::Ptr<PolicyMap::ClassMapSm> createClassMapSm(
      const Vix::Ptr<PolicyMap::ClassMapConfig>& classMapConfig,
      const Vix::Ptr<const PolicyMap::ClassMapSubConfig>& classMapSubConfig,
      const Vix::Ptr<PolicyMap::ClassAction>& classAction) override;

 private:
  const Vix::Ptr<NexthopTableManager> nexthopTableManager_;
};

}  // namespace Pbr
