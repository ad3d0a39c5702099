// Pbr::Iptables::SubRuleKey: one sub-rule of a policy, a match rule of the
// framework (AclRuleKey) with one TCP flag set. Each sub-rule owns a pair of
// iptables rules; the key finds that pair's position in the policy chain.
#pragma once

#include <compare>
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>

#include "policymap/AclRuleKey.h"
#include "policymap/TcpFlag.h"

namespace Pbr::Iptables {

class SubRuleKey {
 public:
  SubRuleKey() = default;
  SubRuleKey(const PolicyMap::AclRuleKey& aclRuleKey, Acl::TcpFlag tcpFlag)
      : aclRuleKey_(aclRuleKey), tcpFlag_(tcpFlag) {}
  // Raises "TcpFlag::value > 0x3f not allowed" for a flag value above 0x3f.
  SubRuleKey(const PolicyMap::AclRuleKey& aclRuleKey, uint32_t tcpFlag)
      : SubRuleKey(aclRuleKey, Acl::TcpFlag(tcpFlag)) {}

  const PolicyMap::AclRuleKey& aclRuleKey() const { return aclRuleKey_; }
  uint8_t tcpFlag() const { return tcpFlag_.value(); }

  uint32_t hash() const { return aclRuleKey_.hash() ^ tcpFlag_.value(); }
  // True exactly for the default key.
  bool operator!() const { return *this == SubRuleKey(); }
  bool operator==(const SubRuleKey& o) const {
    return aclRuleKey_ == o.aclRuleKey_ && tcpFlag_ == o.tcpFlag_;
  }
  std::strong_ordering operator<=>(const SubRuleKey& o) const {
    if (const auto c = aclRuleKey_ <=> o.aclRuleKey_; c != 0) return c;
    return tcpFlag_.value() <=> o.tcpFlag_.value();
  }

  // Value('Pbr::Iptables::SubRuleKey', ** {'aclRuleKey': ..., 'tcpFlag': N}).
  std::string strep() const;
  // Reads the text form back. Throws Vix::ParseError: "premature end of value
  // type SubRuleKey", "SubRuleKey has no such attribute: NAME", an attribute's
  // error prefixed with its name, "junk at column N deserializing SubRuleKey".
  static SubRuleKey fromStrep(std::string_view text);

 private:
  PolicyMap::AclRuleKey aclRuleKey_;
  Acl::TcpFlag tcpFlag_;
};

inline std::ostream& operator<<(std::ostream& os, const SubRuleKey& k) { return os << k.strep(); }

}  // namespace Pbr::Iptables
