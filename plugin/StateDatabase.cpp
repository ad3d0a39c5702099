#include "plugin/StateDatabase.h"

#include "framework/String.h"
#include "platform/Cell.h"
#include "platform/PlatformEntities.h"

namespace Pbr {

void fillStateDatabase(Stordb::EntityManager& store, const MountedEntities& e) {
  store.entityIs("pbr/config", "Pbr::Config", e.pbrConfig);
  store.entityIs("pbr/statusRequest", "PolicyMap::PolicyMapStatusRequestDir",
                 Vix::make<PolicyMap::PolicyMapStatusRequestDir>());
  store.entityIs(Vix::format("cell/%d/pbr/status/iptables", static_cast<int>(Cell::cellId())),
                 "PolicyMap::PolicyMapTypeStatus", e.status);
  store.entityIs("acl/config", "Acl::Config", e.aclConfig);
  store.entityIs("lag/input/config/cli", "Lag::Input::Config", Vix::make<Lag::Input::Config>());
  store.entityIs("ip/status", "Ip::Status", e.ipStatus);
  store.entityIs("ip6/status", "Ip6::Status", e.ip6Status);
  store.entityIs("routing/routingInfo/status", "Routing::RoutingInfo",
                 Vix::make<Routing::RoutingInfo>());
  store.entityIs("routing6/routingInfo/status", "Routing6::RoutingInfo",
                 Vix::make<Routing6::RoutingInfo>());
}

}  // namespace Pbr
