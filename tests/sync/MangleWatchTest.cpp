// The mangle drift check: what differs in shape from what waymark wrote is
// named; texts that iptables prints in its own words are compared with the
// read-back after waymark's last write; comparisons come a grace after an
// announcement and periodically, each reading both tables once off the
// loop, and one that waymark's own write overtook is made again.
#include "sync/MangleWatch.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <map>
#include <string>
#include <thread>

namespace waymark::test {
namespace {

using Kernel::MangleTransaction;

std::string framed(const std::string& lines) { return "*mangle\n" + lines + "COMMIT\n"; }

MangleTransaction written() {
  MangleTransaction t;
  t.add(framed("-F\n-X\n-N TAMBRO_PBR_INTF\n-I PREROUTING -j TAMBRO_PBR_INTF\n"));
  t.add(
      framed("-N PBR_1_edge\n-A TAMBRO_PBR_INTF -i eth1 -j PBR_1_edge\n"
             "-A PBR_1_edge -p tcp -j MARK --set-mark 0x2\n-A PBR_1_edge -p tcp -j ACCEPT\n"));
  return t;
}

// The table as iptables-save prints what written() left, and another
// tool's rule.
const std::string kSaved =
    "*mangle\n:PREROUTING ACCEPT [0:0]\n:PBR_1_edge - [0:0]\n:TAMBRO_PBR_INTF - [0:0]\n"
    "-A PREROUTING -j TAMBRO_PBR_INTF\n-A PREROUTING -s 192.0.2.9/32 -j ACCEPT\n"
    "-A PBR_1_edge -p tcp -j MARK --set-xmark 0x2/0xffffffff\n-A PBR_1_edge -p tcp -j ACCEPT\n"
    "-A TAMBRO_PBR_INTF -i eth1 -j PBR_1_edge\nCOMMIT\n";

std::string without(std::string text, const std::string& line) {
  return text.erase(text.find(line), line.size());
}

class MangleWatchTest : public ::testing::Test {
 protected:
  Waymark::MangleWatch watch{[this](bool v6, std::string*) {
                               ++readbacks;
                               return saved[v6];
                             },
                             [this](bool v6) { return v6 ? MangleTransaction() : model; }};
  // Starts a comparison and polls it until done (30 s at most).
  std::optional<std::string> compared(double now, uint64_t writes) {
    EXPECT_FALSE(watch.check(now, writes)) << "a comparison was already on its way";
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < deadline) {
      if (auto found = watch.check(now, writes)) return found;
      std::this_thread::yield();
    }
    ADD_FAILURE() << "the read-back did not finish within 30 s";
    return std::nullopt;
  }

  MangleTransaction model = written();
  std::map<bool, std::string> saved{{false, kSaved}, {true, ""}};
  std::atomic<int> readbacks = 0;
};

TEST_F(MangleWatchTest, WhatWaymarkWroteAndAnotherToolsRulesAreNoDrift) {
  EXPECT_EQ(compared(1.0, 1), "");
  // IPv6 has nothing written, so there is nothing to compare: one read-back.
  EXPECT_EQ(readbacks, 1);
}

TEST_F(MangleWatchTest, RemovedChainsRulesAndJumpsAreNamed) {
  saved[false] = without(kSaved, "-A PBR_1_edge -p tcp -j ACCEPT\n");
  EXPECT_EQ(compared(1.0, 1), "IPv4: rules missing or added: PBR_1_edge (1 of 2 rules)");
  saved[false] = without(kSaved, "-A PREROUTING -j TAMBRO_PBR_INTF\n");
  EXPECT_EQ(compared(2.0, 1), "IPv4: jumps from PREROUTING to the dispatch chain: 0 of 1");
  saved[false] = "*mangle\n:PREROUTING ACCEPT [0:0]\nCOMMIT\n";
  EXPECT_EQ(compared(3.0, 1), "IPv4: waymark's chains and the dispatch jump are gone");
  saved[false] = kSaved + ":PBR_9_other - [0:0]\n";
  EXPECT_EQ(compared(4.0, 1), "IPv4: chain(s) waymark did not make: PBR_9_other");
}

TEST_F(MangleWatchTest, AChangedRuleIsDriftUnlessWaymarkWroteSinceTheLastLook) {
  ASSERT_EQ(compared(1.0, 1), "");
  const std::string changed = "-A PBR_1_edge -p udp -j ACCEPT\n";
  saved[false] = without(kSaved, "-A PBR_1_edge -p tcp -j ACCEPT\n") + changed;
  EXPECT_EQ(compared(2.0, 1), "IPv4: rules changed in PBR_1_edge");
  // After a write of its own, the new texts are waymark's.
  EXPECT_EQ(compared(3.0, 2), "");
  EXPECT_EQ(compared(4.0, 2), "");
}

TEST_F(MangleWatchTest, AComparisonThatWaymarksOwnWriteOvertookIsMadeAgain) {
  ASSERT_FALSE(watch.check(1.0, 1));
  // Once read, a write having come since it began: nothing is concluded,
  // and the next comparison is due a grace later.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (std::chrono::steady_clock::now() < deadline) {
    if (watch.due() != 1.0 + Waymark::MangleWatch::kPoll) break;
    ASSERT_FALSE(watch.check(1.0, 2));
  }
  EXPECT_DOUBLE_EQ(watch.due(), 1.0 + Waymark::MangleWatch::kGrace);
}

TEST_F(MangleWatchTest, ComparesAGraceAfterAnAnnouncementAndPeriodically) {
  ASSERT_EQ(compared(100.0, 1), "");
  EXPECT_DOUBLE_EQ(watch.due(), 100.0 + Waymark::MangleWatch::kPeriod);
  watch.suspect(101.0);
  // A burst of announcements is read once, a grace after the first.
  watch.suspect(101.05);
  EXPECT_DOUBLE_EQ(watch.due(), 101.0 + Waymark::MangleWatch::kGrace);
  // Until its comparison is done, a change counts as work on its way; a
  // periodic comparison does not.
  EXPECT_TRUE(watch.suspected());
  compared(101.1, 1);
  EXPECT_FALSE(watch.suspected());
  EXPECT_DOUBLE_EQ(watch.due(), 101.1 + Waymark::MangleWatch::kPeriod);
}

}  // namespace
}  // namespace waymark::test
