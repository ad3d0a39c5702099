#include "config/ConfigLoader.h"

#include <gtest/gtest.h>

#include <string>

namespace Waymark {
namespace {

const std::string kExample = R"(tunables:
  nexthop-programming-time-limit: 0.5
  rules-per-invocation: 300
  rule-programming-time-limit: 0.5
  command-executor: netlink
nexthop-groups:
  voice-group: [198.51.100.1, 192.0.2.9]
access-lists:
  web:
    - 10 permit tcp 10.0.0.0/8 any eq 80 443
    - 20 permit tcp any range 1024 65535 host 192.0.2.7 syn
  web6:
    ipv6: true
    rules:
      - permit udp 2001:db8::/32 any gt 1023
  voice:
    - permit udp any any eq 5060
    - permit udp any any range 16384 32767
class-maps:
  web: [web, web6]
  voice: [voice]
  local: [web]
policy-maps:
  edge:
    - class: web
      nexthops: [192.0.2.1, 192.0.2.9]
    - class: voice
      nexthop-group: voice-group
    - class: local
      passthrough: true
interfaces:
  eth1: edge
)";

std::string error(const std::string& text) {
  try {
    ConfigLoader::loadString(text, "waymark.yaml");
  } catch (const ConfigError& e) {
    return e.what();
  }
  return "no error";
}

TEST(ConfigLoaderTest, TheDocumentedExampleLoads) {
  const ConfigModel m = ConfigLoader::loadString(kExample, "waymark.yaml");
  EXPECT_EQ(m.tunables.rulesPerInvocation, 300u);
  EXPECT_EQ(m.tunables.commandExecutor, CommandExecutor::netlink);
  ASSERT_EQ(m.accessLists.size(), 3u);
  EXPECT_TRUE(m.accessLists.at("web6").ipv6);
  EXPECT_EQ(m.accessLists.at("web").rules.at(20).text(),
            "20 permit tcp any range 1024 65535 host 192.0.2.7 syn");
  EXPECT_EQ(m.classMaps.at("web"), (std::vector<std::string>{"web", "web6"}));
  ASSERT_EQ(m.policyMaps.size(), 1u);
  const auto& edge = m.policyMaps[0].second;
  ASSERT_EQ(edge.size(), 3u);
  EXPECT_EQ(edge[0].nexthops,
            (std::vector<Velnet::IpGenAddr>{Velnet::IpGenAddr::parse("192.0.2.1"),
                                            Velnet::IpGenAddr::parse("192.0.2.9")}));
  EXPECT_EQ(edge[1].nexthopGroup, "voice-group");
  EXPECT_EQ(edge[1].nexthops,
            (std::vector<Velnet::IpGenAddr>{Velnet::IpGenAddr::parse("198.51.100.1"),
                                            Velnet::IpGenAddr::parse("192.0.2.9")}));
  EXPECT_TRUE(edge[2].passthrough);
  EXPECT_EQ(m.interfaces.at(Velnet::IntfId("eth1")), "edge");
}

TEST(ConfigLoaderTest, RulesWithoutANumberFollowTheLastNumberedOne) {
  const auto m = ConfigLoader::loadString(
      "access-lists:\n  a: [permit ip any any, 15 permit tcp any any, permit udp any any]\n"
      "policy-maps: {}\ninterfaces: {}\n",
      "f");
  std::vector<uint32_t> seqs;
  for (const auto& [seq, rule] : m.accessLists.at("a").rules) seqs.push_back(seq);
  EXPECT_EQ(seqs, (std::vector<uint32_t>{10, 15, 25}));
}

TEST(ConfigLoaderTest, AnAnchorLetsClassesShareANexthopList) {
  const auto m = ConfigLoader::loadString(
      "access-lists: {a: [permit ip any any], b: [permit udp any any]}\n"
      "class-maps: {a: [a], b: [b]}\n"
      "policy-maps:\n  p:\n    - {class: a, nexthops: &pair [192.0.2.1, 192.0.2.2]}\n"
      "    - {class: b, nexthops: *pair}\n"
      "interfaces: {}\n",
      "f");
  const auto& classes = m.policyMaps.at(0).second;
  ASSERT_EQ(classes.size(), 2u);
  EXPECT_EQ(classes[1].nexthops, classes[0].nexthops);
  EXPECT_EQ(classes[1].nexthops.size(), 2u);
}

// Applied, an empty or cut-short file would remove all steering.
TEST(ConfigLoaderTest, AnEmptyOrCutShortFileIsRefusedAndNoPoliciesMustBeSaid) {
  const std::string why =
      "no access-lists, class-maps, policy-maps or interfaces: the file is empty or cut short "
      "(say 'policy-maps: {}' and 'interfaces: {}' to mean none)";
  EXPECT_EQ(error(""), "waymark.yaml: " + why);
  EXPECT_EQ(error("# nothing yet\n"), "waymark.yaml: " + why);
  EXPECT_EQ(error("tunables:\n  rules-per-invocation: 10\n"), "waymark.yaml:1:1: " + why);
  const auto m = ConfigLoader::loadString("policy-maps: {}\ninterfaces: {}\n", "f");
  EXPECT_TRUE(m.policyMaps.empty());
  EXPECT_EQ(m.tunables, Tunables());
}

// Cut at any line before the last section, or right after a section's key,
// a valid-looking file would remove policies or unbind interfaces.
TEST(ConfigLoaderTest, ASectionWithoutValueOrAFileWithoutPoliciesOrInterfacesIsRefused) {
  const std::string lists = "access-lists: {a: [permit ip any any]}\nclass-maps: {c: [a]}\n";
  const std::string policies =
      lists + "policy-maps:\n  p:\n    - {class: c, nexthops: [192.0.2.1]}\n";
  EXPECT_EQ(error(policies + "interfaces:\n"),
            "waymark.yaml:6:1: section 'interfaces' has no value (is the file cut short?); write "
            "'interfaces: {}' to mean none");
  EXPECT_EQ(error(policies),
            "waymark.yaml:1:1: there is no interfaces section (is the file cut short?); write "
            "'interfaces: {}' to apply no policy on purpose");
  EXPECT_EQ(error(lists),
            "waymark.yaml:1:1: there is no policy-maps section (is the file cut short?); write "
            "'policy-maps: {}' to define no policy on purpose");
  EXPECT_EQ(error("interfaces: {}\n"), error(lists));
  EXPECT_EQ(error("health-checks:\npolicy-maps: {}\n").substr(0, 50),
            "waymark.yaml:1:1: section 'health-checks' has no v");
  EXPECT_TRUE(ConfigLoader::loadString(policies + "interfaces: {}\n", "f").interfaces.empty());
}

TEST(ConfigLoaderTest, ANexthopGroupIsResolvedIntoItsClassesAndMustBeDefined) {
  EXPECT_EQ(error("nexthop-groups:\n  up: [192.0.2.1, 192.0.2.1]\n"),
            "waymark.yaml:2:19: nexthop '192.0.2.1' listed twice");
  EXPECT_EQ(error("nexthop-groups:\n  up: []\n"),
            "waymark.yaml:2:7: the nexthops of group 'up' must name at least one address");
  EXPECT_EQ(error("access-lists: {a: [permit ip any any]}\nclass-maps: {c: [a]}\n"
                  "policy-maps:\n  p:\n    - {class: c, nexthop-group: up}\n"),
            "waymark.yaml:5:33: unknown nexthop group 'up' (not in nexthop-groups)");
}

TEST(ConfigLoaderTest, AHealthCheckProbesTheNexthopItselfUnlessItNamesTargets) {
  const auto m = ConfigLoader::loadString(R"(health-checks:
  192.0.2.1: {}
  2001:db8::1:
    targets: [2001:db8:ff::1, 2001:db8:ff::2]
    interval: 0.2
    timeout: 0.5
    down-after: 2
    up-after: 4
policy-maps: {}
interfaces: {}
)",
                                          "f");
  const auto& v4 = m.healthChecks.at(Velnet::IpGenAddr::parse("192.0.2.1"));
  EXPECT_EQ(v4.targets, std::vector{Velnet::IpGenAddr::parse("192.0.2.1")});
  EXPECT_EQ(v4, (HealthCheckSpec{v4.targets, 1.0, 1.0, 3, 5}));
  const auto& v6 = m.healthChecks.at(Velnet::IpGenAddr::parse("2001:db8::1"));
  EXPECT_EQ(v6.targets.size(), 2u);
  EXPECT_EQ(v6, (HealthCheckSpec{v6.targets, 0.2, 0.5, 2, 4}));
  EXPECT_EQ(m.lines.healthChecks.at(Velnet::IpGenAddr::parse("2001:db8::1")), 3u);
}

