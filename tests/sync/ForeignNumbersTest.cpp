// Numbers another tool uses on the router are never handed out: the
// allocation steps over them, and over nothing of waymark's own.
#include "sync/ForeignNumbers.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "tests/nexthop/NexthopTableManagerFixture.h"

namespace waymark::test {
namespace {

const Velnet::IpGenAddr kNexthop = Velnet::IpGenAddr::parse("192.0.2.1");

using Kernel::PolicyRule;

class ForeignNumbersTest : public NexthopTableManagerTest {
 protected:
  Kernel::StateJournal journal{"/nonexistent/waymark-test/state.json"};
};

TEST_F(ForeignNumbersTest, WhatTheJournalDoesNotHoldIsAnothersAndIsSkipped) {
  journal.ruleHeld({false, 3, 3, 3}, kNexthop);
  const std::vector<PolicyRule> rules = {{false, 0, 0, 255}, {false, 32766, 0, 254},
                                         {false, 2, 0, 100}, {true, 4, 0x10, 101},
                                         {false, 3, 3, 3},   {false, 32767, 0, 253}};
  const auto foreign =
      Waymark::ForeignNumbers::of(rules, {{false, 2}, {true, 102}, {false, 254}}, journal);
  EXPECT_EQ(foreign.priorities(), (std::set<uint32_t>{2, 4}));
  EXPECT_EQ(foreign.tables(), (std::set<uint32_t>{2, 100, 101, 102}));
  EXPECT_EQ(foreign.marks(), (std::set<uint32_t>{0x10}));

  foreign.reserveIn(*manager);
  manager->createNexthop(addr("192.0.2.1"));
  EXPECT_EQ(manager->ipRuleIndex(addr("192.0.2.1")), 3u);
  EXPECT_EQ(manager->routeTable(addr("192.0.2.1")), 3u);
  EXPECT_EQ(manager->fwmark(addr("192.0.2.1")), 2u);
  manager->createNexthop(addr("192.0.2.2"));
  EXPECT_EQ(manager->ipRuleIndex(addr("192.0.2.2")), 5u);
  EXPECT_EQ(manager->routeTable(addr("192.0.2.2")), 4u);
}

}  // namespace
}  // namespace waymark::test
