// Waymark::ConnectedLinks: what the interface status entities say of the
// router's connected subnets: each interface's addresses (for the status),
// and the interface whose subnet holds a nexthop, with the interface's
// address in it (health checks probe from it; status names it; drift repair
// puts back only a nexthop whose link holds it).
#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include "net/IpGenAddr.h"
#include "policymap/Ip6Status.h"
#include "policymap/IpStatus.h"

namespace Waymark {

class ConnectedLinks {
 public:
  struct Link {
    std::string interface;  // "" when no interface holds the nexthop
    Velnet::IpGenAddr source;
  };

  // Each interface's addresses: IPv4 primary first, then secondaries, then
  // IPv6.
  static nlohmann::json addresses(const Ip::Status& v4, const Ip6::Status& v6);
  // The interface whose connected subnet holds `nexthop` (the longest).
  static Link linkOf(const Ip::Status& v4, const Ip6::Status& v6, const Velnet::IpGenAddr& nexthop);
};

}  // namespace Waymark
