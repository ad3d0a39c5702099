// Reads waymark's YAML configuration into a ConfigModel, validating all of
// it before anything is used: unknown or duplicate keys, names, addresses,
// access-list rules, references between lists, classes, policies and
// interfaces. The first error is raised as ConfigError, whose text is
// "FILE:LINE:COLUMN: what is wrong", naming the offending value.
#pragma once

#include <stdexcept>
#include <string>

#include "config/ConfigFile.h"
#include "config/ConfigModel.h"

namespace Waymark {

class ConfigError : public std::runtime_error {
 public:
  explicit ConfigError(const std::string& text) : std::runtime_error(text) {}
};

class ConfigLoader {
 public:
  // Reads the file once it is whole (ConfigFile) and loads it. REQUIRES:
  // not on the event loop (it may wait).
  static ConfigModel loadFile(const std::string& path,
                              double pipePatience = ConfigFile::kStableWithinSeconds);
  // `name` stands for the file in error texts.
  static ConfigModel loadString(const std::string& text, const std::string& name);
  // Names of lists, classes and policies: [A-Za-z0-9_.:][A-Za-z0-9_.:-]{0,63}.
  static bool validName(const std::string& name);
};

}  // namespace Waymark
