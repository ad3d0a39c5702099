// Waymark::ConfigFile: reads a configuration file only once it is whole, for
// the loader (start, reload, --check). A regular file is read once it has
// stopped changing: not changed for kQuietSeconds, and the same (inode,
// size, times) before and after the read; it is waited for at most
// kStableWithinSeconds, then refused. An editor rewriting it in place, or a
// copy on its way, is never read half. A pipe is read until its writer
// closes it, waited for as long as the caller says. Nothing larger than
// kMaxBytes is read.
#pragma once

#include <cstddef>
#include <string>

namespace Waymark {

class ConfigFile {
 public:
  static constexpr double kQuietSeconds = 0.25;
  static constexpr double kStableWithinSeconds = 5.0;
  static constexpr size_t kMaxBytes = size_t{256} << 20;

  // The file's text once it is whole; ConfigError when it cannot be read,
  // is too large, or is not whole in time. `pipePatience` is how long a
  // pipe's writer may take (kNever: as long as it takes). REQUIRES: not on
  // the event loop (it may wait).
  static std::string read(const std::string& path, double pipePatience = kStableWithinSeconds);
};

}  // namespace Waymark
