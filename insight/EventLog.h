// Waymark::EventLog: the latest state changes (nexthops programmed and
// withdrawn, health verdicts, reloads, drift, warnings), each with its
// uptime and wall-clock time, for `waymarkctl events`; each also goes to
// the log. The router records; the control request reads.
#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <string>

#include <nlohmann/json.hpp>

namespace Waymark {

class EventLog {
 public:
  using Log = std::function<void(const std::string&)>;
  static constexpr size_t kKept = 256;

  explicit EventLog(Log log) : log_(std::move(log)) {}

  void add(double uptime, const std::string& kind, const std::string& text);
  // {"events": [{time, uptime, kind, text}]}, oldest first.
  nlohmann::json toJson() const;

 private:
  struct Event {
    double uptime;
    std::string time;  // wall clock, ISO 8601 UTC
    std::string kind;
    std::string text;
  };
  std::deque<Event> events_;
  const Log log_;
};

}  // namespace Waymark
