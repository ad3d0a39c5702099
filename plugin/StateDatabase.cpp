#include "plugin/StateDatabase.h"

#include "plugin/AclPlugin.h"
#include "policymap/PlatformEntities.h"

namespace Pbr {

namespace {

// The entity the agent serves for a mount of `type`: one it is handed, or a
// new one of the kinds the plug-in mounts but does not read.
Vix::Ptr<Vix::Entity> entityOf(const std::string& type, const MountedEntities& e) {
  if (type == "Pbr::Config") return e.pbrConfig;
  if (type == "PolicyMap::PolicyMapTypeStatus") return e.status;
  if (type == "Acl::Config") return e.aclConfig;
  if (type == "Ip::Status") return e.ipStatus;
  if (type == "Ip6::Status") return e.ip6Status;
  if (type == "PolicyMap::PolicyMapStatusRequestDir") {
    return Vix::make<PolicyMap::PolicyMapStatusRequestDir>();
  }
  if (type == "Lag::Input::Config") return Vix::make<Lag::Input::Config>();
  if (type == "Routing::RoutingInfo") return Vix::make<Routing::RoutingInfo>();
  return Vix::make<Routing6::RoutingInfo>();
}

}  // namespace

void fillStateDatabase(Stordb::EntityManager& store, const MountedEntities& e) {
  for (const auto& mount : AclPlugin::mounts()) {
    store.entityIs(mount.path, mount.type, entityOf(mount.type, e));
  }
}

}  // namespace Pbr
