// Pbr::CommandOutcome: how one routing command ended, as the runner that
// carried it out saw it: exited with a code, ended by a signal, or never
// started. The nexthop table manager judges a command by the wait status
// system() would have returned for it, so the outcome is decoded into that
// form in exactly one place.
#pragma once

#include <cstdint>

namespace Pbr {

class CommandOutcome {
 public:
  enum class Kind : uint8_t { exited, killed, notStarted };

  static CommandOutcome exited(int code) { return {Kind::exited, code}; }
  static CommandOutcome killed(int signal) { return {Kind::killed, signal}; }
  static CommandOutcome notStarted() { return {Kind::notStarted, 0}; }
  // Reads a wait status as system() returns it (-1: no shell could start).
  static CommandOutcome fromWaitStatus(int status);

  Kind kind() const { return kind_; }
  // The exit code, or the signal that ended the command.
  int code() const { return code_; }
  bool succeeded() const { return kind_ == Kind::exited && code_ == 0; }
  // The outcome as system() reports it.
  int waitStatus() const;

  bool operator==(const CommandOutcome&) const = default;

 private:
  CommandOutcome(Kind kind, int code) : kind_(kind), code_(code) {}

  Kind kind_;
  int code_;
};

}  // namespace Pbr
