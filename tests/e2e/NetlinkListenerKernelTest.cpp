// The rtnetlink listener against the real kernel in a private namespace.
#include <gtest/gtest.h>

#include <unistd.h>

#include <functional>
#include <memory>

#include "kernel/NetlinkListener.h"
#include "sync/InterfaceStatusSync.h"
#include "tests/support/NetworkNamespace.h"

namespace waymark::test {
namespace {

using Velnet::IntfId;
using Velnet::Ip6AddrWithMask;
using Velnet::IpAddrWithMask;

class NetlinkListenerKernel : public ::testing::Test {
 protected:
  void SetUp() override {
    WAYMARK_REQUIRE_NETNS();
    ns_ = std::make_unique<NetworkNamespace>();
    ns_->addLinkPair("wm0", "wm1");
    ns_->run("ip addr add 192.0.2.1/24 dev wm0 && ip addr add 192.0.2.2/24 dev wm0");
    ns_->run("ip addr add 198.51.100.1/24 dev wm0");
    listener_ = std::make_unique<Waymark::NetlinkListener>(
        [this](const Waymark::NetlinkListener::Interface& shown) { sync_.publish(shown); });
    std::string error;
    ASSERT_TRUE(listener_->open(&error)) << error;
  }
  // Runs `command`, then lets the listener read the events it caused.
  void change(const std::string& command) {
    ns_->run(command);
    listener_->handleEvents();
  }
  // Reads events until `holds` does, for at most 5 s. A link's carrier
  // reaches its flags through the kernel's link watcher, after the command
  // that changed it has returned: up to a second later.
  bool eventually(const std::function<bool()>& holds) {
    for (int i = 0; i < 250 && !holds(); ++i) {
      usleep(20000);
      listener_->handleEvents();
    }
    return holds();
  }
  Vix::Ptr<Ip::IpIntfStatus> wm0() const { return ip->ipIntfStatus(IntfId("wm0")); }

  Vix::Ptr<Ip::Status> ip = Vix::make<Ip::Status>();
  Vix::Ptr<Ip6::Status> ip6 = Vix::make<Ip6::Status>();
  Waymark::InterfaceStatusSync sync_{ip, ip6};
  std::unique_ptr<NetworkNamespace> ns_;
  std::unique_ptr<Waymark::NetlinkListener> listener_;
};

TEST_F(NetlinkListenerKernel, TheDumpGivesPrimaryAndSecondaries) {
  ASSERT_TRUE(wm0());
  EXPECT_EQ(wm0()->activeAddrWithMask(), IpAddrWithMask::parse("192.0.2.1/24"));
  EXPECT_TRUE(wm0()->activeSecondaryWithMask(IpAddrWithMask::parse("192.0.2.2/24")));
  EXPECT_TRUE(wm0()->activeSecondaryWithMask(IpAddrWithMask::parse("198.51.100.1/24")));
  EXPECT_TRUE(ip->ipIntfStatus(IntfId("lo")));
}

TEST_F(NetlinkListenerKernel, ALinkThatGoesDownShowsNoAddressesUntilItIsBack) {
  change("ip link set wm1 down");  // wm0 loses its carrier: not running
  EXPECT_TRUE(eventually([&] { return wm0()->activeAddrWithMask().isZero(); }));
  EXPECT_TRUE(wm0()->activeSecondaryWithMask().empty());
  change("ip link set wm1 up");
  EXPECT_TRUE(eventually([&] { return !wm0()->activeAddrWithMask().isZero(); }));
  EXPECT_EQ(wm0()->activeAddrWithMask(), IpAddrWithMask::parse("192.0.2.1/24"));
}

TEST_F(NetlinkListenerKernel, DeletingThePrimaryPromotesOrDropsTheRest) {
  change("ip addr del 192.0.2.1/24 dev wm0");
  // The kernel deletes the subnet's secondaries with it (no promotion by default).
  EXPECT_EQ(wm0()->activeAddrWithMask(), IpAddrWithMask::parse("198.51.100.1/24"));
  EXPECT_FALSE(wm0()->activeSecondaryWithMask(IpAddrWithMask::parse("192.0.2.2/24")));
}

TEST_F(NetlinkListenerKernel, IPv6KeepsLinkLocalAndSkipsTentativeAddresses) {
  change("ip -6 addr add 2001:db8::1/64 dev wm0 nodad");
  const auto s6 = ip6->intf(IntfId("wm0"));
  ASSERT_TRUE(s6);
  EXPECT_FALSE(s6->addr(Ip6AddrWithMask::parse("2001:db8::1/64")).empty());
  // The link-local address appears once its duplicate detection is over.
  EXPECT_TRUE(eventually([&] {
    bool linkLocal = false;
    for (const auto& [a, info] : s6->addrs()) linkLocal |= a.addr().group(0) == 0xfe80;
    return linkLocal;
  }));
  change("ip -6 addr add 2001:db8::2/64 dev wm0");  // tentative while DAD runs
  EXPECT_TRUE(s6->addr(Ip6AddrWithMask::parse("2001:db8::2/64")).empty());
}

TEST_F(NetlinkListenerKernel, ADeletedLinkLosesItsStatus) {
  change("ip link del wm0");
  EXPECT_FALSE(wm0());
  EXPECT_FALSE(ip6->intf(IntfId("wm0")));
}

}  // namespace
}  // namespace waymark::test
