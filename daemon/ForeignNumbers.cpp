#include "daemon/ForeignNumbers.h"

namespace Waymark {

namespace {

// The owner that stands for "someone else" in the manager's reverse maps:
// any address that is not the unset one makes a number count as in use.
const Velnet::IpGenAddr kOther{Velnet::IpAddr()};

}  // namespace

ForeignNumbers ForeignNumbers::of(const std::vector<Kernel::PolicyRule>& rules,
                                  const std::vector<Kernel::RouteTableId>& tables,
                                  const Kernel::StateJournal& journal) {
  ForeignNumbers out;
  for (const auto& rule : rules) {
    if (!journal.holds(rule)) out.addRule(rule);
  }
  for (const auto& table : tables) {
    if (!journal.holds(table)) out.addTable(table.table);
  }
  return out;
}

// Only numbers the manager could hand out are kept: priorities 1 to 32765,
// tables 1 to 65535 but the kernel's own 253 to 255, marks other than 0.
void ForeignNumbers::addRule(const Kernel::PolicyRule& rule) {
  if (rule.priority >= 1 && rule.priority <= Pbr::NexthopTableManager::kMaxIpRuleIndex) {
    priorities_.insert(rule.priority);
  }
  if (rule.mark != 0) marks_.insert(rule.mark);
  addTable(rule.table);
}

void ForeignNumbers::addTable(uint32_t table) {
  if (table >= 1 && table <= 0xffff && (table < 253 || table > 255)) tables_.insert(table);
}

void ForeignNumbers::reserveIn(Pbr::NexthopTableManager& m) const {
  for (const uint32_t p : priorities_) {
    const auto index = static_cast<uint16_t>(p);
    if (m.addrForIpRuleIndex(index).isUnset()) m.addrForIpRuleIndexIs(index, kOther);
  }
  for (const uint32_t t : tables_) {
    const auto table = static_cast<uint16_t>(t);
    if (m.addrForRouteTable(table).isUnset()) m.addrForRouteTableIs(table, kOther);
  }
  for (const uint32_t mark : marks_) {
    if (m.addrForFwmark(mark).isUnset()) m.addrForFwmarkIs(mark, kOther);
  }
}

nlohmann::json ForeignNumbers::toJson() const {
  return {{"priorities", priorities_}, {"tables", tables_}, {"marks", marks_}};
}

}  // namespace Waymark
