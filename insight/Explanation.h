// Waymark::Explanation: the answer to `waymarkctl explain`: the packet a
// request describes, and the policy, class, rule and nexthop that take it,
// as the applied configuration and the plug-in say. The router adds the
// kernel's own route lookup for the mark found here.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "config/ConfigModel.h"
#include "insight/PacketMatcher.h"
#include "insight/StatusReport.h"
#include "plugin/AclPlugin.h"

namespace Waymark {

class Explanation {
 public:
  // What the answer needs of the router besides the configuration.
  struct Context {
    const Pbr::AclPlugin& plugin;
    StatusReport::Unrecorded unrecorded;
    // Whether the nexthop's health check has withdrawn it.
    std::function<bool(const Velnet::IpGenAddr&)> downByHealth;
  };

  // The packet `request` describes; `error` set when it is not one.
  static std::optional<Packet> packetOf(const nlohmann::json& request, std::string* error);
  // The answer, without "kernelRoute"; `mark` gets the mark the packet is
  // given (0 when none).
  static nlohmann::json of(const ConfigModel& applied, const Packet& packet, const Context& context,
                           uint32_t* mark);
};

}  // namespace Waymark
