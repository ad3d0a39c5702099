// The nf_tables announcements of mangle-table changes, in a private network
// namespace: each change is told with the process that committed it, so
// that waymark's own restores are known for its own and another tool's
// flush is not; changes to other tables are not told at all.
#include "kernel/MangleEvents.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "kernel/RestoreIptablesWriter.h"
#include "tests/support/NetworkNamespace.h"

namespace waymark::test {
namespace {

class MangleEventsKernel : public ::testing::Test {
 protected:
  void SetUp() override {
    WAYMARK_REQUIRE_NETNS();
    ns_ = std::make_unique<NetworkNamespace>();
    std::string error;
    ASSERT_TRUE(events_.open(&error)) << error;
  }
  // The committers told within 10 s, once at least `count` arrived (or
  // after 10 s, when fewer did).
  std::vector<int> committers(size_t count) {
    std::vector<int> out;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (out.size() < count && std::chrono::steady_clock::now() < deadline) {
      pollfd p{events_.fd(), POLLIN, 0};
      if (poll(&p, 1, 100) <= 0) continue;
      for (const int pid : events_.handle()) out.push_back(pid);
    }
    return out;
  }

  std::unique_ptr<NetworkNamespace> ns_;
  Kernel::MangleEvents events_;
  AclUtils::RestoreIptablesWriter restore_;
};

TEST_F(MangleEventsKernel, OwnRestoresAreToldApartFromAnotherToolsFlush) {
  ASSERT_TRUE(restore_
                  .writeNow(Acl::aclTypeIpv4,
                            "*mangle\n-N PBR_1_edge\n-A PBR_1_edge -p tcp -j ACCEPT\nCOMMIT\n")
                  .ok);
  auto told = committers(1);
  ASSERT_EQ(told.size(), 1u);
  EXPECT_TRUE(restore_.started(told[0]));

  ns_->run("iptables -t filter -A INPUT -s 192.0.2.9 -j ACCEPT");
  ns_->run("iptables -t mangle -F PBR_1_edge; nft flush ruleset");
  told = committers(2);
  ASSERT_EQ(told.size(), 2u) << "the filter table's change is not told; both mangle ones are";
  for (const int pid : told) {
    EXPECT_NE(pid, 0);
    EXPECT_FALSE(restore_.started(pid));
  }
}

}  // namespace
}  // namespace waymark::test
