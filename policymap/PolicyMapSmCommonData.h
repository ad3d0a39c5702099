// PolicyMap::PolicyMapSmCommonData: what the policy framework keeps for one
// policy map: its key and the interfaces it is applied to, one set per
// family. `policyRewrite` counts requests to rebuild the whole policy
// (recreatePolicy and every addRule again).
#pragma once

#include <cstdint>

#include "framework/Entity.h"
#include "framework/Notifiee.h"
#include "framework/ValueMap.h"
#include "net/IntfId.h"
#include "policymap/PolicyMapSmKey.h"

namespace PolicyMap {

class PolicyMapSmCommonData : public Vix::Entity {
 public:
  using Intfs = Vix::ValueMap<Velnet::IntfId, bool>;

  class NotifieeConst : public Vix::Notifiee<PolicyMapSmCommonData> {
   public:
    virtual void onPolicyRewrite() {}
  };

  explicit PolicyMapSmCommonData(const PolicyMapSmKey& key) : key_(key) {}

  const PolicyMapSmKey& key() const { return key_; }

  // Interfaces whose IPv4 (intf) and IPv6 (intf6) input the policy applies to.
  const Intfs& intf() const { return intf_; }
  void intfIs(const Velnet::IntfId& i, bool applied) { intf_.valueIs(i, applied); }
  void intfDel(const Velnet::IntfId& i) { intf_.del(i); }
  const Intfs& intf6() const { return intf6_; }
  void intf6Is(const Velnet::IntfId& i, bool applied) { intf6_.valueIs(i, applied); }
  void intf6Del(const Velnet::IntfId& i) { intf6_.del(i); }

  uint32_t policyRewrite() const { return policyRewrite_; }
  // Asks for the whole policy to be rebuilt (with true).
  void policyRewriteIs(bool rewrite) {
    if (!rewrite) return;
    ++policyRewrite_;
    notify<NotifieeConst>([](NotifieeConst& n) { n.onPolicyRewrite(); });
  }

 private:
  const PolicyMapSmKey key_;
  Intfs intf_;
  Intfs intf6_;
  uint32_t policyRewrite_ = 0;
};

}  // namespace PolicyMap
