// The per-family queue and its paced drain.
#include <gtest/gtest.h>

#include "tests/iptables/IptablesFixture.h"

namespace waymark::test {
namespace {

class RuleQueue : public IptablesTest {
 protected:
  Vix::Ptr<Pbr::Iptables::AclTypeData> v4 = helper->aclTypeData(PolicyMap::matchIpv4);
  void enqueue(int n) {
    for (int i = 0; i < n; ++i) v4->enqueueRule("-A X " + std::to_string(i) + "\n");
  }
};

TEST_F(RuleQueue, ThreeHundredAndOneElementsGoInBatchesOfThreeHundredAndOne) {
  enqueue(301);
  EXPECT_EQ(clock.runDue(), 1);
  ASSERT_EQ(writer.batches.size(), 2u);
  EXPECT_EQ(writer.lines(Acl::aclTypeIpv4).size(), 301u);
  EXPECT_EQ(writer.batches[0].text.substr(0, 8), "*mangle\n");
  EXPECT_EQ(writer.batches[0].text.substr(writer.batches[0].text.size() - 7), "COMMIT\n");
  EXPECT_EQ(v4->iptablesInvoked(), 2u);
  EXPECT_EQ(v4->rulesProgrammed(), 301u);
  EXPECT_EQ(v4->ruleProgrammingClockTimeMin(), Vix::kNever);
}

TEST_F(RuleQueue, ADeadlineSplitsTheBatchesAcrossClockTicks) {
  writer.costIs(&clock, 0.6);  // one batch outlasts the 0.5 s slice
  enqueue(301);
  EXPECT_EQ(clock.runDue(), 1);
  EXPECT_EQ(writer.batches.size(), 1u);
  EXPECT_EQ(v4->iptablesOperations(), 1u);
  EXPECT_NEAR(v4->lastProgrammingTime(), 0.6, 1e-9);
  EXPECT_LE(v4->ruleProgrammingClockTimeMin(), clock.now());
  EXPECT_EQ(clock.runDue(), 1);
  EXPECT_EQ(writer.batches.size(), 2u);
  EXPECT_EQ(v4->iptablesOperations(), 0u);
  EXPECT_NEAR(v4->totalProgrammingTime(), 1.2, 1e-9);
}

TEST_F(RuleQueue, ALimitOfZeroSleepsAndSettingOneWakesTheDrain) {
  v4->ruleProgrammingTimeLimitIs(0.0);
  enqueue(3);
  EXPECT_EQ(v4->ruleProgrammingClockTimeMin(), Vix::kNever);
  EXPECT_EQ(clock.runDue(), 0);
  v4->ruleProgrammingTimeLimitIs(0.5);
  EXPECT_EQ(clock.runDue(), 1);
  EXPECT_EQ(writer.lines(Acl::aclTypeIpv4).size(), 3u);
}

TEST_F(RuleQueue, AnElementOfSeveralLinesCountsOnce) {
  v4->enqueueRule("-D A -i eth1 -j B\n-F B\n-X B\n");
  clock.runDue();
  EXPECT_EQ(v4->rulesProgrammed(), 1u);
  EXPECT_EQ(writer.lines(Acl::aclTypeIpv4).size(), 3u);
}

TEST_F(RuleQueue, AnEmptyQueueWritesNothingAndDequeuesEmptyText) {
  v4->handleClock();
  EXPECT_TRUE(writer.batches.empty());
  EXPECT_EQ(v4->lastProgrammingTime(), 0.0);
  EXPECT_EQ(v4->iptablesOperationDeq(), "");
}

// The next index is the index given last; an emptied queue takes it as its
// head index and moves one on.
TEST_F(RuleQueue, IndexesFollowTheQueueThroughEnqueueAndDequeue) {
  enqueue(2);
  EXPECT_EQ(v4->nextIndex(), 1u);
  EXPECT_EQ(v4->iptablesOperationDeq(), "-A X 0\n");
  EXPECT_EQ(v4->headIndex(), 1u);
  EXPECT_EQ(v4->iptablesOperationDeq(), "-A X 1\n");
  EXPECT_EQ(v4->headIndex(), 2u);
  enqueue(2);
  EXPECT_EQ(v4->nextIndex(), 2u);
  EXPECT_EQ(v4->iptablesOperationDeq(), "-A X 0\n");
  EXPECT_EQ(v4->iptablesOperationDeq(), "-A X 1\n");
}

TEST_F(RuleQueue, ARefusedBatchIsRecordedAndTheQueueGoesOn) {
  writer.refuseIs("-A X 1\n");
  v4->rulesPerInvocationIs(2);
  enqueue(5);
  clock.runDue();
  EXPECT_EQ(writer.batches.size(), 3u);
  const auto& iptables = *v4->iptablesManager();
  EXPECT_EQ(iptables.batchesFailed(), 1u);
  EXPECT_EQ(iptables.batchesWritten(), 3u);  // with the start-up batch
  EXPECT_EQ(iptables.lastError(), "iptables-restore: line 2 failed [failing line: -A X 0]");
  EXPECT_EQ(v4->rulesProgrammed(), 5u);
}

}  // namespace
}  // namespace waymark::test
