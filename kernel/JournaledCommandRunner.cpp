#include "kernel/JournaledCommandRunner.h"

#include <cerrno>

namespace Kernel {

namespace {

using Operation = Pbr::RoutingRequest::Operation;

PolicyRule ruleOf(const Pbr::RoutingRequest& r) { return {r.v6(), r.priority, r.mark, r.table}; }
RouteTableId tableOf(const Pbr::RoutingRequest& r) { return {r.v6(), r.table}; }

// `ip` exits 2 when the kernel has no such rule.
bool gone(const Pbr::CommandOutcome& o) {
  return o.succeeded() || o == Pbr::CommandOutcome::exited(2);
}

}  // namespace

void JournaledCommandRunner::keepInPlace(const PolicyRule& rule, const Velnet::IpGenAddr& nexthop) {
  kept_[rule] = nexthop;
  keptTables_[{rule.v6, rule.table}] = nexthop;
}

void JournaledCommandRunner::keepNothing() {
  kept_.clear();
  keptTables_.clear();
}

bool JournaledCommandRunner::kept(const Pbr::RoutingRequest& r) const {
  const auto it = kept_.find(ruleOf(r));
  return it != kept_.end() && it->second == r.nexthop;
}

bool JournaledCommandRunner::keptTable(const Pbr::RoutingRequest& r) const {
  const auto it = keptTables_.find(tableOf(r));
  return it != keptTables_.end() && it->second == r.nexthop;
}

bool JournaledCommandRunner::recorded(const Pbr::RoutingRequest& request, bool held) {
  if (held) {
    unrecorded_.erase(request.nexthop);
  } else {
    unrecorded_.insert(request.nexthop);
  }
  return held;
}

Pbr::CommandOutcome JournaledCommandRunner::run(const Pbr::RoutingRequest& request) {
  switch (request.operation) {
    case Operation::addRoute:
      return addRoute(request);
    case Operation::addRule:
      return addRule(request);
    case Operation::deleteRule: {
      // A kept rule stays; its nexthop's add finds it there.
      if (kept(request)) return Pbr::CommandOutcome::exited(0);
      const auto outcome = next_->run(request);
      if (gone(outcome)) journal_.ruleReleased(ruleOf(request));
      return outcome;
    }
    case Operation::deleteRoute:
      return deleteRoute(request);
    case Operation::text:
      break;
  }
  return next_->run(request);
}

Pbr::CommandOutcome JournaledCommandRunner::addRoute(const Pbr::RoutingRequest& request) {
  // What cannot be recorded must not reach the kernel: the routing logic
  // sees an ordinary failure.
  if (!recorded(request, journal_.tableHeld(tableOf(request)))) {
    return Pbr::CommandOutcome::exited(kNotRecorded);
  }
  if (keptTable(request)) {
    keptTables_.erase(tableOf(request));
    return Pbr::CommandOutcome::exited(
        routing_.replaceRoute(request.nexthop, request.table) == 0 ? 0 : 2);
  }
  const auto outcome = next_->run(request);
  // A table is forgotten only once the kernel holds no route in it.
  if (!outcome.succeeded() && !routing_.hasRoutes(tableOf(request))) {
    journal_.tableReleased(tableOf(request));
  }
  return outcome;
}

Pbr::CommandOutcome JournaledCommandRunner::addRule(const Pbr::RoutingRequest& request) {
  if (!recorded(request, journal_.ruleHeld(ruleOf(request), request.nexthop))) {
    return Pbr::CommandOutcome::exited(kNotRecorded);
  }
  if (kept(request)) {
    kept_.erase(ruleOf(request));
    const int result = routing_.addRule(ruleOf(request));
    if (result == 0 || result == -EEXIST) return Pbr::CommandOutcome::exited(0);
  }
  const auto outcome = next_->run(request);
  if (!outcome.succeeded()) journal_.ruleReleased(ruleOf(request));
  return outcome;
}

Pbr::CommandOutcome JournaledCommandRunner::deleteRoute(const Pbr::RoutingRequest& request) {
  // A kept table keeps its route until the add replaces it; the command
  // itself would delete nothing and end as iproute2 ends it.
  if (keptTable(request)) return Pbr::CommandOutcome::exited(255);
  const auto outcome = next_->run(request);
  if (routing_.flushTable(request.v6(), request.table) >= 0)
    journal_.tableReleased(tableOf(request));
  return outcome;
}

}  // namespace Kernel
