// Pbr::Iptables::AclTypeData: everything the iptables side keeps for one
// address family: the per-policy data, the family's iptables manager, and the
// queue through which every rule line reaches the kernel.
//
// Lines are queued in the order they are produced and drained by a clock in
// iptables-restore batches framed by "*mangle\n" and "COMMIT\n", of at most
// rulesPerInvocation queue elements each, for at most ruleProgrammingTimeLimit
// seconds per drain (a batch begun before the deadline is finished), so that
// thousands of rules at start-up never hold the event loop for long. Failed
// batches are the iptables manager's to record; nothing is retried.
#pragma once

#include <cstdint>

#include "framework/Clock.h"
#include "framework/Entity.h"
#include "framework/HashMap.h"
#include "framework/LinkQueue.h"
#include "framework/Ptr.h"
#include "framework/String.h"
#include "iptables/AclData.h"
#include "iptables/IptablesOperation.h"
#include "policymap/ClassMapMatchOption.h"
#include "policymap/IptablesManager.h"
#include "policymap/PolicyMapSmCommonData.h"
#include "policymap/PolicyMapSmKey.h"

namespace Pbr::Iptables {

class AclTypeData : public Vix::Entity {
 public:
  static constexpr uint32_t rulesPerInvocationDefault = 300;
  static constexpr double ruleProgrammingTimeLimitDefault = 0.5;

  // REQUIRES: `writer` outlives this object.
  AclTypeData(PolicyMap::ClassMapMatchOption matchOption, AclUtils::IptablesWriter* writer);
  ~AclTypeData() override;

  PolicyMap::ClassMapMatchOption matchOption() const { return matchOption_; }
  const PolicyMap::ClassMapMatchOption& key() const { return matchOption_; }

  // Per-policy data.
  Vix::Ptr<AclData> acl(const PolicyMap::PolicyMapSmKey& key) const { return acl_.member(key); }
  // The policy's data, created when missing. Raises NameInUseError when the
  // key's data was built from another framework object.
  Vix::Ptr<AclData> aclIs(const Vix::Ptr<const PolicyMap::PolicyMapSmCommonData>& policyData);
  Vix::Ptr<AclData> aclDel(const PolicyMap::PolicyMapSmKey& key) { return acl_.memberDel(key); }
  const Vix::HashMap<AclData, PolicyMap::PolicyMapSmKey>& acls() const { return acl_; }

  const Vix::Ptr<AclUtils::IptablesManager>& iptablesManager() const { return iptablesManager_; }
  void iptablesManagerIs(Acl::AclType type);

  // The queue of pending lines.
  uint32_t iptablesOperations() const { return iptablesOperation_.members(); }
  void iptablesOperationEnq(const Vix::String8& rule);
  // The head element's lines; "" when the queue is empty.
  Vix::String8 iptablesOperationDeq();
  uint32_t headIndex() const { return headIndex_; }
  uint32_t nextIndex() const { return nextIndex_; }

  // Queues `rule` (one element) and wakes the drain.
  void enqueueRule(const Vix::String8& rule);
  // Writes `rules` at once, framed, outside the queue; counters untouched.
  Vix::String8 applyRules(const Vix::String8& rules);

  uint32_t rulesPerInvocation() const { return rulesPerInvocation_; }
  void rulesPerInvocationIs(uint32_t n) { rulesPerInvocation_ = n; }
  double ruleProgrammingTimeLimit() const { return ruleProgrammingTimeLimit_; }
  void ruleProgrammingTimeLimitIs(double limit);

  uint32_t iptablesInvoked() const { return iptablesInvoked_; }
  void iptablesInvokedInc(uint32_t n) { iptablesInvoked_ += n; }
  uint32_t rulesProgrammed() const { return rulesProgrammed_; }
  void rulesProgrammedInc(uint32_t n) { rulesProgrammed_ += n; }
  double lastProgrammingTime() const { return lastProgrammingTime_; }
  double maxProgrammingTime() const { return maxProgrammingTime_; }
  double totalProgrammingTime() const { return totalProgrammingTime_; }
  bool initialized() const { return initialized_; }

  // When the drain wants to run next (+infinity: asleep).
  double ruleProgrammingClockTimeMin() const;

  void handleInitialized();
  // Wakes the drain while lines are queued and a limit is set.
  void handleRuleProgrammingTimeLimit();
  // One drain.
  void handleClock();

 private:
  class RuleProgrammingClock;

  const PolicyMap::ClassMapMatchOption matchOption_;
  AclUtils::IptablesWriter* const writer_;
  Vix::HashMap<AclData, PolicyMap::PolicyMapSmKey> acl_;
  Vix::Ptr<AclUtils::IptablesManager> iptablesManager_;
  Vix::LinkQueue<IptablesOperation, uint32_t> iptablesOperation_;
  uint32_t headIndex_ = 0;
  uint32_t nextIndex_ = 0;
  double maxProgrammingTime_ = 0.0;
  double lastProgrammingTime_ = 0.0;
  double totalProgrammingTime_ = 0.0;
  Vix::Ptr<RuleProgrammingClock> ruleProgrammingClock_;
  uint32_t rulesPerInvocation_ = rulesPerInvocationDefault;
  double ruleProgrammingTimeLimit_ = ruleProgrammingTimeLimitDefault;
  bool initialized_ = false;
  uint32_t iptablesInvoked_ = 0;
  uint32_t rulesProgrammed_ = 0;
};

}  // namespace Pbr::Iptables
