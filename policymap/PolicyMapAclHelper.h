// PolicyMap::PolicyMapAclHelper: the hardware side of the policy framework.
// The framework creates, fills, commits, applies, rebuilds and deletes
// policies through these operations; a plug-in overrides them to program its
// hardware (for waymark, the kernel's mangle table). Every operation returns
// a text that is empty on success.
#pragma once

#include "framework/Entity.h"
#include "framework/Ptr.h"
#include "framework/String.h"
#include "net/IntfId.h"
#include "policymap/AclRuleKey.h"
#include "policymap/ClassMapMatchOption.h"
#include "policymap/ClassMapSmCommonData.h"
#include "policymap/PolicyMapSmCommonData.h"
#include "policymap/SubRuleData.h"

namespace PolicyMap {

class PolicyMapAclHelper : public Vix::Entity {
 public:
  using PolicyData = Vix::Ptr<const PolicyMapSmCommonData>;
  using ClassData = Vix::Ptr<const ClassMapSmCommonData>;

  virtual void hwInit() {}
  virtual Vix::String8 createPolicy(const PolicyData&, ClassMapMatchOption) { return ""; }
  virtual Vix::String8 recreatePolicy(const PolicyData&, ClassMapMatchOption) { return ""; }
  virtual Vix::String8 deletePolicy(const PolicyData&, ClassMapMatchOption) { return ""; }
  // The hardware lost the policy (its tables are being rebuilt): forget
  // what was programmed for it, writing nothing.
  virtual void forgetPolicy(const PolicyData&, ClassMapMatchOption) {}
  virtual Vix::String8 commitPolicy(const PolicyData&, ClassMapMatchOption) { return ""; }
  virtual Vix::String8 addIntfToPolicy(const PolicyData&, const Velnet::IntfId&,
                                       ClassMapMatchOption) {
    return "";
  }
  virtual Vix::String8 removeIntfFromPolicy(const PolicyData&, const Velnet::IntfId&,
                                            ClassMapMatchOption) {
    return "";
  }
  virtual Vix::String8 addRule(const AclRuleKey&, const SubRuleData&, const PolicyData&,
                               const ClassData&) {
    return "";
  }
  virtual Vix::String8 beginUpdateActions(const PolicyData&, const ClassData&) { return ""; }
  virtual Vix::String8 updateAction(const AclRuleKey&, const SubRuleData&, const PolicyData&,
                                    const ClassData&) {
    return "";
  }
  virtual Vix::String8 endUpdateActions(const PolicyData&, const ClassData&) { return ""; }

  // The framework sends updateAction instead of deleting and re-adding rules.
  bool updateActionSupported() const { return updateActionSupported_; }
  void updateActionSupportedIs(bool v) { updateActionSupported_ = v; }
  // The framework splits rules with several ports into one sub-rule each.
  bool subRulesForL4Ports() const { return subRulesForL4Ports_; }
  void subRulesForL4PortsIs(bool v) { subRulesForL4Ports_ = v; }

 private:
  bool updateActionSupported_ = false;
  bool subRulesForL4Ports_ = true;
};

}  // namespace PolicyMap
