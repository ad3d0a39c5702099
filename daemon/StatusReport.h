// The status of a running waymarkd as JSON: policies (per family: chain,
// interfaces, classes with their nexthop or passthrough), nexthops (refs,
// mark, table, priority, programmed, and why not), the queues, every counter
// and programming time, and whether all kernel work is done (idle). The
// reasons a nexthop is not programmed are defined here, once.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "plugin/AclPlugin.h"

namespace Waymark {

namespace Reason {
inline constexpr const char* kProgrammed = "programmed";
inline constexpr const char* kOutsideSubnets = "outside every connected subnet";
inline constexpr const char* kNoResources = "no free resources";
inline constexpr const char* kKernelRefused = "kernel refused";
inline constexpr const char* kPending = "pending";
inline constexpr const char* kReleasing = "unreferenced, being released";
}  // namespace Reason

class StatusReport {
 public:
  static nlohmann::json build(const Pbr::AclPlugin& plugin);
  // True when no nexthop work is pending and both rule queues are empty.
  static bool idle(const Pbr::AclPlugin& plugin);
  // Why `addr` is in the state it is in (one of the Reason texts).
  static std::string nexthopState(const Pbr::NexthopTableManager& manager,
                                  const Velnet::IpGenAddr& addr);
};

}  // namespace Waymark
