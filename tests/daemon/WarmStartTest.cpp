// The two-step start: policies are created once their nexthops are
// programmed, so that each rule is written once, marked.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "daemon/ConfigLoader.h"
#include "daemon/WarmStart.h"
#include "tests/plugin/PbrSystemFixture.h"

namespace waymark::test {
namespace {

// 203.0.113.9 is outside every connected subnet: it is never programmed.
const std::string kConfig = R"(access-lists:
  web: [permit tcp any any eq 80, permit tcp any any eq 443]
  voice: [permit udp any any eq 5060]
class-maps:
  web: [web]
  voice: [voice]
policy-maps:
  edge:
    - class: web
      nexthops: [203.0.113.9, 192.0.2.1]
    - class: voice
      nexthops: [198.51.100.1]
  core:
    - class: web
      nexthops: [198.51.100.1]
interfaces:
  eth1: edge
  eth2: core
)";

class WarmStartTest : public PbrSystemTest {
 protected:
  WarmStartTest() {
    address("eth1", "192.0.2.254/24");
    address("eth2", "198.51.100.254/24");
    warm.prepare(model);
    start();
  }
  size_t count(const std::vector<std::string>& lines, const std::string& part) const {
    return std::count_if(lines.begin(), lines.end(),
                         [&](const std::string& l) { return l.find(part) != std::string::npos; });
  }
  uint32_t refs(const std::string& addr) const {
    return manager().nexthop(Velnet::IpGenAddr::parse(addr));
  }

  Waymark::ConfigModel model = Waymark::ConfigLoader::loadString(kConfig, "f");
  Waymark::ConfigApplier applier{pbrConfig, aclConfig};
  Waymark::WarmStart warm{applier};
};

TEST_F(WarmStartTest, PoliciesWaitUntilTheirNexthopsAreProgrammed) {
  warm.begin(plugin->nexthopTableManager(), model);
  warm.finish(model, false);
  EXPECT_TRUE(warm.warming());
  EXPECT_FALSE(plugin->pbrAclPluginSm()->policyMapSm("edge"));

  settle();
  EXPECT_TRUE(manager().programmed(Velnet::IpGenAddr::parse("192.0.2.1")));
  EXPECT_TRUE(manager().programmed(Velnet::IpGenAddr::parse("198.51.100.1")));
  warm.finish(model, false);
  EXPECT_FALSE(warm.warming());
  EXPECT_TRUE(plugin->pbrAclPluginSm()->policyMapSm("edge"));
  EXPECT_TRUE(plugin->pbrAclPluginSm()->policyMapSm("core"));
}

TEST_F(WarmStartTest, EachRuleIsWrittenOnceWithItsMark) {
  warm.begin(plugin->nexthopTableManager(), model);
  settle();
  warm.finish(model, false);
  settle();
  const auto written = lines();
  EXPECT_EQ(count(written, "-R "), 0u) << ::testing::PrintToString(written);
  // edge: two web rules and one voice rule; core: two web rules.
  EXPECT_EQ(count(written, "-j MARK"), 5u) << ::testing::PrintToString(written);
  EXPECT_EQ(classData("edge", "web")->nexthopValue(), Velnet::IpGenAddr::parse("192.0.2.1"));
}

TEST_F(WarmStartTest, TheClassesHoldTheOnlyReferencesAfterwards) {
  warm.begin(plugin->nexthopTableManager(), model);
  EXPECT_EQ(refs("198.51.100.1"), 1u);
  settle();
  warm.finish(model, false);
  EXPECT_EQ(refs("198.51.100.1"), 2u);  // edge's voice, core's web
  EXPECT_EQ(refs("192.0.2.1"), 1u);
  EXPECT_EQ(refs("203.0.113.9"), 1u);
}

TEST_F(WarmStartTest, WithNexthopProgrammingSwitchedOffThePoliciesComeAtOnce) {
  plugin->nexthopTableManager()->nexthopProgrammingTimeLimitIs(0.0);
  warm.begin(plugin->nexthopTableManager(), model);
  warm.finish(model, false);
  EXPECT_FALSE(warm.warming());
  EXPECT_TRUE(plugin->pbrAclPluginSm()->policyMapSm("edge"));
}

TEST_F(WarmStartTest, AReloadWhileWarmingAppliesTheNewFileAtOnce) {
  warm.begin(plugin->nexthopTableManager(), model);
  std::string text = kConfig;
  text.erase(text.find("  core:"), text.find("interfaces:") - text.find("  core:"));
  text.erase(text.find("  eth2: core\n"));
  const auto reloaded = Waymark::ConfigLoader::loadString(text, "f");
  warm.finish(reloaded, true);
  EXPECT_FALSE(warm.warming());
  EXPECT_TRUE(plugin->pbrAclPluginSm()->policyMapSm("edge"));
  EXPECT_FALSE(plugin->pbrAclPluginSm()->policyMapSm("core"));
  settle();
  EXPECT_EQ(refs("198.51.100.1"), 1u);
  EXPECT_EQ(count(lines(), "-j MARK"), 3u);
}

}  // namespace
}  // namespace waymark::test
