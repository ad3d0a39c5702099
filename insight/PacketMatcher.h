// Waymark::PacketMatcher: which class of the policy applied to a packet's
// input interface takes the packet, found from the configuration the way the
// policy's chain finds it: classes in order, each class's lists in order,
// each list's rules by sequence number, each rule's sub-rules by flag value;
// the first sub-rule that matches decides. Lists of the other family never
// match. Used by the router to answer `waymarkctl explain`.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "config/ConfigModel.h"
#include "net/IpGenAddr.h"

namespace Waymark {

struct Packet {
  std::string in;  // the input interface
  uint8_t protocol = 0;
  Velnet::IpGenAddr src;
  Velnet::IpGenAddr dst;
  std::optional<uint16_t> sport;
  std::optional<uint16_t> dport;
  uint8_t tcpFlags = 0;  // Acl::TcpFlag bits
};

struct PacketMatch {
  std::string policy;  // "" when the interface applies none
  // The rest is set when a class matches.
  const PolicyClassSpec* policyClass = nullptr;
  std::string list;
  const Acl::AclRuleConfig* rule = nullptr;
  uint8_t subRuleFlags = 0;
};

class PacketMatcher {
 public:
  // REQUIRES: `model` outlives the result.
  static PacketMatch match(const ConfigModel& model, const Packet& packet);
  // Whether one sub-rule of `rule`, with TCP flags `subRuleFlags`, matches.
  static bool matches(const Acl::AclRuleConfig& rule, uint8_t subRuleFlags, const Packet& packet);
};

}  // namespace Waymark
