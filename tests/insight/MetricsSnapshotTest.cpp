// The metrics as Prometheus text, from a status and the classes' traffic.
#include "insight/MetricsSnapshot.h"

#include <gtest/gtest.h>

#include <string>

namespace Waymark {
namespace {

const nlohmann::json kStatus = nlohmann::json::parse(R"({
  "idle": true, "uptime": 12.5,
  "nexthops": [
    {"address": "192.0.2.1", "programmed": true, "withoutSubnet": false, "withoutResources": false},
    {"address": "2001:db8::9", "programmed": false, "withoutSubnet": true, "withoutResources": false}],
  "queues": {"ipv4": 3, "ipv6": 0, "nexthopsPending": 1},
  "counters": {"nexthops": {"totalProgrammingTime": 0.25},
               "ipv4": {"batchesWritten": 7, "batchesFailed": 2, "totalProgrammingTime": 0.5}},
  "daemon": {"reloads": 4, "reloadsFailed": 1}})");

const nlohmann::json kTraffic = nlohmann::json::parse(R"({"classes": [
  {"policy": "edge", "family": "ipv4", "class": "web", "packets": 15, "bytes": 1700}]})");

TEST(MetricsSnapshotTest, TheTextCarriesEveryMetricByItsName) {
  const std::string text = MetricsSnapshot::text(MetricsSnapshot::build(kStatus, kTraffic));
  for (const char* line : {
           "waymark_class_packets_total{policy=\"edge\",family=\"ipv4\",class=\"web\"} 15",
           "waymark_class_bytes_total{policy=\"edge\",family=\"ipv4\",class=\"web\"} 1700",
           "waymark_nexthop_up{nexthop=\"192.0.2.1\"} 1",
           "waymark_nexthop_up{nexthop=\"2001:db8::9\"} 0",
           "waymark_nexthop_programmed{nexthop=\"192.0.2.1\"} 1",
           "waymark_rule_queue_length{family=\"ipv4\"} 3",
           "waymark_iptables_batches_total{family=\"ipv4\",outcome=\"written\"} 5",
           "waymark_iptables_batches_total{family=\"ipv4\",outcome=\"failed\"} 2",
           "waymark_nexthops_pending 1",
           "waymark_nexthop_programming_seconds_total 0.25",
           "waymark_reloads_failed_total 1",
           "waymark_idle 1",
           "# TYPE waymark_class_packets_total counter",
           "# TYPE waymark_nexthop_up gauge",
       }) {
    EXPECT_NE(text.find(std::string(line) + "\n"), std::string::npos) << line << "\n" << text;
  }
}

TEST(MetricsSnapshotTest, ReadersGetTheLastPublishedSetWhole) {
  MetricsSnapshot snapshot;
  EXPECT_TRUE(snapshot.Collect().empty());
  snapshot.publish(MetricsSnapshot::build(kStatus, kTraffic));
  const auto first = snapshot.Collect();
  snapshot.publish(MetricsSnapshot::build(kStatus, nlohmann::json::object()));
  EXPECT_EQ(first.front().metric.size(), 1u);
  EXPECT_TRUE(snapshot.Collect().front().metric.empty());
}

}  // namespace
}  // namespace Waymark
