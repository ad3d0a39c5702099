#include "health/HealthMonitor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <map>
#include <optional>

#include "framework/Clock.h"
#include "tests/support/RecordingProbeSender.h"

namespace Waymark {
namespace {

using Velnet::IpGenAddr;

const IpGenAddr kNexthop = IpGenAddr::parse("192.0.2.1");
const IpGenAddr kFar = IpGenAddr::parse("198.51.100.1");
const IpGenAddr kOtherFar = IpGenAddr::parse("198.51.100.2");

// The monitor on virtual time over a simulated network: `network` says how
// long each probe's answer takes, or that it is lost; answers arrive at
// their time, and the monitor runs whenever it asks to.
class HealthMonitorTest : public ::testing::Test {
 protected:
  struct Seen {
    double at;
    bool up;
    std::string reason;
  };

  void check(const HealthCheckSpec& settings, const IpGenAddr& nexthop = kNexthop) {
    monitor.configure({{nexthop, settings}}, now);
  }

  void runUntil(double end) {
    while (true) {
      const double due = monitor.nextDue();
      const double answer = answers.empty() ? Vix::kNever : answers.begin()->first;
      const double next = std::min(due, answer);
      if (next > end) break;
      now = std::max(now, next);
      if (answer <= due) {
        const auto [seq, from] = answers.begin()->second;
        answers.erase(answers.begin());
        monitor.answered(seq, from, now);
      } else {
        monitor.run(now);
        for (; scheduled < sender.sent.size(); ++scheduled) {
          const auto& probe = sender.sent[scheduled];
          if (const auto delay = network(probe)) {
            answers.emplace(now + *delay, std::make_pair(probe.sequence, from(probe)));
          }
        }
      }
      for (auto& v : monitor.takeVerdicts()) seen.push_back({now, v.up, v.reason});
    }
    now = end;
  }

  waymark::test::RecordingProbeSender sender;
  HealthMonitor monitor{sender, [](const IpGenAddr&) {
                          return HealthMonitor::Link{"eth1", IpGenAddr::parse("192.0.2.2")};
                        }};
  double now = 100.0;
  std::function<std::optional<double>(const Kernel::Probe&)> network = [](const Kernel::Probe&) {
    return 0.01;
  };
  // Who the answer to a probe comes from.
  std::function<IpGenAddr(const Kernel::Probe&)> from = [](const Kernel::Probe& p) {
    return p.target;
  };
  std::multimap<double, std::pair<uint16_t, IpGenAddr>> answers;
  size_t scheduled = 0;
  std::vector<Seen> seen;
};

TEST_F(HealthMonitorTest, DownAfterDownAfterSilentRoundsAndUpAfterUpAfterAnsweredOnes) {
  check({{kNexthop}, 1.0, 1.0, 3, 5});
  // Two silent rounds out of every three: never three in a row.
  network = [&](const Kernel::Probe&) -> std::optional<double> {
    if (static_cast<int>(now - 100.0) % 3 != 0) return std::nullopt;
    return 0.01;
  };
  runUntil(130.5);
  EXPECT_TRUE(seen.empty());
  EXPECT_EQ(monitor.view(kNexthop)->lossPercent, 65.0);

  bool alive = false;
  network = [&](const Kernel::Probe&) -> std::optional<double> {
    if (!alive) return std::nullopt;
    return 0.01;
  };
  // Rounds at 131, 132 and 133 go unanswered; the third's time is up at 134.
  runUntil(133.99);
  EXPECT_TRUE(seen.empty());
  runUntil(140.9);
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_NEAR(seen[0].at, 134.0, 1e-9);
  EXPECT_FALSE(seen[0].up);
  EXPECT_EQ(seen[0].reason, "no answer from 192.0.2.1 in 3 rounds in a row");
  EXPECT_EQ(monitor.down(), std::set{kNexthop});

  // Answered from the round at 141 on: the fifth, at 145, brings it back.
  alive = true;
  runUntil(145.0);
  EXPECT_EQ(seen.size(), 1u);
  runUntil(150.0);
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_NEAR(seen[1].at, 145.01, 1e-9);
  EXPECT_TRUE(seen[1].up);
  EXPECT_EQ(seen[1].reason, "answered 5 rounds in a row");
  EXPECT_TRUE(monitor.down().empty());
}

TEST_F(HealthMonitorTest, OneAnsweringTargetKeepsTheNexthopUpAndOnlyTargetsCount) {
  check({{kFar, kOtherFar}, 0.5, 0.5, 3, 5});
  network = [](const Kernel::Probe& p) -> std::optional<double> {
    if (p.target == kFar) return std::nullopt;
    return 0.02;
  };
  runUntil(150.0);
  EXPECT_TRUE(seen.empty());
  EXPECT_NEAR(*monitor.view(kNexthop)->rttMs, 20.0, 1e-6);
  for (const auto& p : sender.sent) {
    EXPECT_EQ(p.nexthop, kNexthop);
    EXPECT_EQ(p.interface, "eth1");
    EXPECT_EQ(p.source, IpGenAddr::parse("192.0.2.2"));
  }

  // An answer from someone else than the target probed is no answer.
  from = [](const Kernel::Probe&) { return IpGenAddr::parse("203.0.113.9"); };
  runUntil(160.0);
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].reason, "no answer from 198.51.100.1, 198.51.100.2 in 3 rounds in a row");
}

