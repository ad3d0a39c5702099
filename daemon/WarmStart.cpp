#include "daemon/WarmStart.h"

#include <set>

namespace Waymark {

void WarmStart::prepare(const ConfigModel& model) {
  ConfigModel withoutPolicies = model;
  withoutPolicies.policyMaps.clear();
  withoutPolicies.interfaces.clear();
  applier_.apply(withoutPolicies);
}

void WarmStart::begin(const Vix::Ptr<Pbr::NexthopTableManager>& manager, const ConfigModel& model) {
  std::set<Velnet::IpGenAddr> seen;
  for (const auto& [name, classes] : model.policyMaps) {
    for (const auto& c : classes) {
      for (const auto& addr : c.nexthops) {
        if (seen.insert(addr).second) nexthops_.push_back(addr);
      }
    }
  }
  manager_ = manager;
  for (const auto& addr : nexthops_) manager_->nexthopInc(addr, 1);
}

void WarmStart::finish(const ConfigModel& model, bool now) {
  if (!warming()) return;
  // With programming switched off the nexthops would never come up, and the
  // policies must not wait for them.
  const bool ready =
      manager_->pendingNexthops().empty() || manager_->nexthopProgrammingTimeLimit() == 0.0;
  if (!now && !ready) return;
  applier_.apply(model);
  for (const auto& addr : nexthops_) manager_->nexthopInc(addr, 0xffffffffu);
  nexthops_.clear();
  manager_ = nullptr;
}

}  // namespace Waymark
