// Pbr::CommandRunner: the seam through which the nexthop table manager
// carries out its routing commands.
//
// run() receives the command as data and as text (RoutingRequest) and says
// how it ended. The manager's default runs the text through system(); tests
// install a recording runner; the daemon installs its shell or rtnetlink
// executor, or a printing one for a dry run.
#pragma once

#include "kernel/CommandOutcome.h"
#include "kernel/RoutingRequest.h"

namespace Pbr {

class CommandRunner {
 public:
  virtual ~CommandRunner() = default;
  virtual CommandOutcome run(const RoutingRequest& request) = 0;
};

// Runs each command's text through the system shell and waits for it.
class SystemCommandRunner : public CommandRunner {
 public:
  CommandOutcome run(const RoutingRequest& request) override;
};

}  // namespace Pbr
