#include "insight/StatusReport.h"

#include <set>

#include "plugin/ClassCommonData.h"

namespace Waymark {

namespace {

using nlohmann::json;
using PolicyMap::ClassMapMatchOption;

constexpr ClassMapMatchOption kFamilies[] = {PolicyMap::matchIpv4, PolicyMap::matchIpv6};

// The class's whole nexthop list in its order, the one in use marked.
json nexthopList(const Pbr::ClassCommonData* data) {
  json out = json::array();
  const auto selector = data ? data->masterNexthopSm() : nullptr;
  const Pbr::PbrFwdAction* action = selector ? selector->nexthop() : nullptr;
  if (action == nullptr) return out;
  for (const auto& a : action->nexthops()) {
    out.push_back({{"address", a.stringValue()}, {"inUse", a == data->nexthopValue()}});
  }
  return out;
}

json policies(const Pbr::AclPlugin& plugin) {
  json out = json::array();
  const auto& helper = *plugin.aclHelper();
  for (const auto& sm : plugin.pbrAclPluginSm()->policyMapSms()) {
    for (const auto option : kFamilies) {
      if (!sm->programmed(option)) continue;
      const auto typeData = helper.aclTypeData(option);
      const auto acl = typeData ? typeData->acl(sm->key()) : nullptr;
      json intfs = json::array();
      sm->commonData()->intf().forEach(
          [&](const Velnet::IntfId& i, bool) { intfs.push_back(i.stringValue()); });
      json classes = json::array();
      for (const auto& c : sm->classes()) {
        if (c->subRules(sm->key(), option).empty()) continue;
        const auto data = Vix::ptrCast<Pbr::ClassCommonData>(c->commonData());
        const bool passthrough = data && data->passthroughConfigured();
        json nexthop = nullptr;
        if (data && !data->nexthopValue().isUnset()) nexthop = data->nexthopValue().stringValue();
        classes.push_back({{"name", c->name()},
                           {"nexthop", nexthop},
                           {"nexthopList", nexthopList(data.get())},
                           {"passthrough", passthrough}});
      }
      out.push_back({{"name", sm->key().name()},
                     {"family", PolicyMap::familyName(option)},
                     {"chain", acl ? acl->chainName() : ""},
                     {"interfaces", intfs},
                     {"classes", classes}});
    }
  }
  return out;
}

std::set<Velnet::IpGenAddr> knownNexthops(const Pbr::NexthopTableManager& m) {
  std::set<Velnet::IpGenAddr> all;
  m.nexthops().forEach([&](const Velnet::IpGenAddr& a, uint32_t) { all.insert(a); });
  m.programmedSet().forEach([&](const Velnet::IpGenAddr& a, bool) { all.insert(a); });
  m.pendingNexthops().forEach(
      [&](const Velnet::IpGenAddr& a, Pbr::PendingNexthopOperation) { all.insert(a); });
  m.nexthopsWithoutResources().forEach([&](const Velnet::IpGenAddr& a, bool) { all.insert(a); });
  return all;
}

json nexthops(const Pbr::NexthopTableManager& m, const StatusReport::Unrecorded& unrecorded) {
  json out = json::array();
  for (const auto& a : knownNexthops(m)) {
    const uint32_t refs = m.nexthop(a);
    if (refs == 0 && m.fwmark(a) == 0 && m.pendingNexthop(a) == Pbr::pendingNone) continue;
    out.push_back({{"address", a.stringValue()},
                   {"refs", refs},
                   {"fwmark", m.fwmark(a)},
                   {"table", m.routeTable(a)},
                   {"priority", m.ipRuleIndex(a)},
                   {"programmed", m.programmed(a)},
                   {"withoutSubnet", m.withoutSubnet(a)},
                   {"withoutResources", m.nexthopWithoutResources(a)},
                   {"state", StatusReport::nexthopState(m, a, unrecorded)}});
  }
  return out;
}

json familyCounters(const Pbr::Iptables::AclTypeData& t) {
  const auto& iptables = *t.iptablesManager();
  return {{"iptablesInvoked", t.iptablesInvoked()},
          {"rulesProgrammed", t.rulesProgrammed()},
          {"lastProgrammingTime", t.lastProgrammingTime()},
          {"maxProgrammingTime", t.maxProgrammingTime()},
          {"totalProgrammingTime", t.totalProgrammingTime()},
          {"rulesPerInvocation", t.rulesPerInvocation()},
          {"ruleProgrammingTimeLimit", t.ruleProgrammingTimeLimit()},
          {"batchesWritten", iptables.batchesWritten()},
          {"batchesFailed", iptables.batchesFailed()},
          {"lastError", iptables.lastError()}};
}

}  // namespace

std::string StatusReport::nexthopState(const Pbr::NexthopTableManager& m,
                                       const Velnet::IpGenAddr& a, const Unrecorded& unrecorded) {
  if (m.programmed(a)) return Reason::kProgrammed;
  if (m.nexthop(a) == 0 && m.fwmark(a) != 0) return Reason::kReleasing;
  // A refusal keeps the resources and flags both waits.
  if (m.nexthopWithoutResources(a) && m.fwmark(a) != 0) {
    return unrecorded && unrecorded(a) ? Reason::kNotRecorded : Reason::kKernelRefused;
  }
  if (m.nexthopWithoutResources(a)) return Reason::kNoResources;
  if (m.withoutSubnet(a)) return Reason::kOutsideSubnets;
  return Reason::kPending;
}

bool StatusReport::idle(const Pbr::AclPlugin& plugin) {
  if (!plugin.nexthopTableManager()->pendingNexthops().empty()) return false;
  for (const auto option : kFamilies) {
    const auto t = plugin.aclHelper()->aclTypeData(option);
    if (t && t->iptablesOperations() != 0) return false;
  }
  return true;
}

nlohmann::json StatusReport::build(const Pbr::AclPlugin& plugin, const Unrecorded& unrecorded) {
  const auto& m = *plugin.nexthopTableManager();
  const auto v4 = plugin.aclHelper()->aclTypeData(PolicyMap::matchIpv4);
  const auto v6 = plugin.aclHelper()->aclTypeData(PolicyMap::matchIpv6);
  json counters = {
      {"nexthops",
       {{"nexthopsAdded", m.nexthopsAdded()},
        {"nexthopsDeleted", m.nexthopsDeleted()},
        {"lastProgrammingTime", m.lastProgrammingTime()},
        {"maxProgrammingTime", m.maxProgrammingTime()},
        {"totalProgrammingTime", m.totalProgrammingTime()},
        {"nexthopProgrammingTimeLimit", m.nexthopProgrammingTimeLimit()}}},
  };
  if (v4) counters["ipv4"] = familyCounters(*v4);
  if (v6) counters["ipv6"] = familyCounters(*v6);
  return {{"policies", policies(plugin)},
          {"nexthops", nexthops(m, unrecorded)},
          {"queues",
           {{"ipv4", v4 ? v4->iptablesOperations() : 0u},
            {"ipv6", v6 ? v6->iptablesOperations() : 0u},
            {"nexthopsPending", m.pendingNexthops().members()}}},
          {"counters", counters},
          {"idle", idle(plugin)}};
}

}  // namespace Waymark
