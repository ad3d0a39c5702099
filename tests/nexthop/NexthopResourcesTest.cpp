#include <gtest/gtest.h>

#include "tests/nexthop/NexthopTableManagerFixture.h"

namespace waymark::test {
namespace {

using Resources = NexthopTableManagerTest;

struct Allocation {
  uint32_t mark;
  uint32_t table;
  uint32_t index;
  bool operator==(const Allocation&) const = default;
};

std::ostream& operator<<(std::ostream& os, const Allocation& a) {
  return os << "{mark " << a.mark << ", table " << a.table << ", priority " << a.index << "}";
}

Allocation allocationOf(const Pbr::NexthopTableManager& m, const Velnet::IpGenAddr& a) {
  return {m.fwmark(a), m.routeTable(a), m.ipRuleIndex(a)};
}

TEST_F(Resources, TheFirstNexthopsGetTwoThreeAndFour) {
  const auto a = addr("192.0.2.1");
  const auto b = addr("2001:db8::1");
  const auto c = addr("198.51.100.1");
  for (const auto& nh : {a, b, c}) manager->createNexthop(nh);
  EXPECT_EQ(allocationOf(*manager, a), (Allocation{2, 2, 2}));
  EXPECT_EQ(allocationOf(*manager, b), (Allocation{3, 3, 3}));
  EXPECT_EQ(allocationOf(*manager, c), (Allocation{4, 4, 4}));
  EXPECT_EQ(manager->addrForFwmark(3), b);
  EXPECT_EQ(manager->addrForRouteTable(3), b);
  EXPECT_EQ(manager->addrForIpRuleIndex(3), b);
  EXPECT_EQ(manager->lastFwmark(), 4u);
  EXPECT_EQ(manager->lastRouteTable(), 4u);
  EXPECT_EQ(manager->lastIpRuleIndex(), 4u);
  EXPECT_TRUE(runner.commands.empty());
}

TEST_F(Resources, ANexthopThatHasAMarkKeepsItsResources) {
  const auto a = addr("192.0.2.1");
  manager->createNexthop(a);
  manager->createNexthop(a);
  EXPECT_EQ(allocationOf(*manager, a), (Allocation{2, 2, 2}));
  EXPECT_EQ(manager->lastFwmark(), 2u);
}

TEST_F(Resources, MarksSkipTheReservedMarkAndZero) {
  manager->lastFwmarkIs(13428);
  manager->createNexthop(addr("192.0.2.1"));
  EXPECT_EQ(manager->fwmark(addr("192.0.2.1")), 13430u);

  manager->lastFwmarkIs(4294967295u);
  manager->createNexthop(addr("192.0.2.2"));
  EXPECT_EQ(manager->fwmark(addr("192.0.2.2")), 1u);

  // 13428 is taken, 13429 is never handed out, 13430 went to 192.0.2.1.
  manager->lastFwmarkIs(13427);
  manager->addrForFwmarkIs(13428, addr("198.51.100.9"));
  manager->createNexthop(addr("192.0.2.3"));
  EXPECT_EQ(manager->fwmark(addr("192.0.2.3")), 13431u);
}

TEST_F(Resources, TablesSkipTheKernelsReservedTablesAndWrapToOne) {
  manager->lastRouteTableIs(252);
  manager->createNexthop(addr("192.0.2.1"));
  EXPECT_EQ(manager->routeTable(addr("192.0.2.1")), 256u);

  manager->lastRouteTableIs(65535);
  manager->createNexthop(addr("192.0.2.2"));
  EXPECT_EQ(manager->routeTable(addr("192.0.2.2")), 1u);

  manager->lastRouteTableIs(251);
  manager->addrForRouteTableIs(252, addr("198.51.100.9"));
  manager->createNexthop(addr("192.0.2.3"));
  EXPECT_EQ(manager->routeTable(addr("192.0.2.3")), 257u);
}

TEST_F(Resources, PrioritiesStayBetweenOneAnd32765) {
  manager->lastIpRuleIndexIs(32764);
  manager->createNexthop(addr("192.0.2.1"));
  EXPECT_EQ(manager->ipRuleIndex(addr("192.0.2.1")), 32765u);
  manager->createNexthop(addr("192.0.2.2"));
  EXPECT_EQ(manager->ipRuleIndex(addr("192.0.2.2")), 1u);
  manager->lastIpRuleIndexIs(40000);
  manager->createNexthop(addr("192.0.2.3"));
  EXPECT_EQ(manager->ipRuleIndex(addr("192.0.2.3")), 2u);
}

TEST_F(Resources, AFreedValueIsReusedOnlyWhenTheSearchComesRoundToIt) {
  for (const char* nh : {"192.0.2.1", "192.0.2.2", "192.0.2.3"}) manager->createNexthop(addr(nh));
  // 192.0.2.2 gives its values (3, 3, 3) back.
  manager->addrForFwmarkDel(3);
  manager->addrForRouteTableDel(3);
  manager->addrForIpRuleIndexDel(3);
  manager->createNexthop(addr("192.0.2.4"));
  EXPECT_EQ(allocationOf(*manager, addr("192.0.2.4")), (Allocation{5, 5, 5}));

  manager->lastFwmarkIs(2);
  manager->lastRouteTableIs(2);
  manager->lastIpRuleIndexIs(2);
  manager->createNexthop(addr("192.0.2.5"));
  EXPECT_EQ(allocationOf(*manager, addr("192.0.2.5")), (Allocation{3, 3, 3}));
}

class Exhaustion : public NexthopTableManagerTest {
 protected:
  // Gives every table number but the reserved ones an owner.
  void takeEveryTable() {
    for (uint32_t t = 1; t <= 65535; ++t) {
      if (t < 253 || t > 255) manager->addrForRouteTableIs(static_cast<uint16_t>(t), owner);
    }
  }
  void takeEveryPriority() {
    for (uint16_t p = 1; p <= Pbr::NexthopTableManager::kMaxIpRuleIndex; ++p) {
      manager->addrForIpRuleIndexIs(p, owner);
    }
  }
  void expectNothingAllocatedFor(const Velnet::IpGenAddr& a) {
    EXPECT_EQ(allocationOf(*manager, a), (Allocation{0, 0, 0}));
    EXPECT_TRUE(manager->nexthopWithoutResources(a));
    EXPECT_EQ(manager->lastFwmark(), 1u);
    EXPECT_EQ(manager->lastRouteTable(), 1u);
    EXPECT_EQ(manager->lastIpRuleIndex(), 1u);
    EXPECT_TRUE(manager->addrForFwmark(2).isUnset());
  }
  const Velnet::IpGenAddr owner = addr("198.51.100.200");
};

TEST_F(Exhaustion, NoFreeTableConsumesNoMarkAndLeavesTheNexthopWaiting) {
  takeEveryTable();
  const auto a = addr("192.0.2.1");
  manager->createNexthop(a);
  expectNothingAllocatedFor(a);
}

TEST_F(Exhaustion, NoFreePriorityConsumesNoMarkOrTable) {
  takeEveryPriority();
  const auto a = addr("192.0.2.1");
  manager->createNexthop(a);
  expectNothingAllocatedFor(a);
  EXPECT_TRUE(manager->addrForRouteTable(2).isUnset());
}

TEST_F(Exhaustion, AFreedTableIsFoundBehindTheCursor) {
  takeEveryTable();
  manager->lastRouteTableIs(600);
  manager->addrForRouteTableDel(17);
  manager->createNexthop(addr("192.0.2.1"));
  EXPECT_EQ(manager->routeTable(addr("192.0.2.1")), 17u);
  EXPECT_FALSE(manager->nexthopWithoutResources(addr("192.0.2.1")));
}

}  // namespace
}  // namespace waymark::test
