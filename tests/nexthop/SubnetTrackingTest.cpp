#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "framework/Errors.h"
#include "tests/nexthop/NexthopTableManagerFixture.h"

namespace waymark::test {
namespace {

using Pbr::pendingAdd;
using Pbr::pendingDelete;
using Velnet::IntfId;
using Velnet::Ip6AddrWithMask;
using Velnet::IpAddrWithMask;

IpAddrWithMask v4(const char* text) { return IpAddrWithMask::parse(text); }
Ip6AddrWithMask v6(const char* text) { return Ip6AddrWithMask::parse(text); }

class SubnetTracking : public NexthopTableManagerTest {
 protected:
  Vix::Ptr<Ip::IpIntfStatus> intf(const char* name) {
    return ipStatus->ipIntfStatusIs(IntfId(name));
  }
  Vix::Ptr<Ip6::IntfStatus> intf6(const char* name) { return ip6Status->intfIs(IntfId(name)); }
  void addr6(const char* name, const char* a) { intf6(name)->addrIs(v6(a), {v6(a), 0}); }

  bool connected4(const char* prefix) const {
    return manager->trie() && manager->trie()->route(Velnet::Prefix::parse(prefix));
  }
  bool connected6(const char* prefix) const {
    return manager->trie6() && manager->trie6()->route(Velnet::Ip6Prefix::parse(prefix));
  }
  // References `nh` and lets the loop run to the end.
  void use(const char* nh) {
    manager->nexthopInc(addr(nh), 1);
    runUntilIdle();
  }
};

TEST_F(SubnetTracking, PrimaryAndSecondaryAddressesBecomeConnectedSubnets) {
  const auto eth1 = intf("eth1");
  eth1->activeAddrWithMaskIs(v4("192.0.2.254/24"));
  eth1->activeSecondaryWithMaskIs(v4("198.51.100.254/25"), true);
  eth1->activeSecondaryWithMaskIs(v4("203.0.113.254/24"), false);  // listed, not active
  EXPECT_EQ(manager->validSubnet(v4("192.0.2.254/24")), IntfId("eth1"));
  EXPECT_EQ(manager->validSubnet(v4("198.51.100.254/25")), IntfId("eth1"));
  EXPECT_TRUE(connected4("192.0.2.0/24"));
  EXPECT_TRUE(connected4("198.51.100.128/25"));
  EXPECT_FALSE(connected4("203.0.113.0/24"));
  EXPECT_EQ(traces.texts(6), (std::vector<std::string>{"Adding valid subnet 192.0.2.254/24",
                                                       "Adding valid subnet 198.51.100.254/25"}));

  eth1->activeSecondaryWithMaskDel(v4("198.51.100.254/25"));
  EXPECT_FALSE(connected4("198.51.100.128/25"));
  EXPECT_EQ(traces.texts(6).back(), "Removing invalid subnet 198.51.100.254/25");
}

TEST_F(SubnetTracking, AnInterfacePresentBeforeTheManagerIsPickedUp) {
  auto status = Vix::make<Ip::Status>();
  status->ipIntfStatusIs(IntfId("eth9"))->activeAddrWithMaskIs(v4("192.0.2.9/24"));
  const auto late = Pbr::nexthopTableManagerFactory(status, nullptr);
  EXPECT_EQ(late->validSubnet(v4("192.0.2.9/24")), IntfId("eth9"));
}

TEST_F(SubnetTracking, ANewPrimaryWithdrawsTheOldOneFirst) {
  const auto eth1 = intf("eth1");
  eth1->activeAddrWithMaskIs(v4("192.0.2.254/24"));
  traces.clear();
  eth1->activeAddrWithMaskIs(v4("198.51.100.254/24"));
  EXPECT_EQ(traces.texts(6), (std::vector<std::string>{"Removing invalid subnet 192.0.2.254/24",
                                                       "Adding valid subnet 198.51.100.254/24"}));
  EXPECT_TRUE(manager->validSubnet(v4("192.0.2.254/24")).empty());
}

TEST_F(SubnetTracking, TheLastInterfaceToClaimAnAddressOwnsIt) {
  intf("eth2");
  manager->nexthopWithoutSubnetIs(Velnet::IpAddr::parse("192.0.2.1"), true);
  intf("eth1")->activeAddrWithMaskIs(v4("192.0.2.254/24"));
  manager->pendingNexthopDel(addr("192.0.2.1"));
  intf("eth2")->activeSecondaryWithMaskIs(v4("192.0.2.254/24"), true);
  EXPECT_EQ(manager->validSubnet(v4("192.0.2.254/24")), IntfId("eth2"));
  // The adding branch ran again for the new owner.
  EXPECT_EQ(manager->pendingNexthop(addr("192.0.2.1")), pendingAdd);

  // The former owner can no longer withdraw it.
  intf("eth1")->activeAddrWithMaskIs(IpAddrWithMask());
  EXPECT_EQ(manager->validSubnet(v4("192.0.2.254/24")), IntfId("eth2"));
  EXPECT_TRUE(connected4("192.0.2.0/24"));
}

TEST_F(SubnetTracking, WithdrawingOneOfTwoAddressesOfASubnetWithdrawsTheSubnet) {
  intf("eth1")->activeAddrWithMaskIs(v4("192.0.2.1/24"));
  intf("eth2")->activeAddrWithMaskIs(v4("192.0.2.2/24"));
  use("192.0.2.7");
  ASSERT_TRUE(manager->programmed(addr("192.0.2.7")));

  intf("eth2")->activeAddrWithMaskIs(IpAddrWithMask());
  // eth1 still holds 192.0.2.1/24, yet the shared prefix is gone.
  EXPECT_EQ(manager->validSubnet(v4("192.0.2.1/24")), IntfId("eth1"));
  EXPECT_FALSE(connected4("192.0.2.0/24"));
  EXPECT_EQ(manager->pendingNexthop(addr("192.0.2.7")), pendingDelete);
  EXPECT_TRUE(manager->nexthopWithoutSubnet(Velnet::IpAddr::parse("192.0.2.7")));
  EXPECT_FALSE(manager->nexthopsForSubnet(Velnet::Prefix::parse("192.0.2.0/24")));
}

TEST_F(SubnetTracking, AHostAddressMakesASubnetOfOneAddress) {
  intf("eth1")->activeAddrWithMaskIs(v4("192.0.2.7/32"));
  addr6("eth1", "2001:db8::7/128");
  for (const char* nh : {"192.0.2.7", "192.0.2.8", "2001:db8::7", "2001:db8::8"}) use(nh);
  EXPECT_TRUE(manager->programmed(addr("192.0.2.7")));
  EXPECT_FALSE(manager->programmed(addr("192.0.2.8")));
  EXPECT_TRUE(manager->programmed(addr("2001:db8::7")));
  EXPECT_FALSE(manager->programmed(addr("2001:db8::8")));
  EXPECT_TRUE(manager->nexthop6WithoutSubnet(Velnet::Ip6Addr::parse("2001:db8::8")));
}

TEST_F(SubnetTracking, ALinkLocalIPv6AddressIsAConnectedSubnet) {
  addr6("eth1", "fe80::1/64");
  EXPECT_TRUE(connected6("fe80::/64"));
  use("fe80::2");
  EXPECT_TRUE(manager->programmed(addr("fe80::2")));
  EXPECT_EQ(runner.commands.back(), "ip -6 rule add priority 2 fwmark 2 lookup 2");
}

TEST_F(SubnetTracking, TheZeroAddressIsNeverValid) {
  intf("eth1")->activeAddrWithMaskIs(v4("192.0.2.1/24"));
  intf("eth1")->activeSecondaryWithMaskIs(IpAddrWithMask(), true);
  EXPECT_TRUE(manager->validSubnet(IpAddrWithMask()).empty());
  addr6("eth1", "::/0");
  EXPECT_TRUE(manager->validSubnet6(Ip6AddrWithMask()).empty());
}

TEST_F(SubnetTracking, AMaskLongerThan32IsRejectedAndChangesNoSubnet) {
  try {
    intf("eth1")->activeAddrWithMaskIs(IpAddrWithMask(Velnet::IpAddr::parse("192.0.2.1"), 33));
    FAIL() << "no error";
  } catch (const Vix::RangeError& e) {
    EXPECT_STREQ(e.what(), "Prefix::validAsPrefix != true not allowed");
  }
  EXPECT_EQ(manager->trieIs()->routes(), 0u);
}

TEST_F(SubnetTracking, DeletingAnInterfaceWithdrawsEverythingItHeld) {
  const auto eth1 = intf("eth1");
  eth1->activeAddrWithMaskIs(v4("192.0.2.254/24"));
  eth1->activeSecondaryWithMaskIs(v4("198.51.100.254/24"), true);
  addr6("eth1", "2001:db8::fe/64");
  use("192.0.2.1");
  use("2001:db8::1");
  ipStatus->ipIntfStatusDel(IntfId("eth1"));
  ip6Status->intfDel(IntfId("eth1"));
  EXPECT_TRUE(manager->validSubnets().empty());
  EXPECT_TRUE(manager->validSubnets6().empty());
  EXPECT_EQ(manager->trieIs()->routes(), 0u);
  EXPECT_EQ(manager->trie6Is()->routes(), 0u);
  EXPECT_FALSE(manager->ipIntfStatus(IntfId("eth1")));
  EXPECT_EQ(manager->pendingNexthop(addr("192.0.2.1")), pendingDelete);
  EXPECT_EQ(manager->pendingNexthop(addr("2001:db8::1")), pendingDelete);
}

TEST_F(SubnetTracking, TheFullPassWithdrawsAddressesThatVanishedUnwatched) {
  const auto eth1 = intf("eth1");
  eth1->activeAddrWithMaskIs(v4("192.0.2.254/24"));
  eth1->activeSecondaryWithMaskIs(v4("198.51.100.254/24"), true);
  addr6("eth1", "2001:db8::fe/64");
  const auto reactor = manager->ipIntfStatus(IntfId("eth1"));
  const auto reactor6 = manager->ip6IntfStatus(IntfId("eth1"));
  // The snapshot the next pass compares with is taken by a full pass.
  reactor->vix_handleIpIntfStatus();
  reactor6->vix_handleIp6IntfStatus();
  reactor->hasNotificationActiveIs(false);
  reactor6->hasNotificationActiveIs(false);
  eth1->activeAddrWithMaskIs(v4("203.0.113.254/24"));
  eth1->activeSecondaryWithMaskDel(v4("198.51.100.254/24"));
  intf6("eth1")->addrDel(v6("2001:db8::fe/64"));
  EXPECT_TRUE(connected4("198.51.100.0/24"));

  reactor->hasNotificationActiveIs(true);
  reactor6->hasNotificationActiveIs(true);
  reactor->vix_handleIpIntfStatus();
  reactor6->vix_handleIp6IntfStatus();
  EXPECT_FALSE(connected4("192.0.2.0/24"));
  EXPECT_FALSE(connected4("198.51.100.0/24"));
  EXPECT_TRUE(connected4("203.0.113.0/24"));
  EXPECT_FALSE(connected6("2001:db8::/64"));
}

// From an operator's point of view: a nexthop outside every subnet waits, is
// programmed when an address covering it appears, and is removed (resources
// released) and waits again when that address goes.
TEST_F(SubnetTracking, ANexthopFollowsItsSubnetThroughTheLoop) {
  const auto nh = addr("192.0.2.1");
  use("192.0.2.1");
  EXPECT_FALSE(manager->programmed(nh));
  EXPECT_TRUE(manager->nexthopWithoutSubnet(nh.v4()));
  EXPECT_EQ(manager->fwmark(nh), 2u);

  intf("eth1")->activeAddrWithMaskIs(v4("192.0.2.254/24"));
  EXPECT_EQ(manager->pendingNexthop(nh), pendingAdd);
  EXPECT_TRUE(manager->nexthopWithoutSubnet(nh.v4()));  // until the loop programs it
  runUntilIdle();
  EXPECT_TRUE(manager->programmed(nh));
  EXPECT_FALSE(manager->nexthopWithoutSubnet(nh.v4()));
  EXPECT_EQ(runner.commands.back(), "ip rule add priority 2 fwmark 2 lookup 2");

  intf("eth1")->activeAddrWithMaskIs(IpAddrWithMask());
  runner.take();
  runUntilIdle();
  EXPECT_EQ(runner.take(),
            (std::vector<std::string>{"ip rule del priority 2", "ip route del table 2"}));
  EXPECT_FALSE(manager->programmed(nh));
  EXPECT_EQ(manager->fwmark(nh), 0u);
  EXPECT_TRUE(manager->nexthopWithoutSubnet(nh.v4()));

  // Back again: new resources, from the cursor onwards.
  intf("eth1")->activeAddrWithMaskIs(v4("192.0.2.254/24"));
  runUntilIdle();
  EXPECT_TRUE(manager->programmed(nh));
  EXPECT_EQ(manager->fwmark(nh), 3u);
}

TEST_F(SubnetTracking, AnIPv6DefaultPrefixConnectsNoNexthopButIPv4sDoes) {
  connected("::/0");
  connected("0.0.0.0/0");
  use("2001:db8::1");
  use("192.0.2.1");
  EXPECT_FALSE(manager->programmed(addr("2001:db8::1")));
  EXPECT_TRUE(manager->nexthop6WithoutSubnet(addr("2001:db8::1").v6()));
  EXPECT_TRUE(manager->programmed(addr("192.0.2.1")));
  // Deleting finds no ::/0 collection to leave either.
  EXPECT_EQ(manager->nexthopsForSubnet6(Velnet::Ip6Prefix::parse("::/0")), nullptr);
}

}  // namespace
}  // namespace waymark::test
