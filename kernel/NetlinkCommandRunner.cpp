#include "kernel/NetlinkCommandRunner.h"

namespace Kernel {

namespace {

using Operation = Pbr::RoutingRequest::Operation;

Pbr::CommandOutcome asIp(int result) { return Pbr::CommandOutcome::exited(result == 0 ? 0 : 2); }

}  // namespace

Pbr::CommandOutcome NetlinkCommandRunner::run(const Pbr::RoutingRequest& r) {
  switch (r.operation) {
    case Operation::addRoute:
      return asIp(routing_.addRoute(r.nexthop, r.table));
    case Operation::addRule:
      return asIp(routing_.addRule({r.v6(), r.priority, r.mark, r.table}));
    case Operation::deleteRule:
      return asIp(routing_.deleteRule({r.v6(), r.priority, r.mark, r.table}));
    case Operation::deleteRoute:
      return Pbr::CommandOutcome::exited(255);
    case Operation::text:
      break;
  }
  ++fallbacks_;
  return fallback_.run(r);
}

}  // namespace Kernel
