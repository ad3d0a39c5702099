// PolicyMap::GlobalCommonData: what every state machine of the policy
// framework shares: the configuration it walks, the status it writes and the
// hardware helper it drives.
#pragma once

#include "framework/Entity.h"
#include "framework/Ptr.h"
#include "policymap/AclConfig.h"
#include "policymap/PolicyMapAclHelper.h"
#include "policymap/PolicyMapTypeConfig.h"
#include "policymap/PolicyMapTypeStatus.h"

namespace PolicyMap {

struct GlobalCommonData : public Vix::Entity {
  Vix::Ptr<const PolicyMapTypeConfig> policyMapTypeConfig;
  Vix::Ptr<const ClassMapTypeConfig> classMapTypeConfig;
  Vix::Ptr<PolicyMapTypeStatus> policyMapTypeStatus;
  Vix::Ptr<const Acl::Config> aclConfig;
  Vix::Ptr<PolicyMapAclHelper> aclHelper;
};

}  // namespace PolicyMap
