// The linter's index of earlier sub-rules answers what comparing a rule with
// every earlier one would.
#include "insight/ShadowIndex.h"

#include <gtest/gtest.h>

#include <deque>
#include <random>
#include <string>

#include "insight/ConfigLinter.h"
#include "policymap/AclRuleParser.h"

namespace Waymark {
namespace {

// Rules drawn from small domains, so that covers, near misses and equal
// shapes are frequent: nested prefixes, overlapping port sets, protocols with
// and without ports, flags.
class RandomRules {
 public:
  explicit RandomRules(uint32_t draw) : random_(draw) {}

  std::string next(bool ipv6) {
    const char* protocols[] = {"ip", "tcp", "udp", "icmp", "tcp"};
    std::string protocol = pick(protocols);
    if (ipv6 && protocol == "icmp") protocol = "icmpv6";
    if (ipv6 && protocol == "ip") protocol = "ipv6";
    std::string text = "permit " + protocol + " " + address(ipv6) + " ";
    const bool ports = protocol == "tcp" || protocol == "udp";
    if (ports) text += portSpec();
    text += address(ipv6) + " ";
    if (ports) text += portSpec();
    if (protocol == "tcp") {
      const char* flags[] = {"", " syn", " ack", " syn ack", " established", "", ""};
      text += pick(flags);
    }
    return text;
  }

 private:
  template <size_t N>
  const char* pick(const char* (&options)[N]) {
    return options[std::uniform_int_distribution<size_t>(0, N - 1)(random_)];
  }
  int number(int low, int high) { return std::uniform_int_distribution<int>(low, high)(random_); }

  std::string address(bool ipv6) {
    const int kind = number(0, 4);
    if (kind == 0) return "any";
    const int lengths[] = {8, 16, 24, 32};
    const int len = lengths[kind - 1];
    const std::string b = std::to_string(number(0, 1));
    const std::string c = std::to_string(number(0, 1));
    if (!ipv6) {
      const std::string a = "10." + b + "." + c + ".";
      return len == 32 ? "host " + a + std::to_string(number(1, 2))
                       : "10." + (len >= 16 ? b : "0") + "." + (len >= 24 ? c : "0") + ".0/" +
                             std::to_string(len);
    }
    const std::string net = "2001:db8:" + b + ":" + c;
    return len == 32 ? "host " + net + "::" + std::to_string(number(1, 2))
                     : "2001:db8:" + (len >= 16 ? b : "0") + ":" + (len >= 24 ? c : "0") + "::/" +
                           std::to_string(len + 32);
  }

  std::string portSpec() {
    switch (number(0, 5)) {
      case 0:
        return "eq " + std::to_string(number(80, 84)) + " ";
      case 1:
        return "eq " + std::to_string(number(80, 82)) + " " + std::to_string(number(83, 90)) + " ";
      case 2:
        return "range " + std::to_string(number(70, 82)) + " " + std::to_string(number(82, 95)) +
               " ";
      case 3:
        return "gt " + std::to_string(number(78, 84)) + " ";
      case 4:
        return "lt " + std::to_string(number(1, 90)) + " ";
      default:
        return "";
    }
  }

  std::mt19937 random_;
};

std::optional<size_t> firstCoverByPairs(
    const std::deque<std::pair<Acl::AclRuleConfig, uint8_t>>& seen, const Acl::AclRuleConfig& rule,
    uint8_t flags) {
  for (size_t i = 0; i < seen.size(); ++i) {
    if (ConfigLinter::covers(seen[i].first, seen[i].second, rule, flags)) return i;
  }
  return std::nullopt;
}

TEST(ShadowIndexTest, FindsTheFirstEarlierCoverAsComparingEveryPairWould) {
  for (uint32_t draw = 1; draw <= 20; ++draw) {
    RandomRules random(draw);
    ShadowIndex index;
    std::deque<std::pair<Acl::AclRuleConfig, uint8_t>> seen;
    size_t covered = 0;
    for (int n = 0; n < 400; ++n) {
      const bool ipv6 = n % 3 == 0;
      const std::string text = random.next(ipv6);
      const auto rule = Acl::AclRuleParser::parse(text, ipv6);
      for (const auto& flags : rule.subRuleFlags()) {
        const auto expected = firstCoverByPairs(seen, rule, flags.value());
        ASSERT_EQ(index.firstCover(rule, flags.value()), expected)
            << "draw " << draw << ": " << text << " / "
            << (expected ? seen[*expected].first.text() : "");
        covered += expected.has_value();
      }
      for (const auto& flags : rule.subRuleFlags()) {
        seen.emplace_back(rule, flags.value());
        index.add(seen.back().first, flags.value(), seen.size() - 1);
      }
    }
    // The domains are small enough that most later rules have a cover, and
    // some never do.
    EXPECT_GT(covered, 100u) << "draw " << draw;
  }
}

}  // namespace
}  // namespace Waymark
