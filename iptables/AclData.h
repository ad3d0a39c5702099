// Pbr::Iptables::AclData: what the iptables side keeps for one policy in one
// address family: its chain, the interfaces whose jump to the chain is
// installed, and where each sub-rule's pair of rules sits in the chain.
//
// A chain only grows by appending pairs, so the k-th sub-rule since the chain
// was created or flushed sits at positions 2k-1 and 2k; ruleIndex keeps 2k-1
// and lastIndex the last position used. Chain names are "PBR_" + a
// process-wide counter + "_" + the policy's name (and "_" + its instance),
// cut to 28 characters; the counter keeps them unique after the cut.
#pragma once

#include <cstdint>

#include "framework/Entity.h"
#include "framework/Ptr.h"
#include "framework/String.h"
#include "framework/ValueMap.h"
#include "iptables/SubRuleKey.h"
#include "net/IntfId.h"
#include "policymap/PolicyMapSmCommonData.h"
#include "policymap/PolicyMapSmKey.h"

namespace Pbr::Iptables {

class AclData : public Vix::Entity {
 public:
  static constexpr size_t kMaxChainNameLength = 28;

  explicit AclData(const Vix::Ptr<const PolicyMap::PolicyMapSmCommonData>& policyData);

  const Vix::Ptr<const PolicyMap::PolicyMapSmCommonData>& policyData() const { return policyData_; }
  const PolicyMap::PolicyMapSmKey& key() const { return policyData_->key(); }
  const Vix::String8& chainName() const { return chainName_; }

  // Position of a sub-rule's first rule; 0 when it has none.
  uint32_t ruleIndex(const SubRuleKey& k) const { return ruleIndex_.value(k, 0); }
  void ruleIndexIs(const SubRuleKey& k, uint32_t position) { ruleIndex_.valueIs(k, position); }
  void ruleIndexDelAll() { ruleIndex_.delAll(); }
  const Vix::ValueMap<SubRuleKey, uint32_t>& ruleIndexes() const { return ruleIndex_; }

  bool appliedIntf(const Velnet::IntfId& intf) const { return appliedIntf_.value(intf, false); }
  void appliedIntfIs(const Velnet::IntfId& intf, bool applied) {
    appliedIntf_.valueIs(intf, applied);
  }
  void appliedIntfDel(const Velnet::IntfId& intf) { appliedIntf_.del(intf); }
  const Vix::ValueMap<Velnet::IntfId, bool>& appliedIntfs() const { return appliedIntf_; }

  uint32_t lastIndex() const { return lastIndex_; }
  void lastIndexIs(uint32_t index) { lastIndex_ = index; }
  void lastIndexInc(uint32_t n) { lastIndex_ += n; }

 private:
  Vix::String8 createChainName() const;

  const Vix::Ptr<const PolicyMap::PolicyMapSmCommonData> policyData_;
  const Vix::String8 chainName_;
  Vix::ValueMap<SubRuleKey, uint32_t> ruleIndex_;
  Vix::ValueMap<Velnet::IntfId, bool> appliedIntf_;
  uint32_t lastIndex_ = 0;
};

}  // namespace Pbr::Iptables
