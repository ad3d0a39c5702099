// The `ip` command runner of waymarkd: runs each command line through
// /bin/sh like system() does, and returns the same wait status, but keeps
// what the command prints out of the daemon's output (iproute2 prints its
// whole usage text for the route-delete form it rejects) and bounds its run
// time, so that a hung `ip` cannot hang the daemon: a command still running
// at the limit is killed and reported as ended by SIGKILL.
#pragma once

#include <string>

#include "nexthop/CommandRunner.h"

namespace Waymark {

class QuietCommandRunner : public Pbr::CommandRunner {
 public:
  explicit QuietCommandRunner(double timeLimit = 30.0) : timeLimit_(timeLimit) {}
  int run(const std::string& command) override;

 private:
  double timeLimit_;
};

}  // namespace Waymark
