#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "framework/Hash.h"
#include "tests/nexthop/NexthopTableManagerFixture.h"

namespace waymark::test {
namespace {

using Commands = std::vector<std::string>;
using Pbr::pendingAdd;
using Pbr::pendingDelete;

class DeferredProgramming : public NexthopTableManagerTest {
 protected:
  DeferredProgramming() { connected("192.0.2.0/24"); }

  // The nexthops the loop added, in the order it added them.
  std::vector<std::string> added() const {
    std::vector<std::string> out;
    const std::string prefix = "Codef adding nexthop for ";
    for (const auto& t : traces.texts(9)) {
      if (t.compare(0, prefix.size(), prefix) == 0) out.push_back(t.substr(prefix.size()));
    }
    return out;
  }
};

TEST_F(DeferredProgramming, SettingACountItAlreadyHasOrDeletingNoneQueuesNothing) {
  // A refused nexthop is not retried until something changes.
  runner.statusIs("ip route add", exitStatus(2));
  manager->nexthopIs(addr("192.0.2.1"), 1);
  runUntilIdle();
  ASSERT_FALSE(manager->programmed(addr("192.0.2.1")));
  ASSERT_EQ(manager->pendingNexthop(addr("192.0.2.1")), Pbr::pendingNone);
  manager->nexthopIs(addr("192.0.2.1"), 1);
  EXPECT_EQ(manager->pendingNexthop(addr("192.0.2.1")), Pbr::pendingNone);
  traces.clear();
  manager->nexthopDel(addr("192.0.2.9"));
  EXPECT_TRUE(traces.texts(8).empty());
}

TEST_F(DeferredProgramming, ABurstOfReferencesArmsTheClockOnceAndProgramsNothingYet) {
  manager->nexthopInc(addr("192.0.2.1"), 1);
  EXPECT_EQ(manager->pendingNexthop(addr("192.0.2.1")), pendingAdd);
  EXPECT_TRUE(manager->codefScheduled());
  EXPECT_TRUE(armed());
  manager->nexthopInc(addr("192.0.2.1"), 1);
  manager->nexthopInc(addr("192.0.2.2"), 1);
  EXPECT_EQ(manager->pendingNexthops().members(), 2u);
  EXPECT_TRUE(runner.commands.empty());

  EXPECT_EQ(clock.runDue(), 1);
  EXPECT_TRUE(manager->programmed(addr("192.0.2.1")));
  EXPECT_TRUE(manager->programmed(addr("192.0.2.2")));
  EXPECT_EQ(manager->nexthopsAdded(), 2u);
  EXPECT_FALSE(manager->codefScheduled());
  EXPECT_FALSE(armed());
  EXPECT_TRUE(manager->pendingNexthops().empty());
}

TEST_F(DeferredProgramming, AReferenceToAProgrammedNexthopCancelsItsQueuedRemoval) {
  const auto nh = addr("192.0.2.1");
  manager->nexthopInc(nh, 1);
  runUntilIdle();
  manager->nexthopInc(nh, 0xffffffffu);
  EXPECT_EQ(manager->pendingNexthop(nh), pendingDelete);
  manager->nexthopInc(nh, 1);
  EXPECT_EQ(manager->pendingNexthop(nh), Pbr::pendingNone);
  runner.take();
  runUntilIdle();
  EXPECT_TRUE(runner.commands.empty());
  EXPECT_TRUE(manager->programmed(nh));
}

TEST_F(DeferredProgramming, ANexthopReleasedBeforeTheRunIsStillProgrammed) {
  const auto nh = addr("192.0.2.1");
  manager->nexthopInc(nh, 1);
  manager->nexthopInc(nh, 0xffffffffu);
  EXPECT_EQ(manager->pendingNexthop(nh), pendingAdd);
  runUntilIdle();
  EXPECT_TRUE(manager->programmed(nh));
  EXPECT_EQ(manager->nexthop(nh), 0u);
}

TEST_F(DeferredProgramming, ASliceStopsAtItsDeadlineAndTheNextResumesAtTheBookmark) {
  // Four commands of 0.1 s per nexthop: two nexthops fit in a 0.5 s slice.
  runner.costIs(&clock, 0.1);
  std::vector<Velnet::IpGenAddr> nexthops;
  for (int i = 1; i <= 5; ++i) nexthops.push_back(addr("192.0.2." + std::to_string(i)));
  for (const auto& nh : nexthops) manager->nexthopInc(nh, 1);
  // The loop walks the queue in table order: ascending bit-reversed hash.
  std::sort(nexthops.begin(), nexthops.end(), [](const auto& a, const auto& b) {
    return Vix::bitReverse(a.hash()) < Vix::bitReverse(b.hash());
  });

  EXPECT_EQ(clock.runDue(), 1);
  EXPECT_EQ(added().size(), 2u);
  EXPECT_EQ(manager->pendingNexthopBookmark(), nexthops[2]);
  EXPECT_TRUE(armed());
  EXPECT_NEAR(manager->lastProgrammingTime(), 0.8, 1e-9);

  // A nexthop queued now that sorts before the bookmark waits for the wrap.
  Velnet::IpGenAddr early;
  for (int i = 10; early.isUnset(); ++i) {
    const auto candidate = addr("192.0.2." + std::to_string(i));
    if (Vix::bitReverse(candidate.hash()) < Vix::bitReverse(nexthops[2].hash())) early = candidate;
  }
  manager->nexthopInc(early, 1);

  EXPECT_EQ(runUntilIdle(), 2);
  std::vector<std::string> expected;
  for (const auto& nh : nexthops) expected.push_back(nh.stringValue());
  expected.push_back(early.stringValue());
  EXPECT_EQ(added(), expected);
  EXPECT_EQ(manager->nexthopsAdded(), 6u);
}

TEST_F(DeferredProgramming, ASliceEndingAtTheEndOfTheTableBookmarksTheFirstEntry) {
  // 0.8 s per nexthop: one nexthop per 0.5 s slice.
  runner.costIs(&clock, 0.2);
  std::vector<Velnet::IpGenAddr> nexthops;
  for (int i = 1; i <= 3; ++i) nexthops.push_back(addr("192.0.2." + std::to_string(i)));
  std::sort(nexthops.begin(), nexthops.end(), [](const auto& a, const auto& b) {
    return Vix::bitReverse(a.hash()) < Vix::bitReverse(b.hash());
  });
  // The last two in table order first; the first one once the walk is past it.
  manager->nexthopInc(nexthops[1], 1);
  manager->nexthopInc(nexthops[2], 1);
  clock.runDue();
  EXPECT_EQ(manager->pendingNexthopBookmark(), nexthops[2]);
  manager->nexthopInc(nexthops[0], 1);
  clock.runDue();
  EXPECT_EQ(manager->pendingNexthopBookmark(), nexthops[0]);
  clock.runDue();
  EXPECT_EQ(added(), (std::vector<std::string>{nexthops[1].stringValue(), nexthops[2].stringValue(),
                                               nexthops[0].stringValue()}));
  EXPECT_TRUE(manager->pendingNexthops().empty());
}

TEST_F(DeferredProgramming, ALimitOfZeroProgramsNothingUntilALimitIsSet) {
  manager->nexthopProgrammingTimeLimitIs(0.0);
  manager->nexthopInc(addr("192.0.2.1"), 1);
  EXPECT_FALSE(manager->codefScheduled());
  EXPECT_FALSE(armed());
  EXPECT_EQ(clock.runDue(), 0);
  EXPECT_FALSE(manager->programmed(addr("192.0.2.1")));

  manager->nexthopProgrammingTimeLimitIs(0.5);
  EXPECT_TRUE(armed());
  runUntilIdle();
  EXPECT_TRUE(manager->programmed(addr("192.0.2.1")));
}

TEST_F(DeferredProgramming, RemovalReleasesAllThreeResourcesAndHandsThemToOneWaitingNexthop) {
  const auto nh = addr("192.0.2.1");
  manager->nexthopInc(nh, 1);
  runUntilIdle();
  // Two nexthops wait for resources; a programmed one is stale in the set.
  const auto waiterA = addr("192.0.2.20");
  const auto waiterB = addr("192.0.2.21");
  manager->nexthopWithoutResourcesIs(waiterA, true);
  manager->nexthopWithoutResourcesIs(waiterB, true);
  manager->nexthopWithoutResourcesIs(nh, true);
  runner.take();
  traces.clear();

  manager->nexthopInc(nh, 0xffffffffu);
  EXPECT_EQ(manager->pendingNexthop(nh), pendingDelete);
  EXPECT_EQ(clock.runDue(), 1);
  const Commands commands = runner.take();
  EXPECT_EQ(Commands(commands.begin(), commands.begin() + 2),
            (Commands{"ip rule del priority 2", "ip route del table 2"}));
  EXPECT_FALSE(manager->programmed(nh));
  EXPECT_EQ(manager->fwmark(nh), 0u);
  EXPECT_EQ(manager->routeTable(nh), 0u);
  EXPECT_EQ(manager->ipRuleIndex(nh), 0u);
  EXPECT_TRUE(manager->addrForFwmark(2).isUnset());
  EXPECT_TRUE(manager->addrForRouteTable(2).isUnset());
  EXPECT_TRUE(manager->addrForIpRuleIndex(2).isUnset());
  EXPECT_EQ(manager->nexthopsDeleted(), 1u);
  EXPECT_FALSE(manager->nexthopWithoutResources(nh));

  // Exactly one waiter, the first in the set's order, was queued, and the
  // same run, with time left, programmed it; the other still waits.
  const bool aFirst = Vix::bitReverse(waiterA.hash()) < Vix::bitReverse(waiterB.hash());
  const auto first = aFirst ? waiterA : waiterB;
  const auto second = aFirst ? waiterB : waiterA;
  const auto texts = traces.texts(9);
  EXPECT_EQ(
      std::count(texts.begin(), texts.end(), "Codef enqueueing creation of " + first.stringValue()),
      1);
  EXPECT_TRUE(manager->programmed(first));
  EXPECT_FALSE(manager->programmed(second));
  EXPECT_TRUE(manager->nexthopWithoutResources(second));
  EXPECT_TRUE(manager->pendingNexthops().empty());
}

TEST_F(DeferredProgramming, AProgrammedNexthopLeftWithoutSubnetIsProgrammedAgainWithForce) {
  const auto nh = addr("192.0.2.1");
  manager->nexthopInc(nh, 1);
  runUntilIdle();
  runner.take();
  traces.clear();
  manager->nexthopWithoutSubnetIs(nh.v4(), true);
  manager->pendingNexthopIs(nh, pendingAdd);
  manager->handleNexthopProgrammingTimeLimit();
  runUntilIdle();
  EXPECT_EQ(runner.take(), (Commands{"ip rule del priority 2", "ip route del table 2",
                                     "ip route add default via 192.0.2.1 table 2",
                                     "ip rule add priority 2 fwmark 2 lookup 2"}));
  EXPECT_TRUE(manager->programmed(nh));
  EXPECT_FALSE(manager->nexthopWithoutSubnet(nh.v4()));
  EXPECT_EQ(traces.texts(9)[1], "Examining 192.0.2.1 shouldProgram=1 force program 1");
}

TEST_F(DeferredProgramming, RunsRecordTheirDurations) {
  Pbr::testMode = true;  // two commands of 0.1 s per nexthop
  runner.costIs(&clock, 0.1);
  manager->nexthopInc(addr("192.0.2.1"), 1);
  clock.runDue();
  manager->nexthopInc(addr("192.0.2.2"), 1);
  manager->nexthopInc(addr("192.0.2.3"), 1);
  clock.runDue();
  EXPECT_NEAR(manager->lastProgrammingTime(), 0.4, 1e-9);
  EXPECT_NEAR(manager->maxProgrammingTime(), 0.4, 1e-9);
  EXPECT_NEAR(manager->totalProgrammingTime(), 0.6, 1e-9);
  const auto texts = traces.texts(9);
  EXPECT_EQ(texts.front(), "Codef starting at 1000");
  EXPECT_EQ(texts.back(), "Codef done at 1000.6, ran for 0.4");
}

TEST_F(DeferredProgramming, AnUnreferencedNexthopWithoutResourcesHasNothingToRemove) {
  const auto nh = addr("198.51.100.1");
  manager->nexthopIs(nh, 0);
  EXPECT_TRUE(manager->pendingNexthops().empty());
  EXPECT_FALSE(manager->codefScheduled());
}

}  // namespace
}  // namespace waymark::test
