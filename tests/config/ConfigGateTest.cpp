// The configuration reaches the plug-in only while the nexthop loop is
// quiet: at start, so that each rule is written once, marked; on a reload,
// so that it cannot cancel the loop's queued work.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "config/ConfigGate.h"
#include "config/ConfigLoader.h"
#include "tests/plugin/PbrSystemTest.h"

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

class ConfigGateTest : public PbrSystemTest {
 protected:
  ConfigGateTest() {
    address("eth1", "192.0.2.254/24");
    address("eth2", "198.51.100.254/24");
    gate.prepare(model);
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
  Waymark::ConfigGate gate{applier};
};

TEST_F(ConfigGateTest, PoliciesWaitUntilTheirNexthopsAreProgrammed) {
  gate.begin(plugin->nexthopTableManager(), model);
  gate.applyWhenQuiet(model);
  EXPECT_TRUE(gate.startingUp());
  EXPECT_FALSE(plugin->pbrAclPluginSm()->policyMapSm("edge"));

  settle();
  EXPECT_TRUE(manager().programmed(Velnet::IpGenAddr::parse("192.0.2.1")));
  EXPECT_TRUE(manager().programmed(Velnet::IpGenAddr::parse("198.51.100.1")));
  gate.applyWhenQuiet(model);
  EXPECT_FALSE(gate.startingUp());
  EXPECT_TRUE(plugin->pbrAclPluginSm()->policyMapSm("edge"));
  EXPECT_TRUE(plugin->pbrAclPluginSm()->policyMapSm("core"));
}

TEST_F(ConfigGateTest, EachRuleIsWrittenOnceWithItsMark) {
  gate.begin(plugin->nexthopTableManager(), model);
  settle();
  gate.applyWhenQuiet(model);
  settle();
  const auto written = lines();
  EXPECT_EQ(count(written, "-R "), 0u) << ::testing::PrintToString(written);
  // edge: two web rules and one voice rule; core: two web rules.
  EXPECT_EQ(count(written, "-j MARK"), 5u) << ::testing::PrintToString(written);
  EXPECT_EQ(classData("edge", "web")->nexthopValue(), Velnet::IpGenAddr::parse("192.0.2.1"));
}

TEST_F(ConfigGateTest, TheClassesHoldTheOnlyReferencesAfterwards) {
  gate.begin(plugin->nexthopTableManager(), model);
  EXPECT_EQ(refs("198.51.100.1"), 1u);
  settle();
  gate.applyWhenQuiet(model);
  EXPECT_EQ(refs("198.51.100.1"), 2u);  // edge's voice, core's web
  EXPECT_EQ(refs("192.0.2.1"), 1u);
  EXPECT_EQ(refs("203.0.113.9"), 1u);
}

TEST_F(ConfigGateTest, WithNexthopProgrammingSwitchedOffThePoliciesComeAtOnce) {
  plugin->nexthopTableManager()->nexthopProgrammingTimeLimitIs(0.0);
  gate.begin(plugin->nexthopTableManager(), model);
  gate.applyWhenQuiet(model);
  EXPECT_FALSE(gate.startingUp());
  EXPECT_TRUE(plugin->pbrAclPluginSm()->policyMapSm("edge"));
}

TEST_F(ConfigGateTest, AReloadWhileStartingUpIsAppliedOnceTheNexthopsAre) {
  gate.begin(plugin->nexthopTableManager(), model);
  std::string text = kConfig;
  text.erase(text.find("  core:"), text.find("interfaces:") - text.find("  core:"));
  text.erase(text.find("  eth2: core\n"));
  const auto reloaded = Waymark::ConfigLoader::loadString(text, "f");
  gate.requestApply();
  gate.applyWhenQuiet(reloaded);
  EXPECT_FALSE(plugin->pbrAclPluginSm()->policyMapSm("edge"));
  settle();
  gate.applyWhenQuiet(reloaded);
  EXPECT_FALSE(gate.waiting());
  EXPECT_TRUE(plugin->pbrAclPluginSm()->policyMapSm("edge"));
  EXPECT_FALSE(plugin->pbrAclPluginSm()->policyMapSm("core"));
  settle();
  EXPECT_EQ(refs("198.51.100.1"), 1u);
  EXPECT_EQ(count(lines(), "-j MARK"), 3u);
}

// eth1 goes down and up before the loop runs: the kernel has dropped the
// route through it, and the loop has the nexthop's re-programming queued. A
// reload that references that nexthop anew would cancel it, so it waits.
TEST_F(ConfigGateTest, AReloadCannotCancelTheReprogrammingOfAFlappedNexthop) {
  gate.begin(plugin->nexthopTableManager(), model);
  settle();
  gate.applyWhenQuiet(model);
  settle();
  runner.take();
  address("eth1", "");
  address("eth1", "192.0.2.254/24");
  std::string text = kConfig;
  text.replace(text.find("[198.51.100.1]"), 14, "[192.0.2.1]");  // edge's voice class
  const auto reloaded = Waymark::ConfigLoader::loadString(text, "f");
  gate.requestApply();
  gate.applyWhenQuiet(reloaded);
  EXPECT_TRUE(gate.waiting());
  settle();
  gate.applyWhenQuiet(reloaded);
  EXPECT_FALSE(gate.waiting());
  settle();
  EXPECT_EQ(count(runner.commands, "route add default via 192.0.2.1 "), 1u)
      << ::testing::PrintToString(runner.commands);
  EXPECT_EQ(classData("edge", "voice")->nexthopValue(), Velnet::IpGenAddr::parse("192.0.2.1"));
}

}  // namespace
}  // namespace waymark::test
