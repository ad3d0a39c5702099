#include "insight/EventLog.h"

#include <ctime>

namespace Waymark {

void EventLog::add(double uptime, const std::string& kind, const std::string& text) {
  char when[32] = "";
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  gmtime_r(&now, &utc);
  std::strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%SZ", &utc);
  events_.push_back({uptime, when, kind, text});
  if (events_.size() > kKept) events_.pop_front();
  if (log_) log_(text);
}

nlohmann::json EventLog::toJson() const {
  nlohmann::json out = nlohmann::json::array();
  for (const auto& e : events_) {
    out.push_back({{"time", e.time}, {"uptime", e.uptime}, {"kind", e.kind}, {"text", e.text}});
  }
  return {{"events", out}};
}

}  // namespace Waymark
