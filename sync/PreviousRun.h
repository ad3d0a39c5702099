// Waymark::PreviousRun: what the previous run of waymarkd left in the
// kernel's policy routing, as its state journal records it, and how this run
// takes it over without a gap.
//
// Every nexthop this run wants that held a rule before gets the same mark,
// table and priority again: its rule and route are then replaced in place,
// and the marks in the old iptables rules keep leading to the same nexthop
// until the new rules replace them. The numbers of every other rule of the
// previous run that is still in the kernel count as in use until the
// leftovers are removed, so that no nexthop takes over a rule or a table
// that still routes another nexthop's traffic. What routes nothing (a table
// no such rule points at, a rule that never reached the kernel) is free, so
// a run killed in the middle of its start is followed by one that hands out
// exactly the numbers a clean start would.
#pragma once

#include <cstdint>
#include <set>
#include <vector>

#include <nlohmann/json.hpp>

#include "kernel/StateJournal.h"
#include "nexthop/NexthopTableManager.h"

namespace Waymark {

class PreviousRun {
 public:
  // What `journal` held when it was loaded; `kernelRules` are the rules the
  // kernel holds now, both families.
  PreviousRun(const Kernel::StateJournal& journal,
              const std::vector<Kernel::PolicyRule>& kernelRules);

  // Gives each nexthop of `wanted` the numbers it held, and holds every
  // other number of the previous run back.
  // REQUIRES: nothing has been allocated in `manager` yet.
  void adoptInto(Pbr::NexthopTableManager& manager, const std::vector<Velnet::IpGenAddr>& wanted);
  // Lets the held-back numbers go, once the leftovers are removed.
  void release(Pbr::NexthopTableManager& manager);

  uint32_t adopted() const { return static_cast<uint32_t>(adopted_.size()); }
  // The rules of the nexthops that got their numbers back.
  const std::vector<std::pair<Kernel::PolicyRule, Velnet::IpGenAddr>>& adoptedRules() const {
    return adopted_;
  }
  nlohmann::json toJson() const;

 private:
  struct Numbers {
    std::set<uint32_t> priorities, tables, marks;
  };

  bool adopt(Pbr::NexthopTableManager& manager, const Velnet::IpGenAddr& nexthop,
             const Kernel::PolicyRule& rule) const;

  std::vector<std::pair<Kernel::PolicyRule, Velnet::IpGenAddr>> rules_;
  std::set<Kernel::PolicyRule> inKernel_;
  Numbers heldBack_;
  std::vector<std::pair<Kernel::PolicyRule, Velnet::IpGenAddr>> adopted_;
};

}  // namespace Waymark
