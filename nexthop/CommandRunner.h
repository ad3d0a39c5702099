// The seam through which the nexthop table manager runs its `ip` commands.
//
// run() executes one shell command line and returns its wait status exactly
// as system() does (-1 when no shell could be started). The manager's default
// runs the command through system(); tests install a recording runner, and
// the daemon may install one that prints instead (dry run) or batches.
#pragma once

#include <string>

namespace Pbr {

class CommandRunner {
 public:
  virtual ~CommandRunner() = default;
  virtual int run(const std::string& command) = 0;
};

// Runs each command through the system shell and waits for it.
class SystemCommandRunner : public CommandRunner {
 public:
  int run(const std::string& command) override;
};

}  // namespace Pbr
