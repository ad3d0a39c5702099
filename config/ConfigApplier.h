// Applies a configuration to the mounted configuration entities as a
// difference from the one applied before, so that only what changed
// notifies, and only what changed is reprogrammed: an unchanged policy is not
// touched in the kernel; a changed nexthop list only rewrites its class.
//
// New and changed access lists and class maps go in before the policies that
// use them, policies before the interfaces that apply them; removals go the
// other way round.
//
// Withdrawn nexthops (down by their health checks) are left out of every
// class's list, so that the class selects among the others exactly as if the
// file had left them out; a change of what is withdrawn rewrites the
// policies whose classes name those nexthops.
#pragma once

#include <set>

#include "config/ConfigModel.h"
#include "framework/Ptr.h"
#include "policymap/AclConfig.h"
#include "policymap/PolicyMapTypeConfig.h"

namespace Waymark {

class ConfigApplier {
 public:
  ConfigApplier(const Vix::Ptr<Pbr::Config>& pbrConfig, const Vix::Ptr<Acl::Config>& aclConfig)
      : pbrConfig_(pbrConfig), aclConfig_(aclConfig) {}

  // Makes the entities say what `model` says, without `withdrawn`.
  void apply(const ConfigModel& model, const std::set<Velnet::IpGenAddr>& withdrawn = {});
  const ConfigModel& applied() const { return applied_; }
  // How many times apply() ran.
  uint32_t applications() const { return applications_; }

 private:
  const Vix::Ptr<Pbr::Config> pbrConfig_;
  const Vix::Ptr<Acl::Config> aclConfig_;
  ConfigModel applied_;
  std::set<Velnet::IpGenAddr> withdrawn_;
  uint32_t applications_ = 0;
};

}  // namespace Waymark
