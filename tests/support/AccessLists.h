// Builds an access list from rules in the configuration grammar, numbering
// the rules without a sequence number 10, 20, ... after the last numbered
// one, as the configuration file does. Shared by the test fixtures.
#pragma once

#include <string>
#include <vector>

#include "policymap/AclConfig.h"
#include "policymap/AclRuleParser.h"

namespace waymark::test {

inline Vix::Ptr<Acl::AccessList> accessListOf(const std::string& name,
                                              const std::vector<std::string>& rules, bool ipv6) {
  auto list = Vix::make<Acl::AccessList>(name, ipv6);
  Acl::AccessList::Rules parsed;
  uint32_t seq = 0;
  for (const auto& text : rules) {
    Acl::AclRuleConfig rule = Acl::AclRuleParser::parse(text, ipv6);
    seq = rule.seqNo != 0 ? rule.seqNo : seq + 10;
    rule.seqNo = seq;
    parsed.emplace(seq, rule);
  }
  list->rulesIs(parsed);
  return list;
}

}  // namespace waymark::test
