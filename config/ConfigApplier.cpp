#include "config/ConfigApplier.h"

#include <algorithm>
#include <iterator>

namespace Waymark {

namespace {

Vix::Ptr<Acl::AccessList> accessList(const std::string& name, const AccessListSpec& entry) {
  auto list = Vix::make<Acl::AccessList>(name, entry.ipv6);
  list->rulesIs({entry.rules.begin(), entry.rules.end()});
  return list;
}

Vix::Ptr<PolicyMap::PolicyMapConfig> policyMap(const std::string& name,
                                               const std::vector<PolicyClassSpec>& classes,
                                               const std::set<Velnet::IpGenAddr>& withdrawn) {
  std::vector<Vix::Ptr<PolicyMap::ClassMapConfig>> configs;
  for (const auto& c : classes) {
    // A named group reaches the plug-in as its list: the loader resolved it.
    std::vector<Velnet::IpGenAddr> nexthops;
    for (const auto& n : c.nexthops) {
      if (withdrawn.count(n) == 0) nexthops.push_back(n);
    }
    // A class whose nexthops are all withdrawn selects none, as when none
    // is programmed: its traffic follows the normal route.
    const uint8_t kind = c.nexthops.empty() ? PolicyMap::pbrFwdNone : PolicyMap::pbrFwdNexthops;
    const auto fwd = Vix::make<Pbr::PbrFwdAction>(std::move(nexthops));
    auto action = Vix::make<PolicyMap::ClassAction>();
    action->actionIs(Vix::make<PolicyMap::Action>(PolicyMap::actionPbrFwd, kind, fwd));
    configs.push_back(Vix::make<PolicyMap::ClassMapConfig>(c.className, action));
  }
  return Vix::make<PolicyMap::PolicyMapConfig>(name, configs);
}

// Whether a class of `classes` names one of `nexthops`.
bool names(const std::vector<PolicyClassSpec>& classes,
           const std::set<Velnet::IpGenAddr>& nexthops) {
  for (const auto& c : classes) {
    for (const auto& n : c.nexthops) {
      if (nexthops.count(n) != 0) return true;
    }
  }
  return false;
}

}  // namespace

void ConfigApplier::apply(const ConfigModel& model, const std::set<Velnet::IpGenAddr>& withdrawn) {
  std::set<Velnet::IpGenAddr> changed;
  std::set_symmetric_difference(withdrawn.begin(), withdrawn.end(), withdrawn_.begin(),
                                withdrawn_.end(), std::inserter(changed, changed.end()));
  PolicyMap::PolicyMapTypeConfig& policies = *pbrConfig_->policyMapTypeConfig();
  PolicyMap::ClassMapTypeConfig& classes = *pbrConfig_->classMapTypeConfig();

  for (const auto& [name, entry] : model.accessLists) {
    const auto old = applied_.accessLists.find(name);
    if (old == applied_.accessLists.end() || !(old->second == entry)) {
      aclConfig_->accessListIs(accessList(name, entry));
    }
  }
  for (const auto& [name, lists] : model.classMaps) {
    const auto old = applied_.classMaps.find(name);
    if (old == applied_.classMaps.end() || old->second != lists) {
      classes.classMapIs(Vix::make<PolicyMap::ClassMapSubConfig>(name, lists));
    }
  }
  for (const auto& [name, entry] : model.policyMaps) {
    const auto* old = applied_.policyMap(name);
    if (old == nullptr || *old != entry || names(entry, changed)) {
      policies.policyMapIs(policyMap(name, entry, withdrawn));
    }
  }
  for (const auto& [intf, policy] : model.interfaces) policies.intfIs(intf, policy);

  for (const auto& [intf, policy] : applied_.interfaces) {
    if (model.interfaces.count(intf) == 0) policies.intfDel(intf);
  }
  for (const auto& [name, entry] : applied_.policyMaps) {
    if (!model.policyMap(name)) policies.policyMapDel(name);
  }
  for (const auto& [name, lists] : applied_.classMaps) {
    if (model.classMaps.count(name) == 0) classes.classMapDel(name);
  }
  for (const auto& [name, entry] : applied_.accessLists) {
    if (model.accessLists.count(name) == 0) aclConfig_->accessListDel(name);
  }
  applied_ = model;
  withdrawn_ = withdrawn;
  ++applications_;
}

}  // namespace Waymark
