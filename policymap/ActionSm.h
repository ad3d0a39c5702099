// PolicyMap::ActionSm: the state machine of one action of a class. The
// framework calls handleInitialized once it is set up, handleAction whenever
// the action changes (and once at the start), and cleanup before it drops
// it. Plug-ins derive their action state machines from it.
#pragma once

#include "framework/Entity.h"
#include "framework/Ptr.h"
#include "policymap/ClassAction.h"
#include "policymap/ClassMapSmCommonData.h"
#include "policymap/GlobalCommonData.h"
#include "policymap/PolicyMapSmCommonData.h"

namespace PolicyMap {

class ActionSm : public Vix::Entity {
 public:
  ActionSm(const Vix::Ptr<GlobalCommonData>& globalCommonData,
           const Vix::Ptr<PolicyMapSmCommonData>& policyCommonData,
           const Vix::Ptr<ClassMapSmCommonData>& classCommonData, const Vix::Ptr<Action>& action)
      : globalCommonData_(globalCommonData),
        policyCommonData_(policyCommonData),
        classCommonData_(classCommonData),
        action_(action) {}

  const Vix::Ptr<GlobalCommonData>& globalCommonData() const { return globalCommonData_; }
  const Vix::Ptr<PolicyMapSmCommonData>& policyCommonData() const { return policyCommonData_; }
  const Vix::Ptr<ClassMapSmCommonData>& classCommonData() const { return classCommonData_; }
  const Vix::Ptr<Action>& action() const { return action_; }
  // A new version of the same kind of action.
  void actionIs(const Vix::Ptr<Action>& action) {
    action_ = action;
    handleAction();
  }

  virtual void handleInitialized() {}
  virtual void handleAction() {}
  virtual void cleanup() {}

 private:
  const Vix::Ptr<GlobalCommonData> globalCommonData_;
  const Vix::Ptr<PolicyMapSmCommonData> policyCommonData_;
  const Vix::Ptr<ClassMapSmCommonData> classCommonData_;
  Vix::Ptr<Action> action_;
};

}  // namespace PolicyMap
