// The status of a running waymarkd as JSON: policies (per family: chain,
// interfaces, classes with their nexthop or passthrough), nexthops (refs,
// mark, table, priority, programmed, and why not), the queues, every counter
// and programming time, and whether all kernel work is done (idle). The
// reasons a nexthop is not programmed are defined here, once.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <string>

#include "plugin/AclPlugin.h"

namespace Waymark {

namespace Reason {
inline constexpr const char* kProgrammed = "programmed";
inline constexpr const char* kOutsideSubnets = "outside every connected subnet";
inline constexpr const char* kNoResources = "no free resources";
inline constexpr const char* kKernelRefused = "kernel refused";
inline constexpr const char* kNotRecorded = "not recorded: the state journal cannot be written";
inline constexpr const char* kPending = "pending";
inline constexpr const char* kReleasing = "unreferenced, being released";
}  // namespace Reason

class StatusReport {
 public:
  // Whether a nexthop's addition was refused because it could not be
  // recorded (none, when not given).
  using Unrecorded = std::function<bool(const Velnet::IpGenAddr&)>;

  static nlohmann::json build(const Pbr::AclPlugin& plugin, const Unrecorded& unrecorded = {});
  // True when no nexthop work is pending and both rule queues are empty.
  static bool idle(const Pbr::AclPlugin& plugin);
  // Why `addr` is in the state it is in (one of the Reason texts).
  static std::string nexthopState(const Pbr::NexthopTableManager& manager,
                                  const Velnet::IpGenAddr& addr, const Unrecorded& unrecorded = {});
};

}  // namespace Waymark
