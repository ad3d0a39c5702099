// Health checks in the router core, on virtual time: a nexthop whose probes
// go unanswered leaves its classes through the gate, as if the file had left
// it out, keeps its table and rule, and comes back when it answers again.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cli/StatusFormatter.h"
#include "tests/plugin/PbrSystemTest.h"

namespace waymark::test {
namespace {

using Velnet::IpGenAddr;

const std::string kConfig = R"(health-checks:
  192.0.2.1: {interval: 1, timeout: 0.5, down-after: 2, up-after: 3}
access-lists:
  web: [permit tcp any any eq 80]
  dns: [permit udp any any eq 53]
class-maps:
  web: [web]
  dns: [dns]
policy-maps:
  edge:
    - class: web
      nexthops: [192.0.2.1, 192.0.2.9]
    - class: dns
      nexthops: [192.0.2.1]
interfaces:
  eth1: edge
)";

class RouterHealthTest : public PbrSystemTest {
 protected:
  RouterHealthTest() { address("eth1", "192.0.2.254/24"); }

  void started(const std::string& text = kConfig) {
    startRouter(text);
    ASSERT_TRUE(runUntilIdle());
    runner.take();
  }
  // Runs the loop for `seconds` of virtual time; the probes sent meanwhile
  // are answered at once when `answering`.
  void run(double seconds, bool answering) {
    const double end = clock.now() + seconds;
    while (clock.now() < end) {
      const double untilDue = router.sleepTime();
      if (untilDue > 0) clock.advance(std::min(untilDue, end - clock.now()));
      router.turn();
      for (; answered < kernel.probes.sent.size(); ++answered) {
        const auto& probe = kernel.probes.sent[answered];
        if (answering) router.probeAnswered(probe.sequence, probe.target);
      }
    }
  }
  std::string inUse(const std::string& className) const {
    const auto v = classData("edge", className)->nexthopValue();
    return v.isUnset() ? "none" : v.stringValue();
  }
  nlohmann::json nexthopStatus(const std::string& address) {
    const auto status = router.status();
    for (const auto& n : status["nexthops"]) {
      if (n["address"] == address) return n;
    }
    return nullptr;
  }
  std::vector<std::string> events(const std::string& kind) {
    std::vector<std::string> out;
    const auto reply = ask({{"command", "events"}});
    for (const auto& e : reply["events"]) {
      if (e["kind"] == kind) out.push_back(e["text"]);
    }
    return out;
  }

  size_t answered = 0;
};

TEST_F(RouterHealthTest, ASilentNexthopLeavesItsClassesKeepsItsTableAndComesBack) {
  started();
  run(3.0, true);
  EXPECT_EQ(inUse("web"), "192.0.2.1");
  const auto& probe = kernel.probes.sent.front();
  EXPECT_EQ(probe.target, IpGenAddr::parse("192.0.2.1"));
  EXPECT_EQ(probe.interface, "eth1");
  EXPECT_EQ(probe.source, IpGenAddr::parse("192.0.2.254"));

  // Two rounds unanswered: withdrawn once the second's half second is up.
  run(2.6, false);
  EXPECT_EQ(inUse("web"), "192.0.2.9");
  EXPECT_EQ(inUse("dns"), "none");
  EXPECT_TRUE(runner.commands.empty()) << ::testing::PrintToString(runner.commands);
  auto n = nexthopStatus("192.0.2.1");
  EXPECT_EQ(n["health"], "down");
  EXPECT_EQ(n["programmed"], true);
  EXPECT_EQ(n["healthCheck"]["lastRound"], "unanswered");
  EXPECT_EQ(nexthopStatus("192.0.2.9")["health"], "not checked");
  const std::string table = Waymark::StatusFormatter::nexthops(router.status());
  EXPECT_NE(table.find("  down    33%   0.0ms  programmed"), std::string::npos) << table;
  EXPECT_EQ(events("nexthop-down"),
            std::vector<std::string>{
                "nexthop 192.0.2.1 down: no answer from 192.0.2.1 in 2 rounds in a row"});
  EXPECT_EQ(events("class-nexthop"),
            (std::vector<std::string>{"policy edge class web: nexthop none -> 192.0.2.1",
                                      "policy edge class dns: nexthop none -> 192.0.2.1",
                                      "policy edge class web: nexthop 192.0.2.1 -> 192.0.2.9",
                                      "policy edge class dns: nexthop 192.0.2.1 -> none"}));
  EXPECT_NE(ask({{"command", "metrics"}})["text"].get<std::string>().find(
                "waymark_nexthop_up{nexthop=\"192.0.2.1\"} 0"),
            std::string::npos);

  // Three rounds answered bring it back, in its place at the head of the list.
  run(2.0, true);
  EXPECT_EQ(inUse("web"), "192.0.2.9");
  run(1.0, true);
  EXPECT_EQ(inUse("web"), "192.0.2.1");
  EXPECT_EQ(inUse("dns"), "192.0.2.1");
  EXPECT_TRUE(runner.commands.empty());
  n = nexthopStatus("192.0.2.1");
  EXPECT_EQ(n["health"], "up");
  EXPECT_EQ(n["healthCheck"]["lastRound"], "answered");
  EXPECT_EQ(events("nexthop-up"),
            std::vector<std::string>{"nexthop 192.0.2.1 up: answered 3 rounds in a row"});
}

TEST_F(RouterHealthTest, AReloadWithoutTheCheckPutsTheNexthopBackAndLetsItGo) {
  started();
  run(3.0, false);
  ASSERT_EQ(inUse("web"), "192.0.2.9");
  std::string text = kConfig;
  text.erase(0, text.find("access-lists:"));
  writeConfig(text);
  ASSERT_EQ(reload(), "");
  ASSERT_TRUE(runUntilIdle());
  EXPECT_EQ(inUse("web"), "192.0.2.1");
  EXPECT_EQ(nexthopStatus("192.0.2.1")["health"], "not checked");

  // Its classes hold it now; once none names it, it goes.
  text.replace(text.find("[192.0.2.1, 192.0.2.9]"), 22, "[192.0.2.9]");
  text.replace(text.find("[192.0.2.1]"), 11, "[192.0.2.9]");
  writeConfig(text);
  ASSERT_EQ(reload(), "");
  ASSERT_TRUE(runUntilIdle());
  EXPECT_FALSE(manager().programmed(IpGenAddr::parse("192.0.2.1")));
  const size_t probes = kernel.probes.sent.size();
  run(5.0, false);
  EXPECT_EQ(kernel.probes.sent.size(), probes);
}

TEST_F(RouterHealthTest, ExplainSaysWhenAClassesNexthopIsDownByItsCheck) {
  started();
  run(3.0, false);
  const auto reply = ask({{"command", "explain"},
                          {"in", "eth1"},
                          {"proto", "udp"},
                          {"src", "10.0.0.1"},
                          {"dst", "198.51.100.1"},
                          {"dport", 53}});
  EXPECT_EQ(reply["class"], "dns");
  EXPECT_TRUE(reply["nexthop"].is_null());
  EXPECT_EQ(reply["nexthopState"], "192.0.2.1: down by its health check");
}

}  // namespace
}  // namespace waymark::test
