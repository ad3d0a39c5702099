#include "framework/Trace.h"

#include <utility>

namespace Vix {

TraceSink* Trace::sink_ = nullptr;
int Trace::maxLevel_ = -1;

void Trace::sinkIs(TraceSink* sink, int maxLevel) {
  sink_ = sink;
  maxLevel_ = sink != nullptr ? maxLevel : -1;
}

void Trace::write(int level, std::string_view function, std::string_view file, int line,
                  std::string text) {
  if (sink_ == nullptr || level > maxLevel_) return;
  sink_->write(TraceRecord{level, function, file, line, std::move(text)});
}

std::ostringstream Trace::stream() {
  std::ostringstream os;
  os.precision(12);
  return os;
}

}  // namespace Vix
