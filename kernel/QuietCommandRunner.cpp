#include "kernel/QuietCommandRunner.h"

#include <cstdio>

#include "kernel/ChildProcess.h"

namespace Kernel {

std::string QuietCommandRunner::shellLine(const Pbr::RoutingRequest& r) {
  if (r.operation != Pbr::RoutingRequest::Operation::deleteRule) return r.text;
  return r.text + " fwmark " + std::to_string(r.mark) + " lookup " + std::to_string(r.table);
}

Pbr::CommandOutcome QuietCommandRunner::run(const Pbr::RoutingRequest& request) {
  const std::string line = shellLine(request);
  const Kernel::ChildResult r = Kernel::ChildProcess::run({"/bin/sh", "-c", line}, "", timeLimit_);
  if (!r.started) return Pbr::CommandOutcome::notStarted();
  if (r.timedOut) {
    std::fprintf(stderr, "waymarkd: '%s' %s, killed\n", line.c_str(),
                 r.describe(timeLimit_).c_str());
    return Pbr::CommandOutcome::exited(kTimedOut);
  }
  if (r.signal != 0) return Pbr::CommandOutcome::killed(r.signal);
  return Pbr::CommandOutcome::exited(r.exitCode & 0xff);
}

}  // namespace Kernel
