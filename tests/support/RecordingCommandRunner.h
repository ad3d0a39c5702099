// A command runner that records every command line instead of running it,
// answers with wait statuses the test chooses, and can make each command take
// time on the virtual clock, as a real `ip` would.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "kernel/CommandRunner.h"
#include "tests/support/VirtualClock.h"

namespace waymark::test {

// Wait statuses as system() returns them.
constexpr int exitStatus(int code) { return code << 8; }
constexpr int killedBy(int signal) { return signal; }

class RecordingCommandRunner : public Pbr::CommandRunner {
 public:
  Pbr::CommandOutcome run(const Pbr::RoutingRequest& request) override {
    const std::string& command = request.text;
    commands.push_back(command);
    requests.push_back(request);
    if (clock_ != nullptr) clock_->advance(secondsPerCommand_);
    for (const auto& [prefix, status] : statuses_) {
      if (command.compare(0, prefix.size(), prefix) == 0) {
        return Pbr::CommandOutcome::fromWaitStatus(status);
      }
    }
    return Pbr::CommandOutcome::exited(0);
  }

  // Commands that start with `prefix` answer `status` (first match wins).
  void statusIs(const std::string& prefix, int status) { statuses_.emplace_back(prefix, status); }
  // Each command advances `clock` by `seconds`.
  void costIs(VirtualClock* clock, double seconds) {
    clock_ = clock;
    secondsPerCommand_ = seconds;
  }
  // The recorded commands, emptied.
  std::vector<std::string> take() {
    requests.clear();
    return std::exchange(commands, {});
  }

  std::vector<std::string> commands;
  std::vector<Pbr::RoutingRequest> requests;

 private:
  std::vector<std::pair<std::string, int>> statuses_;
  VirtualClock* clock_ = nullptr;
  double secondsPerCommand_ = 0.0;
};

}  // namespace waymark::test
