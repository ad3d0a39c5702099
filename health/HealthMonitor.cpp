#include "health/HealthMonitor.h"

#include <algorithm>

#include "framework/Clock.h"

namespace Waymark {

namespace {

// Rounds the loss figure looks back over.
constexpr size_t kLossWindow = 20;
// Times a round sends to its targets while none answers.
constexpr int kTries = 3;

std::string targetList(const std::vector<Velnet::IpGenAddr>& targets) {
  std::string out;
  for (const auto& t : targets) out += (out.empty() ? "" : ", ") + t.stringValue();
  return out;
}

}  // namespace

void HealthMonitor::configure(const std::map<Velnet::IpGenAddr, HealthCheckSpec>& checks,
                              double now) {
  for (auto it = checks_.begin(); it != checks_.end();) {
    if (checks.count(it->first) != 0) {
      ++it;
      continue;
    }
    // Its probes still awaiting an answer are no one's any more.
    for (auto& round : it->second.history) {
      if (round.result == Result::waiting) settle(it->first, round, Result::unanswered);
    }
    it = checks_.erase(it);
  }
  for (const auto& [nexthop, settings] : checks) {
    const auto [it, added] = checks_.try_emplace(nexthop);
    Check& check = it->second;
    check.settings = settings;
    check.nextStart = added ? now : std::min(check.nextStart, now + settings.interval);
  }
}

void HealthMonitor::run(double now) {
  for (auto& [nexthop, check] : checks_) {
    bool judged = false;
    for (auto& round : check.history) {
      if (round.result != Result::waiting) continue;
      if (round.started + check.settings.timeout <= now) {
        settle(nexthop, round, Result::unanswered);
        judged = true;
      } else if (round.tries < kTries &&
                 round.started + round.tries * check.settings.timeout / kTries <= now) {
        ++round.tries;
        sendProbes(nexthop, check, round, now);
      }
    }
    if (judged) judge(nexthop, check);
    if (now < check.nextStart) continue;
    startRound(nexthop, check, now);
    // A loop that fell behind skips the rounds it missed rather than
    // sending them in a burst.
    check.nextStart += check.settings.interval;
    if (check.nextStart <= now) check.nextStart = now + check.settings.interval;
  }
}

void HealthMonitor::startRound(const Velnet::IpGenAddr& nexthop, Check& check, double now) {
  Round round{check.rounds++, now, Result::waiting, 1, {}};
  sendProbes(nexthop, check, round, now);
  check.history.push_back(std::move(round));
  const size_t keep =
      std::max<size_t>({kLossWindow, check.settings.downAfter, check.settings.upAfter});
  auto judged = static_cast<size_t>(
      std::count_if(check.history.begin(), check.history.end(),
                    [](const Round& r) { return r.result != Result::waiting; }));
  for (; judged > keep && check.history.front().result != Result::waiting; --judged) {
    check.history.pop_front();
  }
}

void HealthMonitor::sendProbes(const Velnet::IpGenAddr& nexthop, const Check& check, Round& round,
                               double now) {
  const Link link = locate_(nexthop);
  if (link.interface.empty()) return;
  for (const auto& target : check.settings.targets) {
    const uint16_t sequence = nextSequence_++;
    if (!sender_.send({sequence, target, nexthop, link.interface, link.source})) continue;
    outstanding_[sequence] = {nexthop, round.index, target, now};
    round.sequences.push_back(sequence);
  }
}

void HealthMonitor::settle(const Velnet::IpGenAddr& nexthop, Round& round, Result result) {
  round.result = result;
  for (const uint16_t s : round.sequences) {
    // A sequence number reused since belongs to a newer probe, maybe of
    // another nexthop.
    const auto it = outstanding_.find(s);
    if (it != outstanding_.end() && it->second.round == round.index &&
        it->second.nexthop == nexthop) {
      outstanding_.erase(it);
    }
  }
  round.sequences.clear();
}

void HealthMonitor::answered(uint16_t sequence, const Velnet::IpGenAddr& from, double now) {
  const auto it = outstanding_.find(sequence);
  if (it == outstanding_.end() || it->second.target != from) return;
  const Outstanding probe = it->second;
  const auto c = checks_.find(probe.nexthop);
  if (c == checks_.end()) return;
  Check& check = c->second;
  for (auto& round : check.history) {
    if (round.index != probe.round || round.result != Result::waiting) continue;
    // An answer the loop takes in after the round's time is up is late.
    const bool late = now - round.started > check.settings.timeout;
    settle(probe.nexthop, round, late ? Result::unanswered : Result::answered);
    if (!late) check.rtt = now - probe.sent;
    judge(probe.nexthop, check);
    return;
  }
}

void HealthMonitor::judge(const Velnet::IpGenAddr& nexthop, Check& check) {
  const auto latest = std::find_if(check.history.rbegin(), check.history.rend(),
                                   [](const Round& r) { return r.result != Result::waiting; });
  if (latest == check.history.rend()) return;
  const Result result = latest->result;
  const auto end = std::find_if(latest, check.history.rend(),
                                [&](const Round& r) { return r.result != result; });
  const auto run = static_cast<uint32_t>(end - latest);
  if (check.up && result == Result::unanswered && run >= check.settings.downAfter) {
    check.up = false;
    verdicts_.push_back({nexthop, false,
                         "no answer from " + targetList(check.settings.targets) + " in " +
                             std::to_string(run) + " rounds in a row"});
  } else if (!check.up && result == Result::answered && run >= check.settings.upAfter) {
    check.up = true;
    verdicts_.push_back({nexthop, true, "answered " + std::to_string(run) + " rounds in a row"});
  }
}

double HealthMonitor::nextDue() const {
  double due = Vix::kNever;
  for (const auto& [nexthop, check] : checks_) {
    due = std::min(due, check.nextStart);
    for (const auto& round : check.history) {
      if (round.result != Result::waiting) continue;
      const double wait = round.tries < kTries ? round.tries * check.settings.timeout / kTries
                                               : check.settings.timeout;
      due = std::min(due, round.started + wait);
    }
  }
  return due;
}

std::set<Velnet::IpGenAddr> HealthMonitor::down() const {
  std::set<Velnet::IpGenAddr> out;
  for (const auto& [nexthop, check] : checks_) {
    if (!check.up) out.insert(nexthop);
  }
  return out;
}

std::optional<HealthMonitor::View> HealthMonitor::view(const Velnet::IpGenAddr& nexthop) const {
  const auto it = checks_.find(nexthop);
  if (it == checks_.end()) return std::nullopt;
  const Check& check = it->second;
  View v;
  v.up = check.up;
  v.rounds = check.rounds;
  size_t judged = 0;
  size_t lost = 0;
  for (auto r = check.history.rbegin(); r != check.history.rend() && judged < kLossWindow; ++r) {
    if (r->result == Result::waiting) continue;
    if (!v.lastAnswered) v.lastAnswered = r->result == Result::answered;
    ++judged;
    lost += r->result == Result::unanswered ? 1 : 0;
  }
  if (judged > 0) v.lossPercent = 100.0 * static_cast<double>(lost) / static_cast<double>(judged);
  if (check.rtt) v.rttMs = *check.rtt * 1000.0;
  return v;
}

}  // namespace Waymark
