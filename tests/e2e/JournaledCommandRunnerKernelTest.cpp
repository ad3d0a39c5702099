// The journaled runner against the real kernel: a nexthop's removal empties
// its table although the route-delete command deletes nothing, and the
// journal holds exactly what is in the kernel afterwards, whichever executor
// carries the commands out.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <set>
#include <string>

#include "kernel/JournaledCommandRunner.h"
#include "kernel/NetlinkCommandRunner.h"
#include "kernel/QuietCommandRunner.h"
#include "tests/support/NetworkNamespace.h"

namespace waymark::test {
namespace {

using Pbr::RoutingRequest;

const Velnet::IpGenAddr kNexthop = Velnet::IpGenAddr::parse("192.0.2.1");

class JournaledCommandRunnerKernel : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    WAYMARK_REQUIRE_NETNS();
    ns_ = std::make_unique<NetworkNamespace>();
    ns_->addLinkPair("wm0", "wm1");
    ns_->run("ip addr add 192.0.2.254/24 dev wm0");
    routing_ = std::make_unique<Kernel::KernelRouting>();
    netlink_ = std::make_unique<Kernel::NetlinkCommandRunner>(*routing_, shell_);
    std::filesystem::remove_all(dir_);
    journal_ = std::make_unique<Kernel::StateJournal>(dir_ + "/state.json");
    Pbr::CommandRunner& executor = GetParam() ? static_cast<Pbr::CommandRunner&>(*netlink_)
                                              : static_cast<Pbr::CommandRunner&>(shell_);
    runner_ = std::make_unique<Kernel::JournaledCommandRunner>(*journal_, *routing_, executor);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  const std::string dir_ = "/tmp/wm-journaled-" + std::to_string(::getpid());
  std::unique_ptr<NetworkNamespace> ns_;
  Kernel::QuietCommandRunner shell_;
  std::unique_ptr<Kernel::KernelRouting> routing_;
  std::unique_ptr<Kernel::NetlinkCommandRunner> netlink_;
  std::unique_ptr<Kernel::StateJournal> journal_;
  std::unique_ptr<Kernel::JournaledCommandRunner> runner_;
};

TEST_P(JournaledCommandRunnerKernel, RemovingANexthopEmptiesItsTableAndItsRecord) {
  ASSERT_TRUE(runner_->run(RoutingRequest::addRoute(kNexthop, 300)).succeeded());
  ASSERT_TRUE(runner_->run(RoutingRequest::addRule(kNexthop, 2, 2, 300)).succeeded());
  EXPECT_EQ(journal_->size(), 2u);

  EXPECT_TRUE(runner_->run(RoutingRequest::deleteRule(kNexthop, 2, 2, 300)).succeeded());
  // The command's own outcome: iproute2 refuses the form as a usage error.
  EXPECT_EQ(runner_->run(RoutingRequest::deleteRoute(kNexthop, 300)),
            Pbr::CommandOutcome::exited(255));
  EXPECT_EQ(ns_->run("ip route show table 300 2>/dev/null; ip rule show priority 2"), "");
  EXPECT_EQ(journal_->size(), 0u);
}

TEST_P(JournaledCommandRunnerKernel, AnAdditionThatCannotBeJournaledNeverReachesTheKernel) {
  std::filesystem::create_directories(dir_);
  std::filesystem::create_symlink("/dev/full", dir_ + "/state.json.journal");
  const auto refused = Pbr::CommandOutcome::exited(Kernel::JournaledCommandRunner::kNotRecorded);
  EXPECT_EQ(runner_->run(RoutingRequest::addRoute(kNexthop, 300)), refused);
  EXPECT_EQ(runner_->run(RoutingRequest::addRule(kNexthop, 2, 2, 300)), refused);
  EXPECT_EQ(ns_->run("ip route show table 300 2>/dev/null; ip rule show priority 2"), "");
  EXPECT_EQ(journal_->size(), 0u);
  EXPECT_EQ(runner_->unrecorded(), std::set<Velnet::IpGenAddr>{kNexthop});

  // Room again: the same addition is recorded and made, and the nexthop is
  // no longer waiting for a record.
  std::filesystem::remove(dir_ + "/state.json.journal");
  ASSERT_TRUE(journal_->compact());
  EXPECT_TRUE(runner_->run(RoutingRequest::addRoute(kNexthop, 300)).succeeded());
  EXPECT_TRUE(runner_->unrecorded().empty());
}

TEST_P(JournaledCommandRunnerKernel, ARefusedAddIsForgottenOnlyWhenItsTableIsEmpty) {
  EXPECT_FALSE(runner_->run(RoutingRequest::addRoute(Velnet::IpGenAddr::parse("203.0.113.1"), 302))
                   .succeeded());
  EXPECT_EQ(journal_->size(), 0u);
  // A route already in the table: the refused add leaves the table known,
  // so that no route is ever in a table the journal has forgotten.
  ns_->run("ip route add default via 192.0.2.1 table 301");
  EXPECT_FALSE(runner_->run(RoutingRequest::addRoute(kNexthop, 301)).succeeded());
  EXPECT_TRUE(journal_->holds(Kernel::RouteTableId{false, 301}));
}

TEST_P(JournaledCommandRunnerKernel, AKeptRuleAndItsRouteNeverLeaveTheKernel) {
  ns_->run(
      "ip route add default via 192.0.2.1 table 300 && ip rule add priority 2 fwmark 2 lookup 300");
  const std::string before = ns_->run("ip rule show priority 2; ip route show table 300");
  runner_->keepInPlace({false, 2, 2, 300}, kNexthop);
  // What the nexthop table manager runs for a nexthop programmed again with
  // its numbers: each answered as usual, and the kernel never without them.
  EXPECT_TRUE(runner_->run(RoutingRequest::deleteRule(kNexthop, 2, 2, 300)).succeeded());
  EXPECT_EQ(ns_->run("ip rule show priority 2; ip route show table 300"), before);
  EXPECT_EQ(runner_->run(RoutingRequest::deleteRoute(kNexthop, 300)),
            Pbr::CommandOutcome::exited(255));
  EXPECT_EQ(ns_->run("ip rule show priority 2; ip route show table 300"), before);
  EXPECT_TRUE(runner_->run(RoutingRequest::addRoute(kNexthop, 300)).succeeded());
  EXPECT_TRUE(runner_->run(RoutingRequest::addRule(kNexthop, 2, 2, 300)).succeeded());
  EXPECT_EQ(ns_->run("ip rule show priority 2; ip route show table 300"), before);
  EXPECT_EQ(journal_->size(), 2u);
  // Kept once: the next removal is a removal.
  runner_->run(RoutingRequest::deleteRule(kNexthop, 2, 2, 300));
  runner_->run(RoutingRequest::deleteRoute(kNexthop, 300));
  EXPECT_EQ(ns_->run("ip rule show priority 2; ip route show table 300 2>/dev/null"), "");
}

TEST_P(JournaledCommandRunnerKernel, AnotherNexthopAtAKeptRuleIsNotKept) {
  ns_->run(
      "ip route add default via 192.0.2.1 table 300 && ip rule add priority 2 fwmark 2 lookup 300");
  runner_->keepInPlace({false, 2, 2, 300}, kNexthop);
  const auto other = Velnet::IpGenAddr::parse("192.0.2.2");
  EXPECT_TRUE(runner_->run(RoutingRequest::deleteRule(other, 2, 2, 300)).succeeded());
  runner_->run(RoutingRequest::deleteRoute(other, 300));
  EXPECT_EQ(ns_->run("ip rule show priority 2; ip route show table 300 2>/dev/null"), "");
}

INSTANTIATE_TEST_SUITE_P(Executors, JournaledCommandRunnerKernel, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "netlink" : "shell"; });

}  // namespace
}  // namespace waymark::test
