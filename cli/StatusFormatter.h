// Turns waymarkd's JSON status into the aligned tables an operator reads at
// a glance: policies (policy, family, chain, interfaces, class -> nexthop,
// "passthrough" or "unresolved"), nexthops (address, refs, mark, table,
// priority, state with the reason it is not programmed, health with loss and
// round trip), counters and each class's traffic.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace Waymark {

class StatusFormatter {
 public:
  static std::string policies(const nlohmann::json& status);
  static std::string nexthops(const nlohmann::json& status);
  // A nexthop's health check at a glance: verdict, loss, round trip
  // ("up", "5%", "0.3ms"), or "-" for each when it has none.
  static std::vector<std::string> health(const nlohmann::json& nexthop);
  static std::string counters(const nlohmann::json& status);
  // Each class's traffic: the "classes" of a counters reply.
  static std::string classTraffic(const nlohmann::json& reply);
  static std::string all(const nlohmann::json& status);
};

}  // namespace Waymark
