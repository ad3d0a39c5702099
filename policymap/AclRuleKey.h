// PolicyMap::AclRuleKey: identifies one match rule of a class: the policy,
// the address family, the class, the access list and the rule's sequence
// number. Key of the iptables side's per-rule bookkeeping (through
// SubRuleKey).
#pragma once

#include <compare>
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>

#include "framework/Strep.h"
#include "policymap/ClassMapMatchOption.h"
#include "policymap/PolicyMapSmKey.h"

namespace PolicyMap {

class AclRuleKey {
 public:
  AclRuleKey() = default;
  AclRuleKey(PolicyMapSmKey policyMapKey, ClassMapMatchOption matchOption, std::string className,
             std::string aclName, uint32_t seqNo)
      : policyMapKey_(std::move(policyMapKey)),
        matchOption_(matchOption),
        className_(std::move(className)),
        aclName_(std::move(aclName)),
        seqNo_(seqNo) {}

  const PolicyMapSmKey& policyMapKey() const { return policyMapKey_; }
  ClassMapMatchOption matchOption() const { return matchOption_; }
  const std::string& className() const { return className_; }
  const std::string& aclName() const { return aclName_; }
  uint32_t seqNo() const { return seqNo_; }

  // "edge ipv4 class web acl web rule 10".
  std::string strDesc() const;
  uint32_t hash() const;

  std::string strep() const;
  static AclRuleKey readStrep(Vix::StrepReader& reader);
  // Reads a whole text form; throws Vix::ParseError.
  static AclRuleKey fromStrep(std::string_view text);

  auto operator<=>(const AclRuleKey&) const = default;

 private:
  PolicyMapSmKey policyMapKey_;
  ClassMapMatchOption matchOption_ = matchIpv4;
  std::string className_;
  std::string aclName_;
  uint32_t seqNo_ = 0;
};

inline std::ostream& operator<<(std::ostream& os, const AclRuleKey& k) { return os << k.strep(); }

}  // namespace PolicyMap
