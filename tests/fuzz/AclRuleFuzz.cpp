// Fuzzes the access-list rule grammar: any text either fails with the
// parser's error or gives a rule whose text form parses back to the same
// rule, in either family, and whose rendered iptables match is safe text.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "framework/Errors.h"
#include "policymap/AclRuleParser.h"
#include "policymap/IptablesManager.h"
#include "tests/support/KernelText.h"

namespace {

void check(std::string_view text, bool ipv6) {
  Acl::AclRuleConfig rule;
  try {
    rule = Acl::AclRuleParser::parse(text, ipv6);
  } catch (const Vix::ParseError&) {
    return;
  }
  if (!(Acl::AclRuleParser::parse(rule.text(), ipv6) == rule)) std::abort();
  const AclUtils::IptablesManager manager(ipv6 ? Acl::aclTypeIpv6 : Acl::aclTypeIpv4, nullptr);
  const std::string match = manager.doGetRuleMatch(rule, AclUtils::ruleMatchOnly);
  if (!waymark::test::unsafeKernelText(match).empty()) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  check(text, false);
  check(text, true);
  return 0;
}
