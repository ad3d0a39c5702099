// Mounted entities the plug-in is handed but whose contents it does not read:
// LAG membership (interfaces are Linux devices already, bonds included) and
// the routing information of both families.
#pragma once

#include "framework/Entity.h"

namespace Lag::Input {
class Config : public Vix::Entity {};
}  // namespace Lag::Input

namespace Routing {
class RoutingInfo : public Vix::Entity {};
}  // namespace Routing

namespace Routing6 {
class RoutingInfo : public Vix::Entity {};
}  // namespace Routing6
