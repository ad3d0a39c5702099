// Acl::AclRuleConfig: one access-list rule as configured: protocol, source
// and destination (any, a host or a prefix), ports, and TCP flags. The
// iptables side renders a copy of it, with the TCP flags of one sub-rule, into
// iptables match options.
//
// A rule expands into sub-rules by its flags: "established" gives two (ACK,
// RST), named flags give one whose set is their union, no flags give one with
// the empty set. Sub-rules are ordered by flag value.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "net/IpGenAddr.h"
#include "policymap/TcpFlag.h"

namespace Acl {

enum class PortOp : uint8_t { any, eq, range, gt, lt };

// eq: one to fifteen ports; range: low and high; gt, lt: one port.
struct PortSpec {
  PortOp op = PortOp::any;
  std::vector<uint16_t> ports;

  bool operator==(const PortSpec&) const = default;
  std::string text() const;  // the grammar's form ("eq 80 443"); "" for any
  // The ports matched, as closed intervals; 0-65535 for any.
  std::vector<std::pair<uint32_t, uint32_t>> intervals() const;
};

// `any` when no address is given; otherwise a prefix of its family.
struct AddrSpec {
  bool any = true;
  Velnet::IpGenAddr addr;
  uint8_t len = 0;

  bool operator==(const AddrSpec&) const = default;
  std::string text() const;        // "any", "host A" or "A/LEN"
  std::string prefixText() const;  // "A/LEN"
  // Whether `a` is inside the prefix (any address for `any`).
  bool contains(const Velnet::IpGenAddr& a) const;
};

namespace Protocol {
constexpr uint8_t icmp = 1;
constexpr uint8_t tcp = 6;
constexpr uint8_t udp = 17;
constexpr uint8_t icmpv6 = 58;
constexpr uint8_t sctp = 132;
// The name iptables knows the protocol by, or its number.
std::string name(uint8_t protocol);
inline bool hasPorts(uint8_t p) { return p == tcp || p == udp || p == sctp; }
}  // namespace Protocol

struct AclRuleConfig {
  uint32_t seqNo = 0;
  bool ipv6 = false;
  std::optional<uint8_t> protocol;  // none: any protocol
  AddrSpec src;
  PortSpec srcPorts;
  AddrSpec dst;
  PortSpec dstPorts;
  // Flags as configured: named flags (their union) or "established".
  TcpFlag flags;
  bool established = false;
  // The flags of the sub-rule being rendered; set on a copy per sub-rule.
  TcpFlag tcpFlag;

  bool operator==(const AclRuleConfig&) const = default;

  // The flag sets of the rule's sub-rules, ascending.
  std::vector<TcpFlag> subRuleFlags() const;
  // The rule in the configuration grammar, sequence number first.
  std::string text() const;
};

}  // namespace Acl
