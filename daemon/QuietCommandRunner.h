// The `ip` command runner of waymarkd: runs each command line through
// /bin/sh like system() does, and returns the same wait status, but keeps
// what the command prints out of the daemon's output (iproute2 prints its
// whole usage text for the route-delete form it rejects) and bounds its run
// time, so that a hung `ip` cannot hang the daemon: a command still running
// at the limit is killed and reported as having exited with 124 (the code of
// timeout(1)), a failure, so that its nexthop is not taken for programmed.
#pragma once

#include <string>

#include "nexthop/CommandRunner.h"

namespace Waymark {

class QuietCommandRunner : public Pbr::CommandRunner {
 public:
  static constexpr int kTimedOut = 124;

  explicit QuietCommandRunner(double timeLimit = 30.0) : timeLimit_(timeLimit) {}
  int run(const std::string& command) override;

 private:
  double timeLimit_;
};

}  // namespace Waymark
