// Pbr::Iptables::AclHelper: turns the policy framework's view of policy maps
// into mangle-table lines.
//
// Layout: PREROUTING jumps to the dispatch chain "TAMBRO_PBR_INTF", which
// holds one jump per (input interface, policy) to the policy's own chain; a
// policy chain holds, per sub-rule, a MARK rule (the mark of the class's
// nexthop, or no target while that nexthop is not programmed) and an ACCEPT
// rule with the same match. A nexthop change rewrites the pair in place with
// "-R". Every line goes through the family's queue, in order, except the
// start-up lines of hwInit, which are written at once.
#pragma once

#include "framework/Ptr.h"
#include "framework/String.h"
#include "iptables/AclData.h"
#include "iptables/AclTypeData.h"
#include "kernel/MangleReadback.h"
#include "nexthop/NexthopTableManager.h"
#include "policymap/IptablesManager.h"
#include "policymap/PolicyMapAclHelper.h"

namespace Pbr::Iptables {

class AclHelper : public PolicyMap::PolicyMapAclHelper {
 public:
  static constexpr const char* kDispatchChain = Kernel::MangleReadback::kDispatchChain;

  explicit AclHelper(const Vix::Ptr<NexthopTableManager>& nexthopTableManager);

  const Vix::Ptr<NexthopTableManager>& nexthopTableManager() const { return nexthopTableManager_; }

  Vix::Ptr<AclTypeData> aclTypeData(PolicyMap::ClassMapMatchOption option) const {
    return aclTypeData_.member(option);
  }
  // The family's data, created when missing.
  Vix::Ptr<AclTypeData> aclTypeDataIs(PolicyMap::ClassMapMatchOption option);

  // Where iptables text goes; the real iptables-restore unless replaced.
  // REQUIRES: called before hwInit; `writer` outlives the helper.
  void iptablesWriterIs(AclUtils::IptablesWriter* writer);

  void hwInit() override;
  Vix::String8 createPolicy(const PolicyData& policyData,
                            PolicyMap::ClassMapMatchOption option) override;
  Vix::String8 recreatePolicy(const PolicyData& policyData,
                              PolicyMap::ClassMapMatchOption option) override;
  Vix::String8 deletePolicy(const PolicyData& policyData,
                            PolicyMap::ClassMapMatchOption option) override;
  Vix::String8 commitPolicy(const PolicyData& policyData,
                            PolicyMap::ClassMapMatchOption option) override;
  void forgetPolicy(const PolicyData& policyData, PolicyMap::ClassMapMatchOption option) override;
  Vix::String8 addIntfToPolicy(const PolicyData& policyData, const Velnet::IntfId& intf,
                               PolicyMap::ClassMapMatchOption option) override;
  Vix::String8 removeIntfFromPolicy(const PolicyData& policyData, const Velnet::IntfId& intf,
                                    PolicyMap::ClassMapMatchOption option) override;
  Vix::String8 addRule(const PolicyMap::AclRuleKey& aclRuleKey,
                       const PolicyMap::SubRuleData& subRuleData, const PolicyData& policyData,
                       const ClassData& classData) override;
  Vix::String8 beginUpdateActions(const PolicyData& policyData,
                                  const ClassData& classData) override;
  Vix::String8 updateAction(const PolicyMap::AclRuleKey& aclRuleKey,
                            const PolicyMap::SubRuleData& subRuleData, const PolicyData& policyData,
                            const ClassData& classData) override;
  Vix::String8 endUpdateActions(const PolicyData& policyData, const ClassData& classData) override;

  // The jump line that applies (add) or unapplies the policy's chain to an
  // interface, recording it in appliedIntf; "" when there is nothing to do.
  Vix::String8 intfRuleForPolicy(AclData& aclData, const Velnet::IntfId& intf, bool add);
  Vix::String8 modifyIntfOnPolicy(const PolicyData& policyData, const Velnet::IntfId& intf,
                                  PolicyMap::ClassMapMatchOption option, bool add);

 private:
  const Vix::Ptr<NexthopTableManager> nexthopTableManager_;
  Vix::HashMap<AclTypeData, PolicyMap::ClassMapMatchOption> aclTypeData_;
  AclUtils::IptablesWriter* iptablesWriter_;
};

Vix::Ptr<AclHelper> aclHelperFactory(const Vix::Ptr<NexthopTableManager>& nexthopTableManager);

}  // namespace Pbr::Iptables
