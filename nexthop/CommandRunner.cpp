#include "nexthop/CommandRunner.h"

#include <cstdlib>

namespace Pbr {

int SystemCommandRunner::run(const std::string& command) { return std::system(command.c_str()); }

}  // namespace Pbr