TEST(ConfigLoaderTest, HealthCheckRangesTargetFamiliesAndAddressesAreChecked) {
  const std::string head = "policy-maps: {}\nhealth-checks:\n  192.0.2.1:\n    ";
  EXPECT_EQ(error(head + "interval: 0.01\n"),
            "waymark.yaml:4:15: interval must be a number from 0.05 to 60, not '0.01'");
  EXPECT_EQ(error(head + "timeout: 61\n"),
            "waymark.yaml:4:14: timeout must be a number from 0.05 to 60, not '61'");
  EXPECT_EQ(error(head + "down-after: 0\n"),
            "waymark.yaml:4:17: down-after must be a whole number from 1 to 100, not '0'");
  EXPECT_EQ(error(head + "up-after: 2.5\n"),
            "waymark.yaml:4:15: up-after must be a whole number from 1 to 100, not '2.5'");
  EXPECT_EQ(error(head + "targets: [198.51.100.1, 2001:db8::1]\n"),
            "waymark.yaml:4:29: target 2001:db8::1 is not IPv4 like nexthop 192.0.2.1");
  EXPECT_EQ(error(head + "every: 2\n"),
            "waymark.yaml:4:5: unknown key 'every' in the health check of 192.0.2.1");
  EXPECT_EQ(error("policy-maps: {}\nhealth-checks:\n  gateway: {}\n"),
            "waymark.yaml:3:3: invalid nexthop address 'gateway'");
  EXPECT_EQ(error("policy-maps: {}\nhealth-checks:\n  2001:db8::1: {}\n  2001:DB8::1: {}\n"),
            "waymark.yaml:4:3: nexthop '2001:DB8::1' has two health checks");
}

