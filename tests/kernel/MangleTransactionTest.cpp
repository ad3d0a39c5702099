// Folding a start's batches into one transaction: the mangle table ends as
// the batches one by one would have left it, and what cannot be folded is
// said so.
#include "kernel/MangleTransaction.h"

#include <gtest/gtest.h>

#include <string>

namespace waymark::test {
namespace {

using Kernel::MangleTransaction;

std::string framed(const std::string& lines) { return "*mangle\n" + lines + "COMMIT\n"; }

const std::string kSetUp = framed("-F\n-X\n-N TAMBRO_PBR_INTF\n-I PREROUTING -j TAMBRO_PBR_INTF\n");

TEST(MangleTransactionTest, TheDispatchSetUpAndAPolicyBecomeOneFlushAndTheirChains) {
  MangleTransaction t;
  ASSERT_TRUE(t.add(kSetUp));
  ASSERT_TRUE(t.add(framed("-N PBR_1_edge\n-A TAMBRO_PBR_INTF -i eth1 -j PBR_1_edge\n")));
  ASSERT_TRUE(t.add(
      framed("-A PBR_1_edge -p tcp -j MARK --set-mark 0x2\n-A PBR_1_edge -p tcp -j ACCEPT\n")));
  EXPECT_EQ(t.text({}), framed("-F\n-N TAMBRO_PBR_INTF\n-N PBR_1_edge\n"
                               "-A PREROUTING -j TAMBRO_PBR_INTF\n"
                               "-A TAMBRO_PBR_INTF -i eth1 -j PBR_1_edge\n"
                               "-A PBR_1_edge -p tcp -j MARK --set-mark 0x2\n"
                               "-A PBR_1_edge -p tcp -j ACCEPT\n"));
  // Onto a table an earlier run left: its chains are kept, not deleted and
  // made again, and what is not wanted any more goes.
  EXPECT_EQ(t.text({"TAMBRO_PBR_INTF", "PBR_1_edge", "PBR_2_old"}),
            framed("-F\n-X PBR_2_old\n"
                   "-A PREROUTING -j TAMBRO_PBR_INTF\n"
                   "-A TAMBRO_PBR_INTF -i eth1 -j PBR_1_edge\n"
                   "-A PBR_1_edge -p tcp -j MARK --set-mark 0x2\n"
                   "-A PBR_1_edge -p tcp -j ACCEPT\n"));
}

TEST(MangleTransactionTest, InPlaceOnlyWaymarksPartChangesAndTheJumpGoesFirst) {
  MangleTransaction t;
  ASSERT_TRUE(t.add(kSetUp));
  ASSERT_TRUE(
      t.add(framed("-N PBR_3_edge\n-A TAMBRO_PBR_INTF -i eth1 -j PBR_3_edge\n"
                   "-A PBR_3_edge -p tcp -j MARK --set-mark 0x2\n")));
  // The table still holds a stale chain and a jump; no flush of the whole
  // table, no chain of another tool named.
  EXPECT_EQ(t.textInPlace({"TAMBRO_PBR_INTF", "PBR_1_edge"}, 1),
            framed("-D PREROUTING -j TAMBRO_PBR_INTF\n"
                   "-F PBR_1_edge\n-F TAMBRO_PBR_INTF\n-X PBR_1_edge\n"
                   "-N PBR_3_edge\n"
                   "-I PREROUTING 1 -j TAMBRO_PBR_INTF\n"
                   "-A TAMBRO_PBR_INTF -i eth1 -j PBR_3_edge\n"
                   "-A PBR_3_edge -p tcp -j MARK --set-mark 0x2\n"));
  // After a `nft flush ruleset` nothing of waymark's is left to remove.
  EXPECT_EQ(t.textInPlace({}, 0), framed("-N TAMBRO_PBR_INTF\n-N PBR_3_edge\n"
                                         "-I PREROUTING 1 -j TAMBRO_PBR_INTF\n"
                                         "-A TAMBRO_PBR_INTF -i eth1 -j PBR_3_edge\n"
                                         "-A PBR_3_edge -p tcp -j MARK --set-mark 0x2\n"));
}

TEST(MangleTransactionTest, ReplacedDeletedAndRebuiltRulesLeaveOnlyTheirLastState) {
  MangleTransaction t;
  t.add(kSetUp);
  t.add(
      framed("-N PBR_1_edge\n-A TAMBRO_PBR_INTF -i eth1 -j PBR_1_edge\n"
             "-A TAMBRO_PBR_INTF -i eth2 -j PBR_1_edge\n-A PBR_1_edge -p udp\n"
             "-A PBR_1_edge -p udp -j ACCEPT\n"));
  t.add(
      framed("-R PBR_1_edge 1 -p udp -j MARK --set-mark 0x3\n"
             "-D TAMBRO_PBR_INTF -i eth1 -j PBR_1_edge\n-N PBR_2_old\n-X PBR_2_old\n"
             "-I TAMBRO_PBR_INTF 1 -i eth3 -j PBR_1_edge\n"));
  ASSERT_TRUE(t.foldable());
  EXPECT_EQ(t.text({}), framed("-F\n-N TAMBRO_PBR_INTF\n-N PBR_1_edge\n"
                               "-A PREROUTING -j TAMBRO_PBR_INTF\n"
                               "-A TAMBRO_PBR_INTF -i eth3 -j PBR_1_edge\n"
                               "-A TAMBRO_PBR_INTF -i eth2 -j PBR_1_edge\n"
                               "-A PBR_1_edge -p udp -j MARK --set-mark 0x3\n"
                               "-A PBR_1_edge -p udp -j ACCEPT\n"));
}

TEST(MangleTransactionTest, WhatCannotBeReplayedIsNotFolded) {
  for (const char* later :
       {"-A PBR_9_missing -p tcp\n", "-R TAMBRO_PBR_INTF 1 -p tcp\n", "-N TAMBRO_PBR_INTF\n",
        "-D TAMBRO_PBR_INTF -i eth9 -j X\n", "-X PREROUTING\n", "-Z\n"}) {
    MangleTransaction t;
    t.add(kSetUp);
    EXPECT_FALSE(t.add(framed(later))) << later;
    EXPECT_FALSE(t.add(framed("-N PBR_1_edge\n"))) << "stays unfoldable after " << later;
  }
  MangleTransaction withoutFlush;
  EXPECT_FALSE(withoutFlush.add(framed("-N PBR_1_edge\n")));
}

}  // namespace
}  // namespace waymark::test
