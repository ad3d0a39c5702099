#include "daemon/QuietCommandRunner.h"

#include <cstdio>

#include "platform/ChildProcess.h"

namespace Waymark {

int QuietCommandRunner::run(const std::string& command) {
  const Platform::ChildResult r =
      Platform::ChildProcess::run({"/bin/sh", "-c", command}, "", timeLimit_);
  if (!r.started) return -1;
  if (r.timedOut) {
    std::fprintf(stderr, "waymarkd: '%s' %s, killed\n", command.c_str(),
                 r.describe(timeLimit_).c_str());
    return kTimedOut << 8;
  }
  if (r.signal != 0) return r.signal;
  return (r.exitCode & 0xff) << 8;
}

}  // namespace Waymark
