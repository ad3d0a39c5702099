// Fills a state database with the nine entities the plug-in mounts, the way
// the agent serves them: the configuration, the status it writes, the
// interface status and the entities it is handed but does not read.
#pragma once

#include "framework/Ptr.h"
#include "policymap/AclConfig.h"
#include "policymap/Ip6Status.h"
#include "policymap/IpStatus.h"
#include "policymap/PolicyMapTypeConfig.h"
#include "policymap/PolicyMapTypeStatus.h"
#include "policymap/Stordb.h"

namespace Pbr {

struct MountedEntities {
  Vix::Ptr<Pbr::Config> pbrConfig;
  Vix::Ptr<PolicyMap::PolicyMapTypeStatus> status;
  Vix::Ptr<Acl::Config> aclConfig;
  Vix::Ptr<Ip::Status> ipStatus;
  Vix::Ptr<Ip6::Status> ip6Status;
};

// Stores `entities` and the others under the plug-in's mount paths (the
// status path for the current cell id).
void fillStateDatabase(Stordb::EntityManager& store, const MountedEntities& entities);

}  // namespace Pbr
