// createRoutingTable and deleteRoutingTable against the real kernel, in a
// private network namespace: the rule and route are read back with `ip`.
#include <gtest/gtest.h>

#include "nexthop/NexthopTableManager.h"
#include "tests/support/NetworkNamespace.h"

namespace waymark::test {
namespace {

using Velnet::IpGenAddr;

class RoutingTableKernel : public ::testing::Test {
 protected:
  void SetUp() override {
    WAYMARK_REQUIRE_NETNS();
    ns_ = std::make_unique<NetworkNamespace>();
    // A link with addresses in the nexthops' subnets, so that the kernel
    // accepts them as gateways.
    ns_->addLinkPair("wm0", "wm1");
    ns_->run("ip addr add 192.0.2.254/24 dev wm0");
    ns_->run("ip -6 addr add 2001:db8::fe/64 dev wm0 nodad");
    manager->trieIs()->routeIs(Velnet::Prefix::parse("192.0.2.0/24"), true);
    manager->trie6Is()->routeIs(Velnet::Ip6Prefix::parse("2001:db8::/64"), true);
  }

  std::string run(const std::string& command) { return ns_->run(command); }

  std::unique_ptr<NetworkNamespace> ns_;
  Vix::Ptr<Pbr::NexthopTableManager> manager =
      Vix::make<Pbr::NexthopTableManager>(nullptr, nullptr);
};

TEST_F(RoutingTableKernel, AnIPv4NexthopsRuleAndRouteAppearAndGo) {
  const auto nh = IpGenAddr::parse("192.0.2.1");
  manager->createRoutingTable(nh, false);
  ASSERT_TRUE(manager->programmed(nh));
  EXPECT_EQ(run("ip route show table 2"), "default via 192.0.2.1 dev wm0 \n");
  EXPECT_EQ(run("ip rule show priority 2"), "2:\tfrom all fwmark 0x2 lookup 2\n");

  manager->deleteRoutingTable(nh, false);
  EXPECT_EQ(run("ip rule show priority 2"), "");
  // The route delete form has no selector the kernel accepts, so the route
  // stays; no rule points at its table any more.
  EXPECT_EQ(run("ip route show table 2"), "default via 192.0.2.1 dev wm0 \n");
}

TEST_F(RoutingTableKernel, AnIPv6NexthopsRuleAndRouteAppear) {
  const auto nh = IpGenAddr::parse("2001:db8::1");
  manager->createRoutingTable(nh, false);
  ASSERT_TRUE(manager->programmed(nh));
  EXPECT_EQ(run("ip -6 route show table 2"),
            "default via 2001:db8::1 dev wm0 metric 1024 pref medium\n");
  EXPECT_EQ(run("ip -6 rule show priority 2"), "2:\tfrom all fwmark 0x2 lookup 2\n");
  manager->deleteRoutingTable(nh, false);
  EXPECT_EQ(run("ip -6 rule show priority 2"), "");
}

TEST_F(RoutingTableKernel, TheKernelRefusingAGatewayIsRecordedNotRaised) {
  // 192.0.2.0/24 is in the trie, but take the link's address away: the kernel
  // then has no route to the gateway and refuses the default route.
  run("ip addr del 192.0.2.254/24 dev wm0");
  const auto nh = IpGenAddr::parse("192.0.2.1");
  manager->createRoutingTable(nh, false);
  EXPECT_FALSE(manager->programmed(nh));
  EXPECT_TRUE(manager->nexthopWithoutResources(nh));
  EXPECT_EQ(run("ip rule show priority 2"), "");
}

}  // namespace
}  // namespace waymark::test
