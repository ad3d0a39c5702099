#include "config/ConfigGate.h"

#include <set>

namespace Waymark {

void ConfigGate::prepare(const ConfigModel& model) {
  ConfigModel withoutPolicies = model;
  withoutPolicies.policyMaps.clear();
  withoutPolicies.interfaces.clear();
  applier_.apply(withoutPolicies);
}

std::vector<Velnet::IpGenAddr> ConfigGate::nexthopsNamed(const ConfigModel& model) {
  std::vector<Velnet::IpGenAddr> out;
  std::set<Velnet::IpGenAddr> seen;
  for (const auto& [name, classes] : model.policyMaps) {
    for (const auto& c : classes) {
      for (const auto& addr : c.nexthops) {
        if (seen.insert(addr).second) out.push_back(addr);
      }
    }
  }
  return out;
}

void ConfigGate::begin(const Vix::Ptr<Pbr::NexthopTableManager>& manager,
                       const ConfigModel& model) {
  nexthops_ = nexthopsNamed(model);
  manager_ = manager;
  for (const auto& addr : nexthops_) manager_->nexthopInc(addr, 1);
  applyRequested_ = true;
}

std::set<Velnet::IpGenAddr> ConfigGate::checkedNexthops(const ConfigModel& model) {
  std::set<Velnet::IpGenAddr> out;
  for (const auto& addr : nexthopsNamed(model)) {
    if (model.healthChecks.count(addr) != 0) out.insert(addr);
  }
  return out;
}

void ConfigGate::applyWhenQuiet(const ConfigModel& model,
                                const std::set<Velnet::IpGenAddr>& withdrawn) {
  if (!applyRequested_ || !manager_) return;
  const bool quiet =
      manager_->pendingNexthops().empty() || manager_->nexthopProgrammingTimeLimit() == 0.0;
  if (!quiet) return;
  applyRequested_ = false;
  started_ = true;
  // Taken before the classes let go and released after they take theirs,
  // so that no count drops to nothing in between.
  const std::set<Velnet::IpGenAddr> held = checkedNexthops(model);
  for (const auto& addr : held) {
    if (held_.count(addr) == 0) manager_->nexthopInc(addr, 1);
  }
  applier_.apply(model, withdrawn);
  for (const auto& addr : held_) {
    if (held.count(addr) == 0) manager_->nexthopInc(addr, 0xffffffffu);
  }
  held_ = held;
  for (const auto& addr : nexthops_) manager_->nexthopInc(addr, 0xffffffffu);
  nexthops_.clear();
}

}  // namespace Waymark
