// The asynchronous writer: each family's batches in their order, a held
// start written as one transaction per family, and a refused transaction
// written again batch by batch so that the refused batch is the one
// reported; a rebuild written in place, never batch by batch; and the
// model of what the written batches leave.
#include "kernel/AsyncIptablesWriter.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <chrono>
#include <thread>

#include "tests/support/RecordingIptablesWriter.h"

namespace waymark::test {
namespace {

using Outcome = Kernel::AsyncIptablesWriter::Outcome;

std::string framed(const std::string& lines) { return "*mangle\n" + lines + "COMMIT\n"; }

const std::string kSetUp = framed("-F\n-X\n-N TAMBRO_PBR_INTF\n-I PREROUTING -j TAMBRO_PBR_INTF\n");

class AsyncIptablesWriterTest : public ::testing::Test {
 protected:
  // The outcomes of `count` batches, as the loop takes them when the
  // writer's descriptor turns readable; fails after 30 s.
  std::vector<Outcome> outcomes(size_t count) {
    std::vector<Outcome> out;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (out.size() < count && std::chrono::steady_clock::now() < deadline) {
      pollfd p{writer.fd(), POLLIN, 0};
      if (poll(&p, 1, 100) <= 0) continue;
      for (auto& o : writer.takeOutcomes()) out.push_back(std::move(o));
    }
    EXPECT_EQ(out.size(), count) << "outcomes awaited for 30 s";
    return out;
  }
  std::vector<std::string> texts(Acl::AclType type) {
    std::vector<std::string> out;
    for (const auto& b : recorder.batches) {
      if (b.type == type) out.push_back(b.text);
    }
    return out;
  }

