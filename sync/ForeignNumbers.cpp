#include "sync/ForeignNumbers.h"

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
bool ForeignNumbers::addRule(const Kernel::PolicyRule& rule) {
  bool added = false;
  if (rule.priority >= 1 && rule.priority <= Pbr::NexthopTableManager::kMaxIpRuleIndex) {
    added = priorities_.insert(rule.priority).second;
  }
  if (rule.mark != 0) added = marks_.insert(rule.mark).second || added;
  return addTable(rule.table) || added;
}

bool ForeignNumbers::addTable(uint32_t table) {
  if (table < 1 || table > 0xffff || (table >= 253 && table <= 255)) return false;
  return tables_.insert(table).second;
}

void reserveNumbers(Pbr::NexthopTableManager& m, const std::set<uint32_t>& priorities,
                    const std::set<uint32_t>& tables, const std::set<uint32_t>& marks) {
  for (const uint32_t p : priorities) {
    const auto index = static_cast<uint16_t>(p);
    if (p <= 0xffff && m.addrForIpRuleIndex(index).isUnset()) m.addrForIpRuleIndexIs(index, kOther);
  }
  for (const uint32_t t : tables) {
    const auto table = static_cast<uint16_t>(t);
    if (t <= 0xffff && m.addrForRouteTable(table).isUnset()) m.addrForRouteTableIs(table, kOther);
  }
  for (const uint32_t mark : marks) {
    if (m.addrForFwmark(mark).isUnset()) m.addrForFwmarkIs(mark, kOther);
  }
}

void releaseNumbers(Pbr::NexthopTableManager& m, const std::set<uint32_t>& priorities,
                    const std::set<uint32_t>& tables, const std::set<uint32_t>& marks) {
  for (const uint32_t p : priorities) {
    const auto index = static_cast<uint16_t>(p);
    if (p <= 0xffff && m.addrForIpRuleIndex(index) == kOther) m.addrForIpRuleIndexDel(index);
  }
  for (const uint32_t t : tables) {
    const auto table = static_cast<uint16_t>(t);
    if (t <= 0xffff && m.addrForRouteTable(table) == kOther) m.addrForRouteTableDel(table);
  }
  for (const uint32_t mark : marks) {
    if (m.addrForFwmark(mark) == kOther) m.addrForFwmarkDel(mark);
  }
}

void ForeignNumbers::reserveIn(Pbr::NexthopTableManager& m) const {
  reserveNumbers(m, priorities_, tables_, marks_);
}

nlohmann::json ForeignNumbers::toJson() const {
  return {{"priorities", priorities_}, {"tables", tables_}, {"marks", marks_}};
}

}  // namespace Waymark
