// Waymark::ForeignNumbers: the rule priorities, routing tables and packet
// marks that something other than waymark uses on this router. They count
// as in use for the nexthop table manager's allocation, so waymark never
// hands them out: it never adds a rule at another's priority, never puts a
// route into another's table (nor empties it), and never marks packets with
// a mark another rule already routes.
//
// Found at start from the kernel's rules and tables (whatever the state
// journal does not record as waymark's is another's), and later from the
// kernel's announcements of new rules and routes.
#pragma once

#include <cstdint>
#include <set>
#include <vector>

#include <nlohmann/json.hpp>

#include "kernel/KernelRouting.h"
#include "kernel/StateJournal.h"
#include "nexthop/NexthopTableManager.h"

namespace Waymark {

// Makes each number count as in use for `manager`'s allocation (an owner
// that stands for "not one of this run's nexthops"), where it is free.
void reserveNumbers(Pbr::NexthopTableManager& manager, const std::set<uint32_t>& priorities,
                    const std::set<uint32_t>& tables, const std::set<uint32_t>& marks);
// Frees again what reserveNumbers() reserved and nothing has taken since.
void releaseNumbers(Pbr::NexthopTableManager& manager, const std::set<uint32_t>& priorities,
                    const std::set<uint32_t>& tables, const std::set<uint32_t>& marks);

class ForeignNumbers {
 public:
  // What `rules` and `tables` (the kernel's, both families) hold that
  // `journal` does not record as waymark's.
  static ForeignNumbers of(const std::vector<Kernel::PolicyRule>& rules,
                           const std::vector<Kernel::RouteTableId>& tables,
                           const Kernel::StateJournal& journal);

  // Adds what another tool's rule or table uses; true when that is new.
  bool addRule(const Kernel::PolicyRule& rule);
  bool addTable(uint32_t table);

  // Makes every number count as in use for `manager`'s allocation.
  void reserveIn(Pbr::NexthopTableManager& manager) const;

  const std::set<uint32_t>& priorities() const { return priorities_; }
  const std::set<uint32_t>& tables() const { return tables_; }
  const std::set<uint32_t>& marks() const { return marks_; }
  nlohmann::json toJson() const;

 private:
  std::set<uint32_t> priorities_;
  std::set<uint32_t> tables_;
  std::set<uint32_t> marks_;
};

}  // namespace Waymark
