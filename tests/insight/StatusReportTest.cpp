// What waymarkctl shows: the status fields and the reasons a nexthop is not
// programmed.
#include <gtest/gtest.h>

#include "cli/StatusFormatter.h"
#include "insight/StatusReport.h"
#include "tests/plugin/PbrSystemTest.h"

namespace waymark::test {
namespace {

class StatusReportTest : public PbrSystemTest {
 protected:
  StatusReportTest() {
    accessList("web", {"permit tcp any any eq 80"});
    accessList("local", {"permit ip any 203.0.113.0/24"});
    classMap("web", {"web"});
    classMap("away", {"web"});
    classMap("refused", {"web"});
    classMap("local", {"local"});
    address("eth1", "192.0.2.254/24");
    policy("edge", {{"web", {"192.0.2.1"}},
                    {"away", {"203.0.113.9"}},
                    {"refused", {"192.0.2.66"}},
                    {"local", {}}});
    apply("eth1", "edge");
    runner.statusIs("ip route add default via 192.0.2.66", exitStatus(2));
    start();
    settle();
  }
  nlohmann::json nexthop(const std::string& address) const {
    const auto status = Waymark::StatusReport::build(*plugin);
    for (const auto& n : status.at("nexthops")) {
      if (n.at("address") == address) return n;
    }
    return nullptr;
  }
};

TEST_F(StatusReportTest, EachNexthopSaysWhyItIsOrIsNotProgrammed) {
  EXPECT_EQ(nexthop("192.0.2.1").at("state"), "programmed");
  EXPECT_EQ(nexthop("203.0.113.9").at("state"), "outside every connected subnet");
  EXPECT_EQ(nexthop("192.0.2.66").at("state"), "kernel refused");
  const auto n = nexthop("192.0.2.1");
  EXPECT_EQ(n.at("refs"), 1);
  EXPECT_EQ(n.at("programmed"), true);
  EXPECT_EQ(n.at("fwmark"), n.at("table"));
  for (const char* field : {"priority", "withoutSubnet", "withoutResources"}) {
    EXPECT_TRUE(n.contains(field)) << field;
  }
}

TEST_F(StatusReportTest, PoliciesQueuesAndCountersAreReported) {
  const auto status = Waymark::StatusReport::build(*plugin);
  ASSERT_EQ(status.at("policies").size(), 1u);
  const auto& p = status.at("policies")[0];
  EXPECT_EQ(p.at("family"), "ipv4");
  EXPECT_EQ(p.at("interfaces"), nlohmann::json::array({"eth1"}));
  EXPECT_EQ(p.at("classes")[0].at("nexthop"), "192.0.2.1");
  EXPECT_TRUE(p.at("classes")[1].at("nexthop").is_null());
  EXPECT_EQ(p.at("classes")[3].at("passthrough"), true);
  EXPECT_EQ(status.at("queues").at("nexthopsPending"), 0);
  EXPECT_TRUE(status.at("idle").get<bool>());
  EXPECT_TRUE(status.at("counters").at("ipv4").contains("rulesProgrammed"));

  const std::string table = Waymark::StatusFormatter::policies(status);
  EXPECT_NE(table.find("web -> 192.0.2.1"), std::string::npos) << table;
  EXPECT_NE(table.find("away -> unresolved"), std::string::npos) << table;
  EXPECT_NE(table.find("local -> passthrough"), std::string::npos) << table;
}

}  // namespace
}  // namespace waymark::test
