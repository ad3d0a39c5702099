// Kernel::NetlinkCommandRunner: carries out the nexthop table manager's
// routing commands through rtnetlink instead of one `ip` process each
// (about 3 ms per process, some 20 µs per request), with the exit status
// `ip` would have had:
//
//   add route / add rule            0, or 2 when the kernel refuses
//   delete rule                     0, or 2 when there is no such rule
//   delete route ("route del table T")
//                                   255 and nothing deleted: iproute2 takes
//                                   that form for a usage error
//
// A rule is deleted only when it is exactly the nexthop's own (priority,
// mark and table), never another rule at the same priority. A command
// known only by its text goes to the fallback runner (the shell).
#pragma once

#include <cstdint>

#include "kernel/CommandRunner.h"
#include "kernel/KernelRouting.h"

namespace Kernel {

class NetlinkCommandRunner : public Pbr::CommandRunner {
 public:
  // REQUIRES: `routing` and `fallback` outlive the runner.
  NetlinkCommandRunner(KernelRouting& routing, Pbr::CommandRunner& fallback)
      : routing_(routing), fallback_(fallback) {}

  Pbr::CommandOutcome run(const Pbr::RoutingRequest& request) override;

  uint32_t fallbacks() const { return fallbacks_; }

 private:
  KernelRouting& routing_;
  Pbr::CommandRunner& fallback_;
  uint32_t fallbacks_ = 0;
};

}  // namespace Kernel
