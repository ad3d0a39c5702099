// Taking over from the previous run: a nexthop this run still wants gets the
// numbers it had, and the previous run's other numbers are handed to nobody
// until its leftovers are gone.
#include "sync/PreviousRun.h"

#include <gtest/gtest.h>

#include "tests/nexthop/NexthopTableManagerFixture.h"

namespace waymark::test {
namespace {

class PreviousRunTest : public NexthopTableManagerTest {
 protected:
  PreviousRunTest() {
    journal.ruleHeld({false, 2, 2, 2}, addr("192.0.2.1"));
    journal.tableHeld({false, 2});
    journal.ruleHeld({false, 3, 3, 3}, addr("192.0.2.2"));
    journal.tableHeld({false, 3});
    journal.ruleHeld({true, 4, 4, 300}, addr("2001:db8::1"));
    journal.tableHeld({true, 300});
  }
  Kernel::StateJournal journal{"/nonexistent/waymark-test/state.json"};
  // The kernel holds every rule the journal records.
  std::vector<Kernel::PolicyRule> kernel{{false, 2, 2, 2}, {false, 3, 3, 3}, {true, 4, 4, 300}};
};

TEST_F(PreviousRunTest, AWantedNexthopGetsItsNumbersBackAndAnotherNoneOfTheOthers) {
  Waymark::PreviousRun previous(journal, kernel);
  previous.adoptInto(*manager, {addr("2001:db8::1"), addr("192.0.2.9"), addr("192.0.2.1")});
  EXPECT_EQ(previous.adopted(), 2u);
  EXPECT_EQ(manager->fwmark(addr("192.0.2.1")), 2u);
  EXPECT_EQ(manager->routeTable(addr("2001:db8::1")), 300u);
  EXPECT_EQ(manager->ipRuleIndex(addr("2001:db8::1")), 4u);

  // 192.0.2.2 is not wanted: its rule still routes the old marks, so its
  // numbers are nobody's until it is removed.
  manager->createNexthop(addr("192.0.2.9"));
  EXPECT_EQ(manager->fwmark(addr("192.0.2.9")), 5u);
  EXPECT_EQ(manager->routeTable(addr("192.0.2.9")), 4u);
  EXPECT_EQ(manager->ipRuleIndex(addr("192.0.2.9")), 5u);

  previous.release(*manager);
  manager->createNexthop(addr("192.0.2.10"));
  EXPECT_EQ(manager->fwmark(addr("192.0.2.10")), 6u);
  EXPECT_TRUE(manager->addrForFwmark(3).isUnset());
  EXPECT_EQ(manager->addrForFwmark(2), addr("192.0.2.1"));
}

TEST_F(PreviousRunTest, AdoptedNexthopIsProgrammedWithItsOwnRuleReplacedInPlace) {
  Waymark::PreviousRun previous(journal, kernel);
  previous.adoptInto(*manager, {addr("192.0.2.2")});
  connected("192.0.2.0/24");
  manager->nexthopInc(addr("192.0.2.2"), 1);
  runUntilIdle();
  EXPECT_EQ(runner.commands,
            (std::vector<std::string>{"ip rule del priority 3", "ip route del table 3",
                                      "ip route add default via 192.0.2.2 table 3",
                                      "ip rule add priority 3 fwmark 3 lookup 3"}));
}

TEST_F(PreviousRunTest, WhatRoutesNoTrafficIsNotHeldBack) {
  // Killed after the route of 192.0.2.3 went in, before its rule did.
  journal.tableHeld({false, 5});
  kernel = {{false, 2, 2, 2}};
  Waymark::PreviousRun previous(journal, kernel);
  previous.adoptInto(*manager, {addr("192.0.2.1")});
  // 192.0.2.2's rule is not in the kernel: its numbers are free, as is
  // table 5, which no rule points at.
  manager->createNexthop(addr("192.0.2.3"));
  EXPECT_EQ(manager->ipRuleIndex(addr("192.0.2.3")), 3u);
  EXPECT_EQ(manager->fwmark(addr("192.0.2.3")), 3u);
  EXPECT_EQ(manager->routeTable(addr("192.0.2.3")), 3u);
}

TEST_F(PreviousRunTest, ANexthopWhoseNumbersAreTakenStartsAfresh) {
  manager->addrForFwmarkIs(2, addr("198.51.100.1"));
  Waymark::PreviousRun previous(journal, kernel);
  previous.adoptInto(*manager, {addr("192.0.2.1")});
  EXPECT_EQ(previous.adopted(), 0u);
  EXPECT_EQ(manager->fwmark(addr("192.0.2.1")), 0u);
}

}  // namespace
}  // namespace waymark::test
