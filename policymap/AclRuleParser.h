// Reads one access-list rule of the configuration grammar:
//
//   [SEQ] permit PROTO SRC [PORTS] DST [PORTS] [FLAGS]
//
// PROTO is ip (IPv4 lists) or ipv6 (IPv6 lists) for any protocol, tcp, udp,
// sctp, icmp, icmpv6 or a number 0-255; SRC and DST are any, host ADDR or
// ADDR/LEN; PORTS is eq P... (up to 15), range LO HI, gt P or lt P, allowed
// only with tcp, udp and sctp; FLAGS are TCP flag names (fin syn rst psh ack
// urg) or established, allowed only with tcp. deny rules are refused: a
// policy's classes only select traffic to steer. Every error names the
// offending word, so that nothing unvalidated reaches a command line.
#pragma once

#include <string_view>

#include "policymap/AclRuleConfig.h"

namespace Acl {

class AclRuleParser {
 public:
  // Parses `text` for an IPv4 or an IPv6 list; seqNo stays 0 when the rule
  // has none. Throws Vix::ParseError.
  static AclRuleConfig parse(std::string_view text, bool ipv6);
};

}  // namespace Acl
