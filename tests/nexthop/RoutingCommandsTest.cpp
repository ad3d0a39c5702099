#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/nexthop/NexthopTableManagerFixture.h"

namespace waymark::test {
namespace {

using Commands = std::vector<std::string>;

// Counts the programmed-state changes the manager announces.
class ProgrammedWatcher : public Pbr::NexthopTableManager::NotifieeConst {
 public:
  void onProgrammed(const Velnet::IpGenAddr& a) override { changes.push_back(a.stringValue()); }
  std::vector<std::string> changes;
};

class RoutingCommands : public NexthopTableManagerTest {
 protected:
  RoutingCommands() { watcher->notifierIs(manager); }
  Vix::Ptr<ProgrammedWatcher> watcher = Vix::make<ProgrammedWatcher>();
};

TEST_F(RoutingCommands, AnIPv4NexthopGetsItsRouteBeforeItsRule) {
  connected("192.0.2.0/24");
  const auto nh = addr("192.0.2.1");
  manager->createRoutingTable(nh, false);
  EXPECT_EQ(runner.take(), (Commands{"ip rule del priority 2", "ip route del table 2",
                                     "ip route add default via 192.0.2.1 table 2",
                                     "ip rule add priority 2 fwmark 2 lookup 2"}));
  EXPECT_TRUE(manager->programmed(nh));
  EXPECT_EQ(watcher->changes, (std::vector<std::string>{"192.0.2.1"}));
  EXPECT_TRUE(manager->nexthopsForSubnet(Velnet::Prefix::parse("192.0.2.0/24"))
                  ->addr(Velnet::IpAddr::parse("192.0.2.1")));
  EXPECT_FALSE(manager->withoutSubnet(nh));
  EXPECT_FALSE(manager->nexthopWithoutResources(nh));
  EXPECT_EQ(traces.texts(4),
            (std::vector<std::string>{
                "Running command: ip rule del priority 2", "Running command: ip route del table 2",
                "Running command: ip route add default via 192.0.2.1 table 2",
                "Running command: ip rule add priority 2 fwmark 2 lookup 2"}));
}

TEST_F(RoutingCommands, AnIPv6NexthopUsesTheSixFamilyWordAndTheMostSpecificSubnet) {
  connected("2001:db8::/32");
  connected("2001:db8:1::/48");
  manager->createNexthop(addr("192.0.2.50"));  // mark, table and priority 2 are taken
  manager->createRoutingTable(addr("2001:db8:1::7"), false);
  EXPECT_EQ(runner.take(), (Commands{"ip -6 rule del priority 3", "ip -6 route del table 3",
                                     "ip -6 route add default via 2001:db8:1::7 table 3",
                                     "ip -6 rule add priority 3 fwmark 3 lookup 3"}));
  EXPECT_TRUE(manager->nexthopsForSubnet6(Velnet::Ip6Prefix::parse("2001:db8:1::/48"))
                  ->addr(Velnet::Ip6Addr::parse("2001:db8:1::7")));
  EXPECT_FALSE(manager->nexthopsForSubnet6(Velnet::Ip6Prefix::parse("2001:db8::/32")));
}

TEST_F(RoutingCommands, InTestModeOnlyTheRuleCommandsRun) {
  Pbr::testMode = true;
  connected("192.0.2.0/24");
  manager->createRoutingTable(addr("192.0.2.1"), false);
  EXPECT_EQ(runner.take(),
            (Commands{"ip rule del priority 2", "ip rule add priority 2 fwmark 2 lookup 2"}));
  EXPECT_TRUE(manager->programmed(addr("192.0.2.1")));
  manager->deleteRoutingTable(addr("192.0.2.1"), false);
  EXPECT_EQ(runner.take(), (Commands{"ip rule del priority 2"}));
}

TEST_F(RoutingCommands, ANexthopOutsideEverySubnetKeepsItsResourcesAndIsNotProgrammed) {
  connected("198.51.100.0/24");
  const auto nh = addr("192.0.2.1");
  manager->createRoutingTable(nh, false);
  // Only the silent clean-up of earlier kernel state ran.
  EXPECT_EQ(runner.take(), (Commands{"ip rule del priority 2", "ip route del table 2"}));
  EXPECT_TRUE(manager->nexthopWithoutSubnet(Velnet::IpAddr::parse("192.0.2.1")));
  EXPECT_FALSE(manager->programmed(nh));
  EXPECT_EQ(manager->fwmark(nh), 2u);
  EXPECT_TRUE(watcher->changes.empty());
}

TEST_F(RoutingCommands, ANexthopWithoutFreeResourcesRunsNoCommand) {
  connected("192.0.2.0/24");
  for (uint16_t p = 1; p <= Pbr::NexthopTableManager::kMaxIpRuleIndex; ++p) {
    manager->addrForIpRuleIndexIs(p, addr("198.51.100.1"));
  }
  manager->createRoutingTable(addr("192.0.2.1"), false);
  EXPECT_TRUE(runner.commands.empty());
  EXPECT_TRUE(manager->nexthopWithoutResources(addr("192.0.2.1")));
}

class RefusedCommand : public RoutingCommands {
 protected:
  void expectRefusalRecorded(const Velnet::IpGenAddr& nh) {
    EXPECT_FALSE(manager->programmed(nh));
    EXPECT_TRUE(manager->nexthopWithoutResources(nh));
    EXPECT_TRUE(manager->withoutSubnet(nh));
    EXPECT_FALSE(manager->nexthopsForSubnet(Velnet::Prefix::parse("192.0.2.0/24"))->addr(nh.v4()));
    EXPECT_EQ(manager->fwmark(nh), 2u);  // the resources stay for the retry
    EXPECT_EQ(traces.texts(4).back(), "\tCommand failed with return value 2!");
  }
};

TEST_F(RefusedCommand, AFailedRouteAddSkipsTheRuleAndRecordsTheRefusal) {
  connected("192.0.2.0/24");
  runner.statusIs("ip route add", exitStatus(2));
  manager->createRoutingTable(addr("192.0.2.1"), false);
  EXPECT_EQ(runner.take(), (Commands{"ip rule del priority 2", "ip route del table 2",
                                     "ip route add default via 192.0.2.1 table 2"}));
  expectRefusalRecorded(addr("192.0.2.1"));
}

TEST_F(RefusedCommand, AFailedRuleAddLeavesTheRouteForTheNextAttemptToClear) {
  connected("192.0.2.0/24");
  runner.statusIs("ip rule add", exitStatus(2));
  manager->createRoutingTable(addr("192.0.2.1"), false);
  EXPECT_EQ(runner.take(), (Commands{"ip rule del priority 2", "ip route del table 2",
                                     "ip route add default via 192.0.2.1 table 2",
                                     "ip rule add priority 2 fwmark 2 lookup 2"}));
  expectRefusalRecorded(addr("192.0.2.1"));

  // The retry clears both before adding them again.
  manager->createRoutingTable(addr("192.0.2.1"), false);
  EXPECT_EQ(runner.take().front(), "ip rule del priority 2");
}

TEST_F(RoutingCommands, ForcedProgrammingRedoesAProgrammedNexthop) {
  connected("192.0.2.0/24");
  const auto nh = addr("192.0.2.1");
  manager->createRoutingTable(nh, false);
  runner.take();
  manager->createRoutingTable(nh, true);
  EXPECT_EQ(runner.take().size(), 4u);
  EXPECT_TRUE(manager->programmed(nh));
  // Cleared by the forced run, then set again.
  EXPECT_EQ(watcher->changes.size(), 3u);
  EXPECT_EQ(manager->fwmark(nh), 2u);
}

TEST_F(RoutingCommands, DeletingRemovesRuleThenRouteAndLeavesResourcesAndState) {
  connected("192.0.2.0/24");
  const auto nh = addr("192.0.2.1");
  manager->createRoutingTable(nh, false);
  runner.take();
  manager->nexthopWithoutResourcesIs(nh, true);
  manager->deleteRoutingTable(nh, false);
  EXPECT_EQ(runner.take(), (Commands{"ip rule del priority 2", "ip route del table 2"}));
  EXPECT_FALSE(manager->nexthopsForSubnet(Velnet::Prefix::parse("192.0.2.0/24"))->addr(nh.v4()));
  EXPECT_FALSE(manager->nexthopWithoutResources(nh));
  EXPECT_TRUE(manager->programmed(nh));
  EXPECT_EQ(manager->fwmark(nh), 2u);
}

TEST_F(RoutingCommands, OnlyAnUnreferencedNexthopLosesItsWaitForASubnet) {
  const auto referenced = addr("192.0.2.1");
  const auto unreferenced = addr("192.0.2.2");
  manager->nexthopWithoutSubnetIs(referenced.v4(), true);
  manager->nexthopWithoutSubnetIs(unreferenced.v4(), true);
  manager->nexthopInc(referenced, 1);
  manager->deleteRoutingTable(referenced, true);
  manager->deleteRoutingTable(unreferenced, true);
  EXPECT_TRUE(manager->nexthopWithoutSubnet(referenced.v4()));
  EXPECT_FALSE(manager->nexthopWithoutSubnet(unreferenced.v4()));
}

TEST_F(RoutingCommands, ReferenceCountsWrapLikeUnsignedAddition) {
  const auto nh = addr("192.0.2.1");
  EXPECT_EQ(manager->nexthopInc(nh, 1), 1u);
  EXPECT_EQ(manager->nexthopInc(nh, 1), 2u);
  EXPECT_EQ(manager->nexthopInc(nh, 0xffffffffu), 1u);
  EXPECT_EQ(manager->nexthopInc(nh, 0xffffffffu), 0u);
  EXPECT_EQ(manager->nexthopInc(addr("192.0.2.9"), 0), 0u);
  EXPECT_EQ(manager->nexthops().members(), 2u);
}

TEST(RoutingCommandsDeathTest, ProgrammingAProgrammedNexthopWithoutForceAborts) {
  RecordingCommandRunner runner;
  const auto manager = Vix::make<Pbr::NexthopTableManager>(nullptr, nullptr);
  manager->commandRunnerIs(&runner);
  manager->programmedIs(addr("192.0.2.1"), true);
  EXPECT_DEATH(manager->createRoutingTable(addr("192.0.2.1"), false),
               "forceProgram \\|\\| !programmed\\( addr \\)");
}

class CommandStatus : public NexthopTableManagerTest {};

TEST_F(CommandStatus, ANonZeroExitFailsWithItsCode) {
  runner.statusIs("ip", exitStatus(2));
  EXPECT_FALSE(manager->runCommand("ip rule del priority 7", false));
  EXPECT_EQ(traces.texts(4), (std::vector<std::string>{"Running command: ip rule del priority 7",
                                                       "\tCommand failed with return value 2!"}));
}

TEST_F(CommandStatus, ACommandKilledByASignalIsReportedYetCountsAsSuccess) {
  runner.statusIs("ip", killedBy(9));
  EXPECT_TRUE(manager->runCommand("ip route add default via 192.0.2.1 table 2", false));
  EXPECT_EQ(traces.texts(4).back(), "\tFailed to execute command!");
}

TEST_F(CommandStatus, NoShellAtAllIsAFailure) {
  runner.statusIs("ip", -1);
  EXPECT_FALSE(manager->runCommand("ip rule add priority 2 fwmark 2 lookup 2", false));
  EXPECT_EQ(traces.texts(4).back(), "\tFailed to execute command!");
}

TEST_F(CommandStatus, AllowedFailuresCountOnlyTheExitCodeAndTraceNothing) {
  runner.statusIs("ip rule", exitStatus(2));
  runner.statusIs("ip route", killedBy(15));
  EXPECT_FALSE(manager->runCommand("ip rule del priority 3", true));
  EXPECT_TRUE(manager->runCommand("ip route del table 3", true));
  EXPECT_EQ(traces.texts(4).size(), 2u);
}

}  // namespace
}  // namespace waymark::test
