#include "sync/DriftRepair.h"

#include <set>

#include "kernel/RoutingRequest.h"

namespace Waymark {

namespace {

constexpr double kGrace = 0.1;
constexpr double kMinute = 60.0;

}  // namespace

void DriftRepair::resume() {
  stopped_ = false;
  recent_.clear();
  // What is still missing is put back now.
  if (!missing_.empty()) suspected_ = true;
}

std::vector<std::string> DriftRepair::run(Pbr::NexthopTableManager& manager, const Usable& usable,
                                          double now) {
  if (!suspected_) return {};
  if (suspectedAt_ < 0) suspectedAt_ = now;
  if (now - suspectedAt_ < kGrace || !manager.pendingNexthops().empty()) return {};
  suspected_ = false;
  suspectedAt_ = -1.0;
  std::set<Kernel::PolicyRule> rules;
  std::set<Kernel::RouteTableId> tables;
  for (const bool v6 : {false, true}) {
    for (const auto& rule : routing_.rules(v6)) rules.insert(rule);
    for (const auto& [table, routes] : routing_.routeTables(v6)) tables.insert({v6, table});
  }
  std::vector<Velnet::IpGenAddr> programmed;
  manager.programmedSet().forEach([&](const Velnet::IpGenAddr& addr, bool p) {
    if (p && usable(addr)) programmed.push_back(addr);
  });

  std::vector<std::string> out;
  missing_.clear();
  for (const auto& addr : programmed) {
    const bool v6 = addr.isV6();
    const uint32_t table = manager.routeTable(addr);
    const Kernel::PolicyRule rule{v6, manager.ipRuleIndex(addr), manager.fwmark(addr), table};
    const bool ruleGone = rules.count(rule) == 0;
    const bool routeGone = tables.count({v6, table}) == 0;
    if (!ruleGone && !routeGone) continue;
    ++drifts_;
    const std::string what = std::string(ruleGone && routeGone ? "rule and route"
                                         : ruleGone            ? "rule"
                                                               : "route") +
                             " of nexthop " + addr.stringValue() + " (priority " +
                             std::to_string(rule.priority) + ", table " + std::to_string(table) +
                             ")";
    if (!allow(now, out)) {
      missing_.push_back(what + " missing");
      continue;
    }
    // The route before the rule, so that marked packets never meet a rule
    // that points at an empty table.
    bool ok = !routeGone || manager.runCommand(Pbr::RoutingRequest::addRoute(addr, table), false);
    ok = ok && (!ruleGone ||
                manager.runCommand(
                    Pbr::RoutingRequest::addRule(addr, rule.priority, rule.mark, table), false));
    out.push_back(what + " removed from outside: " + (ok ? "put back" : "could not be put back"));
    if (!ok) missing_.push_back(what + " missing");
  }
  return out;
}

bool DriftRepair::allow(double now, std::vector<std::string>& out) {
  while (!recent_.empty() && now - recent_.front() >= kMinute) recent_.pop_front();
  if (stopped_) return false;
  if (recent_.size() >= kRepairsPerMinute) {
    stopped_ = true;
    out.push_back("drift repairs stopped: " + std::to_string(recent_.size()) +
                  " in the last minute; something keeps changing waymark's rules, routes or "
                  "chains (a reload or resync repairs again)");
    return false;
  }
  recent_.push_back(now);
  ++repairs_;
  return true;
}

bool DriftRepair::mangleDrifted(const std::string& what, double now,
                                std::vector<std::string>& out) {
  ++drifts_;
  const bool repair = allow(now, out);
  const std::string text = "mangle tables changed from outside: " + what;
  if (repair) {
    out.push_back(text + ": rebuilding them");
    return true;
  }
  if (mangleMissing_ != what) out.push_back(text);
  mangleMissing_ = what;
  return false;
}

void DriftRepair::describe(nlohmann::json& status) const {
  std::string drift;
  for (const auto& m : missing_) drift += (drift.empty() ? "" : "; ") + m;
  if (!mangleMissing_.empty())
    drift += (drift.empty() ? "mangle: " : "; mangle: ") + mangleMissing_;
  status["drift"] = drift.empty() ? "none" : drift;
  status["daemon"]["driftDetected"] = drifts_;
  status["daemon"]["driftRepairs"] = repairs_;
  status["daemon"]["driftRepairsStopped"] = stopped_;
}

}  // namespace Waymark
