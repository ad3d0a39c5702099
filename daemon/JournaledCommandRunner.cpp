#include "daemon/JournaledCommandRunner.h"

#include <cstdio>
#include <sstream>

namespace Waymark {

std::optional<uint32_t> JournaledCommandRunner::numberAfter(const std::string& command,
                                                            const std::string& word) {
  std::istringstream words(command);
  for (std::string w; words >> w;) {
    if (w != word) continue;
    unsigned long n = 0;
    if (!(words >> n) || n > 0xffffffffu) return std::nullopt;
    return static_cast<uint32_t>(n);
  }
  return std::nullopt;
}

int JournaledCommandRunner::run(const std::string& command) {
  // Only additions need the journal: what is deleted was recorded when added.
  if (command.find(" add ") != std::string::npos) {
    std::set<uint32_t> priorities;
    std::set<uint32_t> tables;
    if (const auto p = numberAfter(command, "priority")) priorities.insert(*p);
    if (const auto t = numberAfter(command, "table")) tables.insert(*t);
    if (const auto t = numberAfter(command, "lookup")) tables.insert(*t);
    std::string error;
    if (!state_.journal(priorities, tables, &error)) {
      std::fprintf(stderr, "waymarkd: %s\n", error.c_str());
    }
  }
  return next_.run(command);
}

}  // namespace Waymark
