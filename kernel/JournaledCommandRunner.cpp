#include "kernel/JournaledCommandRunner.h"

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

Pbr::CommandOutcome JournaledCommandRunner::run(const Pbr::RoutingRequest& request) {
  switch (request.operation) {
    case Operation::addRoute: {
      journal_.tableHeld(tableOf(request));
      const auto outcome = next_->run(request);
      if (!outcome.succeeded()) journal_.tableReleased(tableOf(request));
      return outcome;
    }
    case Operation::addRule: {
      journal_.ruleHeld(ruleOf(request));
      const auto outcome = next_->run(request);
      if (!outcome.succeeded()) journal_.ruleReleased(ruleOf(request));
      return outcome;
    }
    case Operation::deleteRule: {
      const auto outcome = next_->run(request);
      if (gone(outcome)) journal_.ruleReleased(ruleOf(request));
      return outcome;
    }
    case Operation::deleteRoute: {
      const auto outcome = next_->run(request);
      if (routing_.flushTable(request.v6(), request.table) >= 0) {
        ++tablesFlushed_;
        journal_.tableReleased(tableOf(request));
      }
      return outcome;
    }
    case Operation::text:
      break;
  }
  return next_->run(request);
}

}  // namespace Kernel
