// Pbr::ClassMapSm: the plug-in's class state machine. It decides which
// action state machine a class gets (only the PBR forwarding action, type 4,
// by its kind: 0 no target, 2 nexthops, 3 a nexthop group), builds the class
// data with its nexthop selector, and on clean-up counts the class's
// nexthops out while the selector is still active.
#pragma once

#include <string>

#include "nexthop/NexthopTableManager.h"
#include "policymap/ClassMapSm.h"

namespace Pbr {

class ClassMapSm : public PolicyMap::ClassMapSm {
 public:
  ClassMapSm(const Vix::Ptr<PolicyMap::GlobalCommonData>& globalCommonData,
             const Vix::Ptr<PolicyMap::PolicyMapSmCommonData>& policyCommonData,
             const Vix::Ptr<PolicyMap::ClassMapConfig>& classMapConfig,
             const Vix::Ptr<const PolicyMap::ClassMapSubConfig>& classMapSubConfig,
             const Vix::Ptr<PolicyMap::ClassAction>& classAction,
             const Vix::Ptr<NexthopTableManager>& nexthopTableManager)
      : PolicyMap::ClassMapSm(globalCommonData, policyCommonData, classMapConfig, classMapSubConfig,
                              classAction),
        nexthopTableManager_(nexthopTableManager) {}

  const Vix::Ptr<NexthopTableManager>& nexthopTableManager() const { return nexthopTableManager_; }

  Vix::Ptr<PolicyMap::ActionSm> createActionSm(PolicyMap::ActionType actionType) override;
  Vix::Ptr<PolicyMap::ClassMapSmCommonData> createCommonData() override;
  void cleanup() override;
  // "ClassMapSm(policy, class)".
  std::string traceForm() const;

 private:
  const Vix::Ptr<NexthopTableManager> nexthopTableManager_;
};

}  // namespace Pbr
