#include "policymap/PolicyMapTypeConfig.h"

#include <algorithm>

namespace PolicyMap {

Vix::Ptr<PolicyMapConfig> PolicyMapTypeConfig::policyMap(const std::string& name) const {
  for (const auto& p : policyMaps_) {
    if (p->name() == name) return p;
  }
  return nullptr;
}

void PolicyMapTypeConfig::policyMapIs(const Vix::Ptr<PolicyMapConfig>& policy) {
  const auto it = std::find_if(policyMaps_.begin(), policyMaps_.end(),
                               [&](const auto& p) { return p->name() == policy->name(); });
  if (it != policyMaps_.end()) {
    if (*it == policy) return;
    *it = policy;
  } else {
    policyMaps_.push_back(policy);
  }
  notify<NotifieeConst>([&](NotifieeConst& n) { n.onPolicyMap(policy->name()); });
}

void PolicyMapTypeConfig::policyMapDel(const std::string& name) {
  const auto it = std::find_if(policyMaps_.begin(), policyMaps_.end(),
                               [&](const auto& p) { return p->name() == name; });
  if (it == policyMaps_.end()) return;
  policyMaps_.erase(it);
  notify<NotifieeConst>([&](NotifieeConst& n) { n.onPolicyMap(name); });
}

void PolicyMapTypeConfig::intfIs(const Velnet::IntfId& i, const std::string& policy) {
  auto [it, inserted] = intfs_.try_emplace(i, policy);
  if (!inserted) {
    if (it->second == policy) return;
    it->second = policy;
  }
  notify<NotifieeConst>([&](NotifieeConst& n) { n.onIntf(i); });
}

void PolicyMapTypeConfig::intfDel(const Velnet::IntfId& i) {
  if (intfs_.erase(i) == 0) return;
  notify<NotifieeConst>([&](NotifieeConst& n) { n.onIntf(i); });
}

}  // namespace PolicyMap