  RecordingIptablesWriter recorder;
  Kernel::AsyncIptablesWriter writer{recorder};
};

TEST_F(AsyncIptablesWriterTest, EachFamilysBatchesArriveInOrderAndComeBackAsOutcomes) {
  for (int i = 0; i < 20; ++i) {
    EXPECT_FALSE(writer.write(Acl::aclTypeIpv4, framed("-A X " + std::to_string(i) + "\n")));
    EXPECT_FALSE(writer.write(Acl::aclTypeIpv6, framed("-A Y " + std::to_string(i) + "\n")));
  }
  const auto got = outcomes(40);
  std::vector<std::string> v4;
  for (const auto& o : got) {
    EXPECT_TRUE(o.result.ok);
    if (o.type == Acl::aclTypeIpv4) v4.push_back(o.text);
  }
  std::vector<std::string> lines;
  for (const auto& text : v4) lines.push_back(text.substr(8, text.size() - 16));
  EXPECT_EQ(lines, recorder.lines(Acl::aclTypeIpv4));
  EXPECT_EQ(v4.back(), framed("-A X 19\n"));
  EXPECT_TRUE(writer.idle());
}

TEST_F(AsyncIptablesWriterTest, BatchesQueuedWhileARestoreRunsGoTogetherAndARefusedGroupGoesAlone) {
  const auto whileTheFirstIsWritten = [&](const std::vector<std::string>& lines) {
    recorder.pausedIs(true);
    const size_t before = recorder.written();
    writer.write(Acl::aclTypeIpv4, framed(lines.front()));
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (recorder.written() == before && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ASSERT_EQ(recorder.written(), before + 1) << "awaited: the first batch being written";
    for (size_t i = 1; i < lines.size(); ++i) writer.write(Acl::aclTypeIpv4, framed(lines[i]));
    recorder.pausedIs(false);
  };
  // A replacement in a chain that grew in the same transaction is one that
  // iptables-restore does not take: it starts a transaction of its own.
  whileTheFirstIsWritten({"-A X 0\n", "-A X 1\n", "-A X 2\n", "-R X 1 -p tcp\n"});
  for (const auto& o : outcomes(4)) EXPECT_TRUE(o.result.ok) << o.text;
  EXPECT_EQ(texts(Acl::aclTypeIpv4),
            (std::vector<std::string>{framed("-A X 0\n"), framed("-A X 1\n-A X 2\n"),
                                      framed("-R X 1 -p tcp\n")}));

  recorder.clear();
  recorder.refuseIs("bad");
  whileTheFirstIsWritten({"-A X 3\n", "-A X 4\n", "-A X bad\n"});
  const auto got = outcomes(3);
  ASSERT_EQ(got.size(), 3u);
  EXPECT_TRUE(got[0].result.ok);
  EXPECT_TRUE(got[1].result.ok);
  EXPECT_FALSE(got[2].result.ok);
  EXPECT_EQ(got[2].text, framed("-A X bad\n"));
  EXPECT_EQ(texts(Acl::aclTypeIpv4),
            (std::vector<std::string>{framed("-A X 3\n"), framed("-A X 4\n-A X bad\n"),
                                      framed("-A X 4\n"), framed("-A X bad\n")}));
}

TEST_F(AsyncIptablesWriterTest, AHeldStartIsOneTransactionPerFamily) {
  writer.hold();
  writer.write(Acl::aclTypeIpv4, kSetUp);
  writer.write(Acl::aclTypeIpv6, kSetUp);
  writer.write(Acl::aclTypeIpv4, framed("-N PBR_1_p\n-A PBR_1_p -p tcp\n"));
  writer.write(Acl::aclTypeIpv4, framed("-R PBR_1_p 1 -p tcp -j MARK --set-mark 0x2\n"));
  EXPECT_FALSE(writer.idle());
  EXPECT_TRUE(recorder.batches.empty());
  writer.commit();
  const auto got = outcomes(4);
  for (const auto& o : got) EXPECT_TRUE(o.result.ok);
  EXPECT_EQ(texts(Acl::aclTypeIpv4),
            std::vector<std::string>{framed("-F\n-N TAMBRO_PBR_INTF\n-N PBR_1_p\n"
                                            "-A PREROUTING -j TAMBRO_PBR_INTF\n"
                                            "-A PBR_1_p -p tcp -j MARK --set-mark 0x2\n")});
  EXPECT_EQ(texts(Acl::aclTypeIpv6).size(), 1u);
  EXPECT_EQ(writer.transactions(), 2u);
}

TEST_F(AsyncIptablesWriterTest, ARefusedTransactionIsWrittenBatchByBatch) {
  recorder.refuseIs("-A PBR_1_p -p bogus");
  writer.hold();
  writer.write(Acl::aclTypeIpv4, kSetUp);
  writer.write(Acl::aclTypeIpv4, framed("-N PBR_1_p\n-A PBR_1_p -p bogus\n"));
  writer.write(Acl::aclTypeIpv4, framed("-A TAMBRO_PBR_INTF -i eth1 -j PBR_1_p\n"));
  writer.commit();
  const auto got = outcomes(3);
  EXPECT_TRUE(got[0].result.ok);
  EXPECT_FALSE(got[1].result.ok);
  EXPECT_EQ(got[1].text, framed("-N PBR_1_p\n-A PBR_1_p -p bogus\n"));
  EXPECT_TRUE(got[2].result.ok);
  EXPECT_EQ(writer.transactionFallbacks(), 1u);
  // The transaction, then the three batches again.
  EXPECT_EQ(texts(Acl::aclTypeIpv4).size(), 4u);
}

TEST_F(AsyncIptablesWriterTest, TheModelFollowsWhatWasWrittenNotWhatWasRefused) {
  EXPECT_FALSE(writer.written(Acl::aclTypeIpv4).known());
  writer.hold();
  writer.write(Acl::aclTypeIpv4, kSetUp);
  writer.write(Acl::aclTypeIpv4, framed("-N PBR_1_p\n-A PBR_1_p -p tcp\n"));
  writer.commit();
  outcomes(2);
  recorder.refuseIs("-p bogus");
  writer.write(Acl::aclTypeIpv4, framed("-A PBR_1_p -p udp\n"));
  writer.write(Acl::aclTypeIpv4, framed("-A PBR_1_p -p bogus\n"));
  outcomes(2);
  const auto model = writer.written(Acl::aclTypeIpv4);
  ASSERT_TRUE(model.known());
  EXPECT_EQ(*model.rules("PBR_1_p"), (std::vector<std::string>{"-p tcp", "-p udp"}));
  EXPECT_EQ(writer.writes(), 2u);
}

TEST_F(AsyncIptablesWriterTest, ARebuildIsOneInPlaceTransactionAndARefusalFailsEveryBatch) {
  const Kernel::MangleReadback::OwnPart stale{{{"TAMBRO_PBR_INTF", {}}, {"PBR_1_p", {}}}, 1};
  writer.hold();
  writer.write(Acl::aclTypeIpv4, kSetUp);
  writer.write(Acl::aclTypeIpv4, framed("-N PBR_2_p\n-A PBR_2_p -p tcp\n"));
  writer.commitInPlace([&](Acl::AclType) { return stale; });
  for (const auto& o : outcomes(2)) EXPECT_TRUE(o.result.ok);
  EXPECT_EQ(texts(Acl::aclTypeIpv4),
            std::vector<std::string>{framed("-D PREROUTING -j TAMBRO_PBR_INTF\n"
                                            "-F PBR_1_p\n-F TAMBRO_PBR_INTF\n-X PBR_1_p\n"
                                            "-N PBR_2_p\n-I PREROUTING 1 -j TAMBRO_PBR_INTF\n"
                                            "-A PBR_2_p -p tcp\n")});
  ASSERT_NE(writer.written(Acl::aclTypeIpv4).rules("PBR_2_p"), nullptr);

  // Refused: its batches fail, and none is written on its own, since the
  // dispatch set-up alone would empty the whole table.
  recorder.clear();
  recorder.refuseIs("-N PBR_3_p");
  writer.hold();
  writer.write(Acl::aclTypeIpv4, kSetUp);
  writer.write(Acl::aclTypeIpv4, framed("-N PBR_3_p\n"));
  writer.commitInPlace([](Acl::AclType) {
    return Kernel::MangleReadback::OwnPart{{{"TAMBRO_PBR_INTF", {}}, {"PBR_2_p", {}}}, 1};
  });
  for (const auto& o : outcomes(2)) {
    EXPECT_FALSE(o.result.ok);
    EXPECT_NE(o.result.error.find("the rebuild was refused"), std::string::npos);
  }
  EXPECT_EQ(recorder.batches.size(), 1u);
  EXPECT_NE(writer.written(Acl::aclTypeIpv4).rules("PBR_2_p"), nullptr);
}

}  // namespace
}  // namespace waymark::test
