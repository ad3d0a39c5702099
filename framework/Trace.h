// The trace facility: one sink per process, numbered levels.
//
// Each record carries its level, the function, a file name and the line, and
// a text composed in a string stream with 12 significant digits. Levels in
// use: 4 commands run and a class's choice of nexthop, 6 subnet changes, 8 the
// entry of every handler and operation, 9 the detail of the nexthop
// programming loop. The text is only composed when the sink wants the level,
// so level-8 and level-9 traces cost a comparison in production.
#pragma once

#include <sstream>
#include <string>
#include <string_view>

namespace Vix {

struct TraceRecord {
  int level;
  std::string_view function;
  std::string_view file;
  int line;
  std::string text;
};

class TraceSink {
 public:
  virtual ~TraceSink() = default;
  virtual void write(const TraceRecord& record) = 0;
};

class Trace {
 public:
  // Records at or below `maxLevel` go to `sink`; a null sink discards all.
  // REQUIRES: `sink` outlives its installation.
  static void sinkIs(TraceSink* sink, int maxLevel);
  static TraceSink* sink() { return sink_; }
  static int maxLevel() { return maxLevel_; }
  static bool enabled(int level) { return level <= maxLevel_; }
  static void write(int level, std::string_view function, std::string_view file, int line,
                    std::string text);
  // A stream set up the way every trace text is composed.
  static std::ostringstream stream();

 private:
  static TraceSink* sink_;
  static int maxLevel_;
};

// The file name that every trace of the routing logic carries.
inline constexpr std::string_view kTraceFile = "PbrAclPlugin";

}  // namespace Vix

// Traces `expr`, a chain of stream insertions, at `level`.
#define VIX_TRACE(level, expr)                                            \
  do {                                                                    \
    if (::Vix::Trace::enabled(level)) {                                   \
      std::ostringstream vixTraceStream_ = ::Vix::Trace::stream();        \
      vixTraceStream_ << expr;                                            \
      ::Vix::Trace::write((level), __func__, ::Vix::kTraceFile, __LINE__, \
                          std::move(vixTraceStream_).str());              \
    }                                                                     \
  } while (0)
