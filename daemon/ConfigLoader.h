// Reads waymark's YAML configuration into a ConfigModel, validating all of
// it before anything is used: unknown or duplicate keys, names, addresses,
// access-list rules, references between lists, classes, policies and
// interfaces. The first error is raised as ConfigError, whose text is
// "FILE:LINE:COLUMN: what is wrong", naming the offending value.
#pragma once

#include <stdexcept>
#include <string>

#include "daemon/ConfigModel.h"

namespace Waymark {

class ConfigError : public std::runtime_error {
 public:
  explicit ConfigError(const std::string& text) : std::runtime_error(text) {}
};

// A file is read only once it has stopped changing: not changed for
// kQuietSeconds, and the same (inode, size, times) before and after the
// read; it is waited for at most kStableWithinSeconds, then refused. An
// editor rewriting it in place, or a copy on its way, is never read half.
class ConfigLoader {
 public:
  static constexpr double kQuietSeconds = 0.25;
  static constexpr double kStableWithinSeconds = 5.0;

  // Reads the file once stable and loads it. REQUIRES: not on the event
  // loop (it may wait).
  static ConfigModel loadFile(const std::string& path);
  // The file's text once it is stable.
  static std::string readStable(const std::string& path);
  // `name` stands for the file in error texts.
  static ConfigModel loadString(const std::string& text, const std::string& name);
  // Names of lists, classes and policies: [A-Za-z0-9_.:][A-Za-z0-9_.:-]{0,63}.
  static bool validName(const std::string& name);
};

}  // namespace Waymark
