// The events kept for `waymarkctl events`.
#include "insight/EventLog.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace Waymark {
namespace {

TEST(EventLogTest, KeepsTheLatestOldestFirstAndLogsEach) {
  std::vector<std::string> logged;
  EventLog log([&logged](const std::string& line) { logged.push_back(line); });
  for (size_t i = 0; i < EventLog::kKept + 2; ++i) {
    log.add(static_cast<double>(i), "reload", "event " + std::to_string(i));
  }
  const auto events = log.toJson()["events"];
  ASSERT_EQ(events.size(), EventLog::kKept);
  EXPECT_EQ(events.front()["text"], "event 2");
  EXPECT_EQ(events.front()["uptime"], 2.0);
  EXPECT_EQ(events.back()["kind"], "reload");
  EXPECT_EQ(events.back()["time"].get<std::string>().size(), 20u);  // 2026-11-25T17:00:00Z
  EXPECT_EQ(logged.size(), EventLog::kKept + 2);
}

}  // namespace
}  // namespace Waymark
