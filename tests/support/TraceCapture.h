// Captures every trace record of a test, at every level, and gives the trace
// sink back when the test ends.
#pragma once

#include <string>
#include <vector>

#include "framework/Trace.h"

namespace waymark::test {

struct CapturedTrace {
  int level;
  std::string function;
  std::string file;
  int line;
  std::string text;
};

class TraceCapture : public Vix::TraceSink {
 public:
  explicit TraceCapture(int maxLevel = 9)
      : previousSink_(Vix::Trace::sink()), previousLevel_(Vix::Trace::maxLevel()) {
    Vix::Trace::sinkIs(this, maxLevel);
  }
  ~TraceCapture() override { Vix::Trace::sinkIs(previousSink_, previousLevel_); }

  void write(const Vix::TraceRecord& r) override {
    records_.push_back({r.level, std::string(r.function), std::string(r.file), r.line, r.text});
  }

  const std::vector<CapturedTrace>& records() const { return records_; }
  // The texts of the records at `level`, in order.
  std::vector<std::string> texts(int level) const {
    std::vector<std::string> out;
    for (const auto& r : records_) {
      if (r.level == level) out.push_back(r.text);
    }
    return out;
  }
  void clear() { records_.clear(); }

 private:
  Vix::TraceSink* previousSink_;
  int previousLevel_;
  std::vector<CapturedTrace> records_;
};

}  // namespace waymark::test
