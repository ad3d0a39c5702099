// Waymark::MetricsSnapshot: waymarkd's metrics in Prometheus form. The event
// loop builds the metric families from a status and the classes' traffic
// (build) and publishes them; the HTTP exposer's threads read the latest
// published set (Collect). Publishing and reading take one mutex, so the
// exposer never sees a set half written and never calls into the router.
// `waymarkctl metrics` gets the same families as text (text()).
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <prometheus/collectable.h>
#include <prometheus/metric_family.h>
#include <nlohmann/json.hpp>

namespace Waymark {

class MetricsSnapshot : public prometheus::Collectable {
 public:
  // The families of a status and of a counters reply ("classes").
  static std::vector<prometheus::MetricFamily> build(const nlohmann::json& status,
                                                     const nlohmann::json& traffic);
  // The Prometheus text exposition of `families`.
  static std::string text(const std::vector<prometheus::MetricFamily>& families);

  void publish(std::vector<prometheus::MetricFamily> families);
  std::vector<prometheus::MetricFamily> Collect() const override;

 private:
  mutable std::mutex mutex_;
  std::vector<prometheus::MetricFamily> families_;
};

}  // namespace Waymark
