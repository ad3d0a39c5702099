// The netlink executor against real `ip`, in a private namespace: the same
// commands give the same exit statuses and leave the same rules and routes.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "daemon/NetlinkCommandRunner.h"
#include "daemon/QuietCommandRunner.h"
#include "tests/support/NetworkNamespace.h"

namespace waymark::test {
namespace {

const std::vector<std::string> kCommands = {
    "ip route add default via 192.0.2.1 table 2",
    "ip rule add priority 2 fwmark 2 lookup 2",
    "ip rule add priority 2 fwmark 2 lookup 2",           // exists already
    "ip route add default via 192.0.2.1 table 2",         // exists already
    "ip route add default via 203.0.113.1 table 3",       // gateway unreachable
    "ip -6 route add default via 2001:db8::1 table 300",  // a table above 255
    "ip -6 rule add priority 32765 fwmark 13430 lookup 300",
    "ip rule add priority 7 fwmark 4294967295 lookup 65535",
    "ip rule del priority 7",
    "ip rule del priority 7",  // gone already
    "ip -6 rule del priority 9",
    "ip route del table 2",  // a form iproute2 rejects
    "ip -6 route del table 300",
    "ip rule del priority 2",
};

class NetlinkCommandRunnerKernel : public ::testing::Test {
 protected:
  void SetUp() override {
    WAYMARK_REQUIRE_NETNS();
    ns_ = std::make_unique<NetworkNamespace>();
    ns_->addLinkPair("wm0", "wm1");
    ns_->run("ip addr add 192.0.2.254/24 dev wm0 && ip -6 addr add 2001:db8::fe/64 dev wm0 nodad");
  }
  // Statuses of the commands, then what the kernel holds.
  std::vector<std::string> outcome(Pbr::CommandRunner& runner) {
    std::vector<std::string> out;
    for (const auto& c : kCommands) out.push_back(c + " => " + std::to_string(runner.run(c)));
    for (const char* show : {"ip rule", "ip -6 rule", "ip route show table 2",
                             "ip -6 route show table 300", "ip route show table 3"}) {
      out.push_back(std::string(show) + ":\n" +
                    ns_->run(std::string(show) + " 2>/dev/null || true"));
    }
    // Back to a clean slate for the other runner.
    ns_->run(
        "ip rule del priority 32765 2>/dev/null; ip -6 rule del priority 32765 2>/dev/null; "
        "ip route flush table 2; ip -6 route flush table 300; true");
    return out;
  }
  std::unique_ptr<NetworkNamespace> ns_;
};

TEST_F(NetlinkCommandRunnerKernel, EveryCommandEndsAsIpWouldEndIt) {
  Waymark::QuietCommandRunner shell;
  const auto expected = outcome(shell);
  Waymark::NetlinkCommandRunner netlink(&shell);
  EXPECT_EQ(outcome(netlink), expected);
  EXPECT_EQ(netlink.fallbacks(), 0u);
}

TEST_F(NetlinkCommandRunnerKernel, OtherCommandsGoToTheShell) {
  Waymark::QuietCommandRunner shell;
  Waymark::NetlinkCommandRunner netlink(&shell);
  EXPECT_EQ(netlink.run("ip link set lo up"), 0);
  // An IPv6 gateway without -6: ip finds the family itself.
  EXPECT_EQ(netlink.run("ip route add default via 2001:db8::1 table 5"), 0);
  EXPECT_EQ(ns_->run("ip -6 route show table 5"),
            "default via 2001:db8::1 dev wm0 metric 1024 pref medium\n");
  EXPECT_EQ(netlink.fallbacks(), 2u);
}

}  // namespace
}  // namespace waymark::test
