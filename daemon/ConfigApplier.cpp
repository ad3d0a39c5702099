#include "daemon/ConfigApplier.h"

namespace Waymark {

namespace {

Vix::Ptr<Acl::AccessList> accessList(const std::string& name, const AccessListSpec& entry) {
  auto list = Vix::make<Acl::AccessList>(name, entry.ipv6);
  list->rulesIs({entry.rules.begin(), entry.rules.end()});
  return list;
}

Vix::Ptr<PolicyMap::PolicyMapConfig> policyMap(const std::string& name,
                                               const std::vector<PolicyClassSpec>& classes) {
  std::vector<Vix::Ptr<PolicyMap::ClassMapConfig>> configs;
  for (const auto& c : classes) {
    // A named group reaches the plug-in as its list: the loader resolved it.
    const auto fwd = Vix::make<Pbr::PbrFwdAction>(c.nexthops);
    const uint8_t kind = c.nexthops.empty() ? PolicyMap::pbrFwdNone : PolicyMap::pbrFwdNexthops;
    auto action = Vix::make<PolicyMap::ClassAction>();
    action->actionIs(Vix::make<PolicyMap::Action>(PolicyMap::actionPbrFwd, kind, fwd));
    configs.push_back(Vix::make<PolicyMap::ClassMapConfig>(c.className, action));
  }
  return Vix::make<PolicyMap::PolicyMapConfig>(name, configs);
}

}  // namespace

void ConfigApplier::apply(const ConfigModel& model) {
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
    if (old == nullptr || *old != entry) policies.policyMapIs(policyMap(name, entry));
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
}

}  // namespace Waymark
