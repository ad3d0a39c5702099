// The two executors against the real kernel, in a private namespace: the
// same requests end the same way and leave the same rules and routes, and a
// rule delete never takes another's rule at the same priority.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "kernel/KernelRouting.h"
#include "kernel/NetlinkCommandRunner.h"
#include "kernel/QuietCommandRunner.h"
#include "tests/support/NetworkNamespace.h"

namespace waymark::test {
namespace {

using Pbr::RoutingRequest;
using Velnet::IpGenAddr;

const IpGenAddr kV4 = IpGenAddr::parse("192.0.2.1");
const IpGenAddr kV6 = IpGenAddr::parse("2001:db8::1");

const std::vector<RoutingRequest> kRequests = {
    RoutingRequest::addRoute(kV4, 2),
    RoutingRequest::addRule(kV4, 2, 2, 2),
    RoutingRequest::addRule(kV4, 2, 2, 2),                         // exists already
    RoutingRequest::addRoute(kV4, 2),                              // exists already
    RoutingRequest::addRoute(IpGenAddr::parse("203.0.113.1"), 3),  // gateway unreachable
    RoutingRequest::addRoute(kV6, 300),                            // a table above 255
    RoutingRequest::addRule(kV6, 32765, 13430, 300),
    RoutingRequest::addRule(kV4, 7, 4294967295u, 65535),
    RoutingRequest::deleteRule(kV4, 7, 4294967295u, 65535),
    RoutingRequest::deleteRule(kV4, 7, 4294967295u, 65535),  // gone already
    RoutingRequest::deleteRule(kV6, 9, 9, 9),
    RoutingRequest::deleteRoute(kV4, 2),  // a form iproute2 rejects
    RoutingRequest::deleteRoute(kV6, 300),
    RoutingRequest::deleteRule(kV4, 2, 2, 2),
};

std::string describe(const Pbr::CommandOutcome& o) {
  return std::to_string(static_cast<int>(o.kind())) + ":" + std::to_string(o.code());
}

class NetlinkCommandRunnerKernel : public ::testing::Test {
 protected:
  void SetUp() override {
    WAYMARK_REQUIRE_NETNS();
    ns_ = std::make_unique<NetworkNamespace>();
    ns_->addLinkPair("wm0", "wm1");
    ns_->run("ip addr add 192.0.2.254/24 dev wm0 && ip -6 addr add 2001:db8::fe/64 dev wm0 nodad");
    // Its socket belongs to the namespace it is opened in.
    routing_ = std::make_unique<Kernel::KernelRouting>();
  }
  // Outcomes of the requests, then what the kernel holds.
  std::vector<std::string> outcome(Pbr::CommandRunner& runner) {
    std::vector<std::string> out;
    for (const auto& r : kRequests) out.push_back(r.text + " => " + describe(runner.run(r)));
    for (const char* show : {"ip rule", "ip -6 rule", "ip route show table 2",
                             "ip -6 route show table 300", "ip route show table 3"}) {
      out.push_back(std::string(show) + ":\n" +
                    ns_->run(std::string(show) + " 2>/dev/null || true"));
    }
    // Back to a clean slate for the other runner.
    ns_->run(
        "ip -6 rule del priority 32765 2>/dev/null; ip route flush table 2; "
        "ip -6 route flush table 300; true");
    return out;
  }
  std::unique_ptr<NetworkNamespace> ns_;
  std::unique_ptr<Kernel::KernelRouting> routing_;
};

TEST_F(NetlinkCommandRunnerKernel, EveryRequestEndsAsIpWouldEndIt) {
  Kernel::QuietCommandRunner shell;
  const auto expected = outcome(shell);
  Kernel::NetlinkCommandRunner netlink(*routing_, shell);
  EXPECT_EQ(outcome(netlink), expected);
  EXPECT_EQ(netlink.fallbacks(), 0u);
}

TEST_F(NetlinkCommandRunnerKernel, ARuleDeleteLeavesAnotherRuleAtThatPriority) {
  ns_->run("ip rule add priority 2 from 192.0.2.62 lookup 100");
  Kernel::QuietCommandRunner shell;
  Kernel::NetlinkCommandRunner netlink(*routing_, shell);
  for (Pbr::CommandRunner* runner :
       {static_cast<Pbr::CommandRunner*>(&shell), static_cast<Pbr::CommandRunner*>(&netlink)}) {
    EXPECT_EQ(runner->run(RoutingRequest::deleteRule(kV4, 2, 2, 2)),
              Pbr::CommandOutcome::exited(2));
    EXPECT_EQ(runner->run(RoutingRequest::addRule(kV4, 2, 2, 2)), Pbr::CommandOutcome::exited(0));
    EXPECT_EQ(runner->run(RoutingRequest::deleteRule(kV4, 2, 2, 2)),
              Pbr::CommandOutcome::exited(0));
    EXPECT_EQ(ns_->run("ip rule show priority 2"), "2:\tfrom 192.0.2.62 lookup 100\n");
  }
}

TEST_F(NetlinkCommandRunnerKernel, CommandsKnownOnlyByTheirTextGoToTheShell) {
  Kernel::QuietCommandRunner shell;
  Kernel::NetlinkCommandRunner netlink(*routing_, shell);
  EXPECT_TRUE(netlink.run(RoutingRequest::ofText("ip link set lo up")).succeeded());
  EXPECT_EQ(netlink.run(RoutingRequest::ofText("ip route add default via 2001:db8::1 table 5")),
            Pbr::CommandOutcome::exited(0));
  EXPECT_EQ(ns_->run("ip -6 route show table 5"),
            "default via 2001:db8::1 dev wm0 metric 1024 pref medium\n");
  EXPECT_EQ(netlink.fallbacks(), 2u);
}

TEST_F(NetlinkCommandRunnerKernel, ReadsBackRulesAndTablesAndEmptiesOneTable) {
  ns_->run(
      "ip route add default via 192.0.2.1 table 300 && ip route add 198.51.100.0/24 via "
      "192.0.2.1 table 300 && ip route add default via 192.0.2.1 table 301 && "
      "ip -6 route add default via 2001:db8::1 table 300 && "
      "ip rule add priority 5 fwmark 0x10 lookup 300");
  const auto rules = routing_->rules(false);
  EXPECT_NE(std::find(rules.begin(), rules.end(), Kernel::PolicyRule{false, 5, 16, 300}),
            rules.end());
  EXPECT_EQ(routing_->routeTables(false).at(300), 2u);
  EXPECT_EQ(routing_->flushTable(false, 300), 2);
  EXPECT_EQ(routing_->routeTables(false).count(300), 0u);
  EXPECT_EQ(ns_->run("ip route show table 301"), "default via 192.0.2.1 dev wm0 \n");
  EXPECT_EQ(ns_->run("ip -6 route show table 300 | wc -l"), "1\n");
  EXPECT_EQ(routing_->flushTable(false, 300), 0);
}

}  // namespace
}  // namespace waymark::test
