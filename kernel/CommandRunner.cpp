#include "kernel/CommandRunner.h"

#include <cstdlib>

namespace Pbr {

CommandOutcome SystemCommandRunner::run(const RoutingRequest& request) {
  return CommandOutcome::fromWaitStatus(std::system(request.text.c_str()));
}

}  // namespace Pbr
