// Waymark::HealthMonitor: decides, from rounds of echo requests, whether each
// health-checked nexthop is up or down. The Router owns one: it runs it every
// loop turn, hands it the answers the prober receives, and withdraws the down
// nexthops from the classes' lists.
//
// Every `interval` a round sends one probe to each target, and again to each
// after a third and after two thirds of the timeout while none has answered,
// so that a lost echo or two do not lose the round (at 20% loss, one round in
// 125 is lost instead of one in 5); the round is answered when any target
// answers within `timeout`, unanswered when none has by then. Rounds overlap when the timeout is
// longer than the interval, and answers may come late or out of order, so each round is judged on
// its own: a nexthop goes down when the latest judged round ends a run of `down-after` unanswered
// ones, and comes back when it ends a run of `up-after` answered ones. A round still waiting breaks
// a run. Late answers count for nothing. A nexthop starts up: withdrawing it needs evidence.
//
// Time is passed in, so that tests drive it on virtual time.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "config/ConfigModel.h"
#include "kernel/ProbeSender.h"

namespace Waymark {

class HealthMonitor {
 public:
  // Where a nexthop is reached from: the interface whose connected subnet
  // holds it and the interface's address there; an empty interface when no
  // connected subnet holds it (the round's probes cannot leave then).
  struct Link {
    std::string interface;
    Velnet::IpGenAddr source;
  };
  using Locate = std::function<Link(const Velnet::IpGenAddr& nexthop)>;

  // A change of verdict.
  struct Verdict {
    Velnet::IpGenAddr nexthop;
    bool up;
    std::string reason;
  };

  // What the status shows of one checked nexthop.
  struct View {
    bool up = true;
    // The latest judged round; nothing before the first.
    std::optional<bool> lastAnswered;
    // Unanswered rounds among the last 20 judged, in percent.
    double lossPercent = 0.0;
    // The round trip of the latest answer, in milliseconds.
    std::optional<double> rttMs;
    // Rounds started since the check began.
    uint64_t rounds = 0;
  };

  // REQUIRES: `sender` outlives the monitor.
  HealthMonitor(Kernel::ProbeSender& sender, Locate locate)
      : sender_(sender), locate_(std::move(locate)) {}

  // Checks exactly these nexthops from now on. A nexthop checked before
  // keeps its verdict and its rounds under its new settings; one no longer
  // named is forgotten (and so up); a new one starts up, first round now.
  void configure(const std::map<Velnet::IpGenAddr, HealthCheckSpec>& checks, double now);
  // Judges the rounds whose time is up and starts those that are due.
  void run(double now);
  // An echo answer with this sequence number came from `from`.
  void answered(uint16_t sequence, const Velnet::IpGenAddr& from, double now);
  // When run() next has something to do; kNever when nothing is checked.
  double nextDue() const;

  // The verdicts that changed since the last call, oldest first.
  std::vector<Verdict> takeVerdicts() { return std::exchange(verdicts_, {}); }
  // The nexthops that are down now.
  std::set<Velnet::IpGenAddr> down() const;
  std::optional<View> view(const Velnet::IpGenAddr& nexthop) const;

 private:
  enum class Result { waiting, answered, unanswered };
  struct Round {
    uint64_t index;
    double started;
    Result result = Result::waiting;
    int tries = 1;
    std::vector<uint16_t> sequences;
  };
  struct Check {
    HealthCheckSpec settings;
    bool up = true;
    uint64_t rounds = 0;
    double nextStart = 0.0;
    std::deque<Round> history;  // oldest first
    std::optional<double> rtt;
  };
  struct Outstanding {
    Velnet::IpGenAddr nexthop;
    uint64_t round;
    Velnet::IpGenAddr target;
    double sent;
  };

  void startRound(const Velnet::IpGenAddr& nexthop, Check& check, double now);
  void sendProbes(const Velnet::IpGenAddr& nexthop, const Check& check, Round& round, double now);
  void settle(const Velnet::IpGenAddr& nexthop, Round& round, Result result);
  // Turns a run that ends at the latest judged round into a verdict.
  void judge(const Velnet::IpGenAddr& nexthop, Check& check);

  Kernel::ProbeSender& sender_;
  const Locate locate_;
  std::map<Velnet::IpGenAddr, Check> checks_;
  std::unordered_map<uint16_t, Outstanding> outstanding_;
  uint16_t nextSequence_ = 0;
  std::vector<Verdict> verdicts_;
};

}  // namespace Waymark
