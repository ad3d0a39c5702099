#include "insight/MetricsSnapshot.h"

#include <sstream>
#include <utility>

#include <prometheus/text_serializer.h>

namespace Waymark {

namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

double number(const nlohmann::json& v) { return v.is_number() ? v.get<double>() : 0.0; }

ClientMetric sample(MetricType type, double value, std::vector<ClientMetric::Label> labels = {}) {
  ClientMetric m;
  m.label = std::move(labels);
  if (type == MetricType::Counter) {
    m.counter.value = value;
  } else {
    m.gauge.value = value;
  }
  return m;
}

MetricFamily family(std::string name, std::string help, MetricType type) {
  return MetricFamily{std::move(name), std::move(help), type, {}};
}

// One unlabelled sample.
MetricFamily single(std::string name, std::string help, MetricType type, double value) {
  auto f = family(std::move(name), std::move(help), type);
  f.metric.push_back(sample(type, value));
  return f;
}

using Families = std::vector<MetricFamily>;

void addClassTraffic(const nlohmann::json& traffic, Families& out) {
  auto packets =
      family("waymark_class_packets_total",
             "Packets each class took, from the kernel's rule counters", MetricType::Counter);
  auto bytes =
      family("waymark_class_bytes_total", "Bytes each class took, from the kernel's rule counters",
             MetricType::Counter);
  for (const auto& c : traffic.value("classes", nlohmann::json::array())) {
    const std::vector<ClientMetric::Label> labels = {{"policy", c.value("policy", "")},
                                                     {"family", c.value("family", "")},
                                                     {"class", c.value("class", "")}};
    packets.metric.push_back(sample(MetricType::Counter, number(c["packets"]), labels));
    bytes.metric.push_back(sample(MetricType::Counter, number(c["bytes"]), labels));
  }
  out.push_back(std::move(packets));
  out.push_back(std::move(bytes));
}

void addNexthops(const nlohmann::json& status, Families& out) {
  auto up = family("waymark_nexthop_up",
                   "1 while the nexthop is usable: inside a connected subnet, with resources, "
                   "not down by its health check",
                   MetricType::Gauge);
  auto programmed =
      family("waymark_nexthop_programmed", "1 while the nexthop's rule and route are in the kernel",
             MetricType::Gauge);
  auto loss = family("waymark_nexthop_probe_loss_ratio",
                     "Health-check rounds unanswered among the last 20", MetricType::Gauge);
  auto rtt = family("waymark_nexthop_rtt_seconds", "Round trip of the latest health-check answer",
                    MetricType::Gauge);
  for (const auto& n : status.value("nexthops", nlohmann::json::array())) {
    const std::vector<ClientMetric::Label> labels = {{"nexthop", n.value("address", "")}};
    const bool isUp = !n.value("withoutSubnet", false) && !n.value("withoutResources", false) &&
                      n.value("health", "") != "down";
    up.metric.push_back(sample(MetricType::Gauge, isUp ? 1 : 0, labels));
    programmed.metric.push_back(
        sample(MetricType::Gauge, n.value("programmed", false) ? 1 : 0, labels));
    const auto check = n.value("healthCheck", nlohmann::json());
    if (!check.is_object()) continue;
    loss.metric.push_back(sample(MetricType::Gauge, number(check["lossPercent"]) / 100.0, labels));
    if (!check["rttMs"].is_null()) {
      rtt.metric.push_back(sample(MetricType::Gauge, number(check["rttMs"]) / 1000.0, labels));
    }
  }
  out.push_back(std::move(up));
  out.push_back(std::move(programmed));
  out.push_back(std::move(loss));
  out.push_back(std::move(rtt));
}

void addRuleQueues(const nlohmann::json& status, Families& out) {
  const auto& queues = status.value("queues", nlohmann::json::object());
  const auto& counters = status.value("counters", nlohmann::json::object());
  auto queue = family("waymark_rule_queue_length", "Rule-queue elements waiting to be written",
                      MetricType::Gauge);
  auto ruleTime = family("waymark_rule_programming_seconds_total",
                         "Time spent writing each family's rules", MetricType::Counter);
  auto batches = family("waymark_iptables_batches_total",
                        "iptables-restore batches written, by outcome", MetricType::Counter);
  for (const char* f : {"ipv4", "ipv6"}) {
    queue.metric.push_back(
        sample(MetricType::Gauge, number(queues.value(f, nlohmann::json())), {{"family", f}}));
    const auto& c = counters.value(f, nlohmann::json::object());
    ruleTime.metric.push_back(sample(MetricType::Counter,
                                     number(c.value("totalProgrammingTime", nlohmann::json())),
                                     {{"family", f}}));
    const double failed = number(c.value("batchesFailed", nlohmann::json()));
    batches.metric.push_back(sample(MetricType::Counter,
                                    number(c.value("batchesWritten", nlohmann::json())) - failed,
                                    {{"family", f}, {"outcome", "written"}}));
    batches.metric.push_back(
        sample(MetricType::Counter, failed, {{"family", f}, {"outcome", "failed"}}));
  }
  out.push_back(std::move(queue));
  out.push_back(std::move(ruleTime));
  out.push_back(std::move(batches));
}

void addDaemon(const nlohmann::json& status, Families& out) {
  const auto& queues = status.value("queues", nlohmann::json::object());
  const auto& counters = status.value("counters", nlohmann::json::object());
  const auto& nexthops = counters.value("nexthops", nlohmann::json::object());
  const auto& daemon = status.value("daemon", nlohmann::json::object());
  out.push_back(single("waymark_nexthops_pending", "Nexthop operations waiting for the loop",
                       MetricType::Gauge,
                       number(queues.value("nexthopsPending", nlohmann::json()))));
  out.push_back(single("waymark_nexthop_programming_seconds_total",
                       "Time the nexthop loop spent programming", MetricType::Counter,
                       number(nexthops.value("totalProgrammingTime", nlohmann::json()))));
  out.push_back(single("waymark_reloads_total", "Reloads asked for", MetricType::Counter,
                       number(daemon.value("reloads", nlohmann::json()))));
  out.push_back(single("waymark_reloads_failed_total", "Reloads refused", MetricType::Counter,
                       number(daemon.value("reloadsFailed", nlohmann::json()))));
  out.push_back(single("waymark_drift_detected_total",
                       "Changes to waymark's rules, routes or chains made from outside",
                       MetricType::Counter,
                       number(daemon.value("driftDetected", nlohmann::json()))));
  out.push_back(single("waymark_drift_repairs_total",
                       "Kernel drift repaired (rules and routes put back, mangle tables rebuilt)",
                       MetricType::Counter,
                       number(daemon.value("driftRepairs", nlohmann::json()))));
  out.push_back(single("waymark_idle", "1 when no kernel work is pending", MetricType::Gauge,
                       status.value("idle", false) ? 1 : 0));
  const auto& journal = status.value("journal", nlohmann::json::object());
  out.push_back(
      single("waymark_journal_problems",
             "Records of the state file the daemon would not trust at start (damaged, "
             "or numbers waymark never hands out)",
             MetricType::Gauge,
             static_cast<double>(journal.value("problems", nlohmann::json::array()).size())));
  out.push_back(single("waymark_journal_write_failing",
                       "1 while the state journal cannot be written (additions are refused)",
                       MetricType::Gauge, journal.value("error", "").empty() ? 0 : 1));
  out.push_back(single("waymark_longest_loop_turn_seconds",
                       "The longest pass of the event loop since the start: how long a netlink "
                       "event, a timer or a control request may have waited",
                       MetricType::Gauge,
                       number(daemon.value("longestLoopTurn", nlohmann::json()))));
  out.push_back(single("waymark_uptime_seconds", "Seconds since the daemon started",
                       MetricType::Gauge, number(status.value("uptime", nlohmann::json()))));
}

}  // namespace

std::vector<MetricFamily> MetricsSnapshot::build(const nlohmann::json& status,
                                                 const nlohmann::json& traffic) {
  Families out;
  addClassTraffic(traffic, out);
  addNexthops(status, out);
  addRuleQueues(status, out);
  addDaemon(status, out);
  return out;
}

std::string MetricsSnapshot::text(const std::vector<MetricFamily>& families) {
  std::ostringstream out;
  prometheus::TextSerializer().Serialize(out, families);
  return out.str();
}

void MetricsSnapshot::publish(std::vector<MetricFamily> families) {
  const std::lock_guard<std::mutex> lock(mutex_);
  families_ = std::move(families);
}

std::vector<MetricFamily> MetricsSnapshot::Collect() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return families_;
}

}  // namespace Waymark