TEST(ConfigLoaderTest, TheMangleTableIsTakenOverOnlyWhenTheFileSaysSo) {
  const std::string none = "policy-maps: {}\ninterfaces: {}\n";
  EXPECT_EQ(ConfigLoader::loadString(none, "f").mangleTable, MangleTable::refuseIfForeign);
  EXPECT_EQ(ConfigLoader::loadString("mangle-table: take-over\n" + none, "f").mangleTable,
            MangleTable::takeOver);
}

TEST(ConfigLoaderTest, ErrorsNameFileLineColumnAndTheOffendingValue) {
  EXPECT_EQ(error("polcy-maps: {}\n"),
            "waymark.yaml:1:1: unknown key 'polcy-maps' in the configuration");
  EXPECT_EQ(error("access-lists:\n  a: [permit ip any any]\n  a: [permit ip any any]\n"),
            "waymark.yaml:3:3: duplicate key 'a'");
  EXPECT_EQ(error("access-lists:\n  a:\n    - permit tcp any any eq 70000\n"),
            "waymark.yaml:3:7: invalid port '70000' (0 to 65535) in rule "
            "'permit tcp any any eq 70000'");
  EXPECT_EQ(error("access-lists:\n  a: [deny ip any any]\n"),
            "waymark.yaml:2:7: deny rules are not supported: a policy's classes only select "
            "traffic to steer in rule 'deny ip any any'");
  EXPECT_EQ(error("access-lists:\n  a: [permit ip 2001:db8::/32 any]\n"),
            "waymark.yaml:2:7: IPv6 address '2001:db8::/32' in an IPv4 access list in rule "
            "'permit ip 2001:db8::/32 any'");
  EXPECT_EQ(error("access-lists:\n  a: [10 permit ip any any, 10 permit udp any any]\n"),
            "waymark.yaml:2:29: sequence number 10 used twice in 'a'");
  EXPECT_EQ(error("class-maps:\n  c: [nope]\n"),
            "waymark.yaml:2:7: unknown access list 'nope' in class 'c'");
  EXPECT_EQ(error("access-lists:\n  'a b': [permit ip any any]\n"),
            "waymark.yaml:2:3: invalid access-list name 'a b' (1 to 64 letters, digits, '_', "
            "'.', ':' or '-', not starting with '-')");
  EXPECT_EQ(error("access-lists:\n  a: [permit ip any any]\nclass-maps:\n  c: [a]\n"
                  "policy-maps:\n  p:\n    - class: c\n      nexthops: [192.0.2.1, 192.0.2.300]\n"),
            "waymark.yaml:8:29: invalid nexthop address '192.0.2.300'");
  EXPECT_EQ(error("access-lists:\n  a: [permit ip any any]\nclass-maps:\n  c: [a]\n"
                  "policy-maps:\n  p:\n    - class: c\n      nexthops: [192.0.2.1]\n"
                  "      passthrough: true\n"),
            "waymark.yaml:7:7: class 'c' needs exactly one of nexthops, nexthop-group or "
            "passthrough");
  EXPECT_EQ(error("access-lists:\n  a: [permit ip any any]\nclass-maps:\n  c: [a]\n"
                  "policy-maps:\n  p:\n    - class: d\n      passthrough: true\n"),
            "waymark.yaml:7:14: unknown class 'd' (not in class-maps)");
  EXPECT_EQ(error("interfaces:\n  eth1: nope\n"),
            "waymark.yaml:2:9: unknown policy 'nope' for interface 'eth1'");
  EXPECT_EQ(error("interfaces:\n  averyveryverylongname: p\n"),
            "waymark.yaml:2:3: invalid interface name 'averyveryverylongname' (1 to 15 "
            "letters, digits, '_', '.' or '-', not starting with '-')");
  EXPECT_EQ(error("interfaces:\n  \"eth1;reboot\": p\n"),
            "waymark.yaml:2:3: invalid interface name 'eth1;reboot' (1 to 15 letters, digits, "
            "'_', '.' or '-', not starting with '-')");
  EXPECT_EQ(error("tunables:\n  rules-per-invocation: 0\npolicy-maps: {}\n"),
            "waymark.yaml:2:25: rules-per-invocation must be a whole number from 1 to 100000, "
            "not '0'");
  EXPECT_EQ(error("tunables:\n  rule-programming-time-limit: nan\npolicy-maps: {}\n"),
            "waymark.yaml:2:32: rule-programming-time-limit must be a number of seconds from 0 "
            "to 3600, not 'nan'");
  EXPECT_EQ(error("tunables:\n  command-executor: system\npolicy-maps: {}\n"),
            "waymark.yaml:2:21: command-executor must be shell or netlink, not 'system'");
  EXPECT_EQ(error("mangle-table: flush\npolicy-maps: {}\n"),
            "waymark.yaml:1:15: mangle-table must be refuse-if-foreign or take-over, not 'flush'");
  EXPECT_EQ(error("access-lists: [\n"),
            "waymark.yaml:2:1: did not find expected node content while parsing a flow node");
}

}  // namespace
}  // namespace Waymark
