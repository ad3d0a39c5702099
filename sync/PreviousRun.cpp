#include "sync/PreviousRun.h"

#include <algorithm>

#include "sync/ForeignNumbers.h"

namespace Waymark {

PreviousRun::PreviousRun(const Kernel::StateJournal& journal,
                         const std::vector<Kernel::PolicyRule>& kernelRules)
    : inKernel_(kernelRules.begin(), kernelRules.end()) {
  for (const auto& rule : journal.rules()) rules_.emplace_back(rule, journal.nexthopOf(rule));
}

bool PreviousRun::adopt(Pbr::NexthopTableManager& m, const Velnet::IpGenAddr& nexthop,
                        const Kernel::PolicyRule& rule) const {
  if (nexthop.isUnset() || nexthop.isV6() != rule.v6 || m.fwmark(nexthop) != 0) return false;
  if (rule.mark == 0 || rule.priority == 0 ||
      rule.priority > Pbr::NexthopTableManager::kMaxIpRuleIndex || rule.table == 0 ||
      rule.table > 0xffff) {
    return false;
  }
  const auto priority = static_cast<uint16_t>(rule.priority);
  const auto table = static_cast<uint16_t>(rule.table);
  if (!m.addrForIpRuleIndex(priority).isUnset() || !m.addrForRouteTable(table).isUnset() ||
      !m.addrForFwmark(rule.mark).isUnset()) {
    return false;
  }
  m.ipRuleIndexIs(nexthop, priority);
  m.addrForIpRuleIndexIs(priority, nexthop);
  m.fwmarkIs(nexthop, rule.mark);
  m.addrForFwmarkIs(rule.mark, nexthop);
  m.routeTableIs(nexthop, table);
  m.addrForRouteTableIs(table, nexthop);
  return true;
}

void PreviousRun::adoptInto(Pbr::NexthopTableManager& m,
                            const std::vector<Velnet::IpGenAddr>& wanted) {
  for (const auto& [rule, nexthop] : rules_) {
    const bool isWanted = std::find(wanted.begin(), wanted.end(), nexthop) != wanted.end();
    if (isWanted && adopt(m, nexthop, rule)) {
      adopted_.emplace_back(rule, nexthop);
      continue;
    }
    if (inKernel_.count(rule) == 0) continue;
    heldBack_.priorities.insert(rule.priority);
    heldBack_.marks.insert(rule.mark);
    heldBack_.tables.insert(rule.table);
  }
  reserveNumbers(m, heldBack_.priorities, heldBack_.tables, heldBack_.marks);
}

void PreviousRun::release(Pbr::NexthopTableManager& m) {
  releaseNumbers(m, heldBack_.priorities, heldBack_.tables, heldBack_.marks);
  heldBack_ = {};
}

nlohmann::json PreviousRun::toJson() const {
  return {{"nexthopsAdopted", adopted()},
          {"heldBack",
           {{"priorities", heldBack_.priorities},
            {"tables", heldBack_.tables},
            {"marks", heldBack_.marks}}}};
}

}  // namespace Waymark
