// Runs a program with some text on its standard input and collects what it
// prints (standard output and error together), within a time limit.
//
// Owns its pipes and its child: whatever happens, the descriptors are closed
// and the child is killed and reaped, so no descriptor or zombie is left
// behind. A child still running at the time limit is killed with SIGKILL and
// the result says so.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace Kernel {

struct ChildResult {
  bool started = false;   // false: the program could not be run at all
  bool timedOut = false;  // killed at the time limit
  int exitCode = -1;      // when it exited
  int signal = 0;         // when a signal ended it
  std::string output;

  bool ok() const { return started && !timedOut && signal == 0 && exitCode == 0; }
  // "exit code 2", "killed by signal 9", "timed out after 30 s", ...
  std::string describe(double timeLimit) const;
};

class ChildProcess {
 public:
  // Runs argv[0] (searched on PATH) with `input` on its standard input;
  // `started`, when given, learns the child's process id as it starts.
  static ChildResult run(const std::vector<std::string>& argv, const std::string& input,
                         double timeLimitSeconds,
                         const std::function<void(int)>& started = nullptr);
};

}  // namespace Kernel
