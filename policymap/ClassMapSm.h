// PolicyMap::ClassMapSm: the state machine of one class of a policy. It
// creates the class's common data and one action state machine per action
// (through the plug-in's factory operations), follows changes of the
// class's actions, and lists the class's sub-rules in a family: lists in the
// class's order, rules by sequence, sub-rules by flag value.
#pragma once

#include <string>
#include <vector>

#include "framework/Entity.h"
#include "framework/Ptr.h"
#include "policymap/AclRuleKey.h"
#include "policymap/ActionSm.h"
#include "policymap/ClassAction.h"
#include "policymap/ClassMapSmCommonData.h"
#include "policymap/ClassMapSubConfig.h"
#include "policymap/GlobalCommonData.h"
#include "policymap/PolicyMapConfig.h"
#include "policymap/PolicyMapSmCommonData.h"

namespace PolicyMap {

struct SubRule {
  AclRuleKey key;
  uint32_t tcpFlag;
};

class ClassMapSm : public Vix::Entity {
 public:
  ClassMapSm(const Vix::Ptr<GlobalCommonData>& globalCommonData,
             const Vix::Ptr<PolicyMapSmCommonData>& policyCommonData,
             const Vix::Ptr<ClassMapConfig>& classMapConfig,
             const Vix::Ptr<const ClassMapSubConfig>& classMapSubConfig,
             const Vix::Ptr<ClassAction>& classAction);

  const std::string& name() const { return classMapConfig_->name(); }
  const Vix::Ptr<GlobalCommonData>& globalCommonData() const { return globalCommonData_; }
  const Vix::Ptr<PolicyMapSmCommonData>& policyCommonData() const { return policyCommonData_; }
  const Vix::Ptr<ClassMapConfig>& classMapConfig() const { return classMapConfig_; }
  const Vix::Ptr<const ClassMapSubConfig>& classMapSubConfig() const { return classMapSubConfig_; }
  const Vix::Ptr<ClassAction>& classAction() const { return classAction_; }
  const Vix::Ptr<ClassMapSmCommonData>& commonData() const { return commonData_; }

  // Creates the common data and the action state machines.
  void start();
  // Follows a new version of the class's actions: an action of the same kind
  // is handed over, one of another kind gets a new state machine.
  void classActionIs(const Vix::Ptr<ClassAction>& classAction);
  // True when the class matches an access list of `option`'s family.
  bool matches(ClassMapMatchOption option) const;
  bool usesAccessList(const std::string& name) const;
  std::vector<SubRule> subRules(const PolicyMapSmKey& policy, ClassMapMatchOption option) const;

  virtual Vix::Ptr<ActionSm> createActionSm(ActionType actionType);
  virtual Vix::Ptr<ClassMapSmCommonData> createCommonData();
  // Cleans up and drops every action state machine.
  virtual void cleanup();

 private:
  void startAction(ActionType type);

  const Vix::Ptr<GlobalCommonData> globalCommonData_;
  const Vix::Ptr<PolicyMapSmCommonData> policyCommonData_;
  const Vix::Ptr<ClassMapConfig> classMapConfig_;
  const Vix::Ptr<const ClassMapSubConfig> classMapSubConfig_;
  Vix::Ptr<ClassAction> classAction_;
  Vix::Ptr<ClassMapSmCommonData> commonData_;
  std::map<ActionType, Vix::Ptr<ActionSm>> actionSms_;
  std::map<ActionType, uint8_t> actionKinds_;
};

}  // namespace PolicyMap
