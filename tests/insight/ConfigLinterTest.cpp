// Warnings about what a valid configuration says that cannot work.
#include "insight/ConfigLinter.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "config/ConfigLoader.h"
#include "policymap/AclRuleParser.h"

namespace Waymark {
namespace {

std::vector<std::string> warningsOf(const std::string& text) {
  return ConfigLinter::warnings(ConfigLoader::loadString(text, "f.yaml"));
}

bool covers(const std::string& outer, const std::string& inner, bool ipv6 = false) {
  const auto o = Acl::AclRuleParser::parse(outer, ipv6);
  const auto i = Acl::AclRuleParser::parse(inner, ipv6);
  return ConfigLinter::covers(o, o.subRuleFlags().front().value(), i,
                              i.subRuleFlags().front().value());
}

TEST(ConfigLinterTest, ARuleCoversWhatItsAddressesPortsProtocolAndFlagsContain) {
  struct Case {
    const char* outer;
    const char* inner;
    bool covered;
  };
  const Case cases[] = {
      {"permit ip any any", "permit udp 10.0.0.0/8 any eq 53", true},
      {"permit tcp 10.0.0.0/8 any", "permit tcp host 10.1.2.3 any eq 22", true},
      {"permit tcp 10.0.0.0/16 any", "permit tcp 10.0.0.0/8 any", false},
      {"permit tcp any any range 1000 2000", "permit tcp any any eq 1000 1500 2000", true},
      {"permit tcp any any range 1000 2000", "permit tcp any any gt 1999", false},
      {"permit udp any any gt 1023", "permit udp any any range 1024 65535", true},
      {"permit tcp any any eq 80", "permit tcp any any", false},
      {"permit tcp any any", "permit udp any any", false},
      {"permit tcp any any", "permit ip any any", false},
      // A rule that needs SYN takes only a part of one that does not.
      {"permit tcp any any", "permit tcp any any syn", true},
      {"permit tcp any any syn", "permit tcp any any", false},
      {"permit tcp any any syn", "permit tcp any any syn ack", true},
  };
  for (const auto& c : cases)
    EXPECT_EQ(covers(c.outer, c.inner), c.covered) << c.outer << " / " << c.inner;
  EXPECT_TRUE(covers("permit tcp any 2001:db8::/32", "permit tcp any host 2001:db8::1", true));
}

TEST(ConfigLinterTest, ShadowedRulesAndClassesAreNamedWithTheirLines) {
  const auto w = warningsOf(R"(access-lists:
  all: [permit ip any any]
  ssh: [permit tcp any any eq 22]
  web:
    - permit tcp any any eq 80
    - permit tcp 10.0.0.0/8 any eq 80
class-maps: {all: [all], ssh: [ssh], web: [web]}
policy-maps:
  edge:
    - {class: web, nexthops: [192.0.2.1]}
    - {class: all, passthrough: true}
    - {class: ssh, nexthops: [192.0.2.2]}
interfaces: {eth1: edge}
)");
  ASSERT_EQ(w.size(), 3u) << ::testing::PrintToString(w);
  EXPECT_EQ(w[0],
            "f.yaml:6: warning: rule '20 permit tcp 10.0.0.0/8 any eq 80' of list 'web' can never "
            "match in policy 'edge': rule '10 permit tcp any any eq 80' of list 'web' (class "
            "'web') takes its traffic first");
  EXPECT_EQ(w[1].substr(0, 57), "f.yaml:3: warning: rule '10 permit tcp any any eq 22' of ");
  EXPECT_EQ(w[2],
            "f.yaml:12: warning: class 'ssh' can never match in policy 'edge': earlier classes "
            "take all its traffic");
}

TEST(ConfigLinterTest, AClassReusingAnEarlierClassesListNeverMatches) {
  const auto w = warningsOf(R"(access-lists: {web: [permit tcp any any eq 80]}
class-maps: {web: [web], again: [web]}
policy-maps:
  edge:
    - {class: web, nexthops: [192.0.2.1]}
    - {class: again, nexthops: [192.0.2.2]}
interfaces: {eth1: edge}
)");
  ASSERT_EQ(w.size(), 2u) << ::testing::PrintToString(w);
  EXPECT_EQ(w[1],
            "f.yaml:6: warning: class 'again' can never match in policy 'edge': earlier "
            "classes take all its traffic");
}

TEST(ConfigLinterTest, AFamilyWithoutANexthopAndUnusedThingsAreNamed) {
  const auto w = warningsOf(R"(nexthop-groups:
  spare: [192.0.2.9]
health-checks: {192.0.2.1: {}, 192.0.2.9: {}}
access-lists:
  web: [permit tcp any any eq 80]
  web6: {ipv6: true, rules: [permit tcp any any eq 80]}
  dns: [permit udp any any eq 53]
class-maps: {web: [web, web6], dns: [dns]}
policy-maps:
  edge:
    - {class: web, nexthops: [192.0.2.1]}
interfaces: {eth1: edge}
)");
  EXPECT_EQ(w, (std::vector<std::string>{
                   "f.yaml:11: warning: class 'web' in policy 'edge' has IPv6 lists but no IPv6 "
                   "nexthop: that traffic follows the normal route",
                   "f.yaml:8: warning: class 'dns' is in no policy",
                   "f.yaml:2: warning: nexthop group 'spare' is used by no class",
                   "f.yaml:3: warning: health check of 192.0.2.9 is for a nexthop that no class "
                   "uses"}));
}

std::string fileText(const std::string& path) {
  std::ifstream in(std::string(WAYMARK_SOURCE_DIR) + "/" + path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

TEST(ConfigLinterTest, TheShippedConfigurationsAndTheDocumentedExampleAreClean) {
  for (const char* file : {"examples/lab.yaml", "examples/waymark.yaml"}) {
    const std::string text = fileText(file);
    ASSERT_FALSE(text.empty()) << file;
    EXPECT_EQ(warningsOf(text), std::vector<std::string>{}) << file;
  }
  const std::string docs = fileText("docs/configuration.md");
  const size_t start = docs.find("```yaml\n");
  ASSERT_NE(start, std::string::npos);
  const std::string example = docs.substr(start + 8, docs.find("```", start + 8) - start - 8);
  EXPECT_EQ(warningsOf(example), std::vector<std::string>{});
  EXPECT_EQ(ConfigLoader::loadString(example, "f").policyMaps[0].second[1].nexthops.size(), 2u);
}

}  // namespace
}  // namespace Waymark