TEST_F(HealthMonitorTest, AnAnswerAfterTheTimeoutCountsForNothing) {
  check({{kNexthop}, 1.0, 0.5, 3, 5});
  network = [](const Kernel::Probe&) { return 0.7; };
  runUntil(103.6);
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_NEAR(seen[0].at, 102.5, 1e-9);
  EXPECT_FALSE(monitor.view(kNexthop)->rttMs);

  // Taken in after its round's time is up, even before the monitor looked.
  monitor.configure({}, now);
  check({{kNexthop}, 1.0, 0.5, 1, 1});
  const size_t before = sender.sent.size();
  monitor.run(200.0);
  ASSERT_EQ(sender.sent.size(), before + 1);
  monitor.answered(sender.sent.back().sequence, kNexthop, 200.6);
  EXPECT_EQ(monitor.view(kNexthop)->lastAnswered, false);
}

TEST_F(HealthMonitorTest, OverlappingRoundsAnsweredOutOfOrderAreJudgedEachOnItsOwn) {
  // Rounds every 0.25 s wait up to 1 s: answers of alternate rounds
  // overtake each other.
  check({{kNexthop}, 0.25, 1.0, 3, 3});
  int probe = 0;
  network = [&](const Kernel::Probe&) -> std::optional<double> {
    return ++probe % 2 == 0 ? 0.05 : 0.9;
  };
  runUntil(119.9);
  EXPECT_TRUE(seen.empty());
  EXPECT_EQ(monitor.view(kNexthop)->lossPercent, 0.0);

  // Checked afresh: the rounds at 0, 0.25 and 0.5 s are lost with their
  // later tries, the one at 0.75 s is answered at once. Their times are up
  // only after that answer, which is the news that counts.
  monitor.configure({}, now);
  check({{kNexthop}, 0.25, 1.0, 3, 3});
  const double start = now;
  network = [&](const Kernel::Probe&) -> std::optional<double> {
    const double phase = std::fmod(now - start + 1e-9, 0.25);
    const bool firstTry = phase < 2e-9;
    if (now - start < 0.7 || !firstTry) return std::nullopt;
    return 0.05;
  };
  runUntil(now + 4.9);  // twenty rounds judged
  EXPECT_TRUE(seen.empty());
  EXPECT_EQ(monitor.view(kNexthop)->lossPercent, 15.0);
}

TEST_F(HealthMonitorTest, ARoundTriesAgainWhileUnansweredSoTwoLostEchoesLoseNothing) {
  check({{kNexthop}, 1.0, 1.0, 1, 5});
  size_t probes = 0;
  network = [&](const Kernel::Probe&) -> std::optional<double> {
    if (++probes % 3 != 0) return std::nullopt;
    return 0.01;
  };
  runUntil(119.9);
  EXPECT_TRUE(seen.empty());
  EXPECT_EQ(sender.sent.size(), 60u);
  EXPECT_EQ(sender.sent[1].sequence, sender.sent[0].sequence + 1);
  EXPECT_NEAR(*monitor.view(kNexthop)->rttMs, 10.0, 1e-6);
}

TEST_F(HealthMonitorTest, ProbesThatCannotLeaveAreUnansweredRounds) {
  check({{kNexthop}, 1.0, 1.0, 2, 5});
  sender.reachable = false;
  runUntil(102.5);
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_NEAR(seen[0].at, 102.0, 1e-9);
  EXPECT_TRUE(sender.sent.empty());
}

TEST_F(HealthMonitorTest, TheViewShowsTheLatestRoundLossOverTwentyRoundsAndRoundTrip) {
  EXPECT_FALSE(monitor.view(kNexthop));
  check({{kNexthop}, 1.0, 1.0, 3, 5});
  EXPECT_TRUE(monitor.view(kNexthop)->up);
  EXPECT_FALSE(monitor.view(kNexthop)->lastAnswered);
  // Every fifth round lost, all of its echoes.
  network = [&](const Kernel::Probe&) -> std::optional<double> {
    if (static_cast<int>(now - 100.0) % 5 == 0) return std::nullopt;
    return 0.003;
  };
  runUntil(160.5);
  const auto v = monitor.view(kNexthop);
  EXPECT_EQ(v->lossPercent, 20.0);
  EXPECT_EQ(v->lastAnswered, true);
  EXPECT_NEAR(*v->rttMs, 3.0, 1e-6);
}

TEST_F(HealthMonitorTest, ANewConfigurationKeepsVerdictsOfNexthopsStillChecked) {
  const IpGenAddr other = IpGenAddr::parse("192.0.2.9");
  monitor.configure({{kNexthop, {{kNexthop}, 1.0, 1.0, 1, 5}}, {other, {{other}, 1.0, 1.0, 1, 5}}},
                    now);
  network = [](const Kernel::Probe&) -> std::optional<double> { return std::nullopt; };
  runUntil(102.0);
  EXPECT_EQ(monitor.down(), (std::set{kNexthop, other}));
  monitor.configure({{kNexthop, {{kNexthop}, 2.0, 1.0, 1, 5}}}, now);
  EXPECT_EQ(monitor.down(), std::set{kNexthop});
  EXPECT_FALSE(monitor.view(other));
  EXPECT_LE(monitor.nextDue(), now + 2.0);
}

}  // namespace
}  // namespace Waymark
