// Kernel::KernelRouting: waymark's typed access to the kernel's policy
// routing through rtnetlink: add the two things a nexthop needs (a default
// route in its table, a rule from its mark to that table), delete exactly
// one rule, empty a table, and read back every rule and every table that
// holds routes. Used by the rtnetlink executor, by the journal's completion
// of a table's removal, and at start-up and --cleanup.
//
// Every change answers 0 or the kernel's -errno.
#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <vector>

#include "kernel/RtnetlinkSocket.h"
#include "net/IpGenAddr.h"

namespace Kernel {

// One policy rule as the kernel holds it; mark 0 when it matches no mark.
struct PolicyRule {
  bool v6 = false;
  uint32_t priority = 0;
  uint32_t mark = 0;
  uint32_t table = 0;

  auto operator<=>(const PolicyRule&) const = default;
};

// One routing table of one family.
struct RouteTableId {
  bool v6 = false;
  uint32_t table = 0;

  auto operator<=>(const RouteTableId&) const = default;
};

class KernelRouting {
 public:
  // "default via `via` table `table`", refused when it exists already.
  int addRoute(const Velnet::IpGenAddr& via, uint32_t table);
  // "default via `via` table `table`", in place of whatever default route
  // the table holds, or added.
  int replaceRoute(const Velnet::IpGenAddr& via, uint32_t table);
  // "priority P fwmark M lookup T", refused when that very rule exists.
  int addRule(const PolicyRule& rule);
  // Deletes the rule with exactly this priority, mark and table; -ENOENT
  // when there is none.
  int deleteRule(const PolicyRule& rule);
  // Deletes every route of the table; how many, or -errno.
  int flushTable(bool v6, uint32_t table);

  // Every rule of the family.
  std::vector<PolicyRule> rules(bool v6);
  // Whether the kernel holds exactly this rule.
  bool hasRule(const PolicyRule& rule);
  // Whether the table holds any route (also when it cannot be read).
  bool hasRoutes(const RouteTableId& table);
  // Each table of the family that holds routes, with how many.
  std::map<uint32_t, uint32_t> routeTables(bool v6);
  // Each table of the family whose only route is a default route, as
  // waymark's tables hold, with that route's gateway; one dump.
  std::map<uint32_t, Velnet::IpGenAddr> soleDefaultGateways(bool v6);

  uint32_t requests() const { return socket_.requests(); }

 private:
  int changeRule(uint16_t type, uint16_t flags, const PolicyRule& rule);
  int newRoute(uint16_t flags, const Velnet::IpGenAddr& via, uint32_t table);
  // The routes of one table (every table when `table` is 0), each as the
  // kernel sent it; `result` is the dump's 0 or -errno.
  std::vector<std::vector<char>> routes(bool v6, uint32_t table, int* result);

  RtnetlinkSocket socket_;
};

}  // namespace Kernel
