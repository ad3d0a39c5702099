#include "insight/ClassCounters.h"

#include <map>

namespace Waymark {

namespace {

// A class's traffic is what the first rule of each of its pairs saw: the
// pairs before it accepted what they matched.
void addCounters(const ClassCounters::ChainClasses& c,
                 const Kernel::MangleReadback::RuleCounters& counters, nlohmann::json& out) {
  std::map<std::string, Kernel::MangleReadback::Counter> perClass;
  const auto chain = counters.find(c.chain);
  for (const auto& [position, name] : c.positions) {
    if (chain == counters.end() || position == 0 || position > chain->second.size()) continue;
    auto& sum = perClass[name];
    sum.packets += chain->second[position - 1].packets;
    sum.bytes += chain->second[position - 1].bytes;
  }
  for (const auto& name : c.classes) {
    const auto& sum = perClass[name];
    out.push_back({{"policy", c.policy},
                   {"family", c.family},
                   {"class", name},
                   {"packets", sum.packets},
                   {"bytes", sum.bytes}});
  }
}

}  // namespace

ClassCounters::Chains ClassCounters::chainsOf(const Pbr::AclPlugin& plugin) {
  Chains perFamily;
  for (const auto option : {PolicyMap::matchIpv4, PolicyMap::matchIpv6}) {
    const auto typeData = plugin.aclHelper()->aclTypeData(option);
    if (!typeData) continue;
    for (const auto& sm : plugin.pbrAclPluginSm()->policyMapSms()) {
      const auto acl = typeData->acl(sm->key());
      if (!sm->programmed(option) || !acl) continue;
      ChainClasses c{sm->key().name(), PolicyMap::familyName(option), acl->chainName(), {}, {}};
      acl->ruleIndexes().forEach([&](const Pbr::Iptables::SubRuleKey& key, uint32_t position) {
        c.positions.emplace_back(position, key.aclRuleKey().className());
      });
      for (const auto& cls : sm->classes()) {
        if (!cls->subRules(sm->key(), option).empty()) c.classes.push_back(cls->name());
      }
      perFamily[option == PolicyMap::matchIpv6].push_back(std::move(c));
    }
  }
  return perFamily;
}

nlohmann::json ClassCounters::read(const Chains& chains, const ReadBack& readBack) {
  nlohmann::json classes = nlohmann::json::array();
  for (const bool v6 : {false, true}) {
    if (chains[v6].empty()) continue;
    const auto counters = readBack(v6);
    for (const auto& c : chains[v6]) addCounters(c, counters, classes);
  }
  return classes;
}

}  // namespace Waymark
