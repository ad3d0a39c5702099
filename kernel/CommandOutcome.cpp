#include "kernel/CommandOutcome.h"

#include <sys/wait.h>

namespace Pbr {

CommandOutcome CommandOutcome::fromWaitStatus(int status) {
  if (status == -1) return notStarted();
  if (WIFSIGNALED(status)) return killed(WTERMSIG(status));
  return exited(WEXITSTATUS(status));
}

int CommandOutcome::waitStatus() const {
  switch (kind_) {
    case Kind::exited:
      return (code_ & 0xff) << 8;
    case Kind::killed:
      return code_ & 0x7f;
    case Kind::notStarted:
      break;
  }
  return -1;
}

}  // namespace Pbr
