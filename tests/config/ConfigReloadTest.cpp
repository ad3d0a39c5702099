// Reloads applied as differences: only what changed reaches the kernel.
#include <gtest/gtest.h>

#include <string>

#include "config/ConfigApplier.h"
#include "config/ConfigLoader.h"
#include "tests/plugin/PbrSystemTest.h"

namespace waymark::test {
namespace {

const std::string kBase = R"(access-lists:
  web: [permit tcp any any eq 80]
  voice: [permit udp any any eq 5060]
class-maps:
  web: [web]
  voice: [voice]
policy-maps:
  edge:
    - class: web
      nexthops: [192.0.2.1]
    - class: voice
      nexthops: [198.51.100.1]
  core:
    - class: web
      nexthops: [198.51.100.1]
interfaces:
  eth1: edge
  eth2: core
)";

class ConfigReload : public PbrSystemTest {
 protected:
  ConfigReload() {
    address("eth1", "192.0.2.254/24");
    address("eth2", "198.51.100.254/24");
    applier.apply(Waymark::ConfigLoader::loadString(kBase, "f"));
    start();
    settle();
    lines();
    runner.take();
  }
  void reload(const std::string& text) {
    applier.apply(Waymark::ConfigLoader::loadString(text, "f"));
    settle();
  }
  Waymark::ConfigApplier applier{pbrConfig, aclConfig};
};

TEST_F(ConfigReload, AnUnchangedFileTouchesNothing) {
  reload(kBase);
  EXPECT_TRUE(lines().empty());
  EXPECT_TRUE(runner.commands.empty());
}

// The class has no programmed nexthop until the new one comes up, so its
// pair is rewritten twice: unmarked, then marked.
TEST_F(ConfigReload, ANewNexthopListRewritesOnlyItsClassesTwoRules) {
  std::string text = kBase;
  text.replace(text.find("[198.51.100.1]"), 14, "[192.0.2.7]");  // edge's voice class
  reload(text);
  const auto written = lines();
  const std::string c = chain("edge");
  ASSERT_EQ(written.size(), 4u) << ::testing::PrintToString(written);
  for (size_t i = 0; i < written.size(); ++i) {
    EXPECT_EQ(written[i].substr(0, c.size() + 6), "-R " + c + (i % 2 ? " 4 " : " 3 "));
  }
  EXPECT_EQ(written[0].find("-j MARK"), std::string::npos);
  EXPECT_EQ(written[2].substr(written[2].size() - 23), " -j MARK --set-mark 0x4");
  // 198.51.100.1 is still core's, so its rule and route stay.
  for (const auto& command : runner.commands) {
    EXPECT_EQ(command.find("198.51.100.1"), std::string::npos) << command;
  }
}

TEST_F(ConfigReload, RemovingAPolicyAndItsInterfaceRemovesOnlyThem) {
  std::string text = kBase;
  text.erase(text.find("  core:"), text.find("interfaces:") - text.find("  core:"));
  text.erase(text.find("  eth2: core\n"));
  reload(text);
  const auto written = lines();
  ASSERT_EQ(written.size(), 3u) << ::testing::PrintToString(written);
  EXPECT_EQ(written[0].substr(0, 30), "-D TAMBRO_PBR_INTF -i eth2 -j ");
  EXPECT_EQ(written[1].substr(0, 3), "-F ");
  EXPECT_EQ(written[2].substr(0, 3), "-X ");
  EXPECT_TRUE(plugin->pbrAclPluginSm()->policyMapSm("edge"));
  EXPECT_FALSE(plugin->pbrAclPluginSm()->policyMapSm("core"));
}

}  // namespace
}  // namespace waymark::test
