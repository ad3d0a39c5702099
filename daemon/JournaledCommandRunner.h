// Waymark::JournaledCommandRunner: the daemon's way to the kernel for
// routing commands, which writes down every rule priority and routing table
// in the state file before the command that uses it runs. A daemon killed
// between a command and the end of its loop turn (kill -9, a crash, power)
// would otherwise leave a route no later run knows of, and the restart that
// allocates the same table again would meet "File exists". The journal is
// written ahead, so a restart always finds at least what is in the kernel.
//
// It passes every command on unchanged to the runner behind it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "daemon/StateFile.h"
#include "nexthop/CommandRunner.h"

namespace Waymark {

class JournaledCommandRunner : public Pbr::CommandRunner {
 public:
  // REQUIRES: `state` and `next` outlive the runner.
  JournaledCommandRunner(StateFile& state, Pbr::CommandRunner& next) : state_(state), next_(next) {}

  int run(const std::string& command) override;

  // The number the command names after `word` ("priority", "table"), if any.
  static std::optional<uint32_t> numberAfter(const std::string& command, const std::string& word);

 private:
  StateFile& state_;
  Pbr::CommandRunner& next_;
};

}  // namespace Waymark
