// Kernel::QuietCommandRunner: the shell executor of waymarkd. It runs each
// routing command's line through /bin/sh like system() does and reports how
// it ended, but keeps what the command prints out of the daemon's output
// (iproute2 prints its whole usage text for the route-delete form it
// rejects) and bounds its run time, so that a hung `ip` cannot hang the
// daemon: a command still running at the limit is killed and reported as
// having exited with 124 (the code of timeout(1)), a failure, so that its
// nexthop is not taken for programmed.
//
// "ip rule del priority P" deletes whatever rule sits at P, also one that
// is not waymark's; for a nexthop's rule the line run is therefore
// "ip rule del priority P fwmark M lookup T", which deletes only that rule
// (and exits 2, as the short form does, when it is not there).
#pragma once

#include <string>

#include "kernel/CommandRunner.h"

namespace Kernel {

class QuietCommandRunner : public Pbr::CommandRunner {
 public:
  static constexpr int kTimedOut = 124;

  explicit QuietCommandRunner(double timeLimit = 30.0) : timeLimit_(timeLimit) {}
  Pbr::CommandOutcome run(const Pbr::RoutingRequest& request) override;

  // The line the shell runs for `request`.
  static std::string shellLine(const Pbr::RoutingRequest& request);

 private:
  double timeLimit_;
};

}  // namespace Kernel
