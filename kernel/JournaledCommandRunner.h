// Kernel::JournaledCommandRunner: the daemon's way to the kernel for the
// nexthop table manager's routing commands. It keeps the state journal true
// and completes what a command means where the command alone cannot do it;
// the commands themselves are carried out by the executor behind it (the
// shell or rtnetlink), and the manager gets the executor's own outcome.
//
// - A rule or a table is journaled before the command that adds it runs,
//   and released again when the kernel refused it. When it cannot be
//   journaled (a full disk), the command does not run and ends as a refused
//   one would (exit status 2), so that nothing unrecorded reaches the kernel;
//   its nexthop is remembered, for the daemon to try again once the journal
//   can be written.
// - A rule is released once deleted, or once the kernel says it has no such
//   rule.
// - "ip route del table T" names no route iproute2 accepts and deletes
//   nothing; after it ran, the table's routes are removed here and the table
//   is released. A table then holds routes only while its nexthop is in use.
// - A rule kept in place (a nexthop's own rule of the previous run, which a
//   restart gives back to it) is not deleted and re-added: the delete of
//   that very rule and its table's removal are answered as they would be,
//   the route is replaced in place and the add finds the rule there. The
//   nexthop's traffic then never meets a missing rule or an empty table.
#pragma once

#include <map>
#include <set>
#include <utility>

#include "kernel/CommandRunner.h"
#include "kernel/KernelRouting.h"
#include "kernel/StateJournal.h"

namespace Kernel {

class JournaledCommandRunner : public Pbr::CommandRunner {
 public:
  // REQUIRES: all three outlive the runner.
  JournaledCommandRunner(StateJournal& journal, KernelRouting& routing, Pbr::CommandRunner& next)
      : journal_(journal), routing_(routing), next_(&next) {}

  // The exit status of an addition that could not be journaled.
  static constexpr int kNotRecorded = 2;

  Pbr::CommandOutcome run(const Pbr::RoutingRequest& request) override;

  // Keeps `rule` of `nexthop`, and its table, in place when the nexthop is
  // programmed again with the same numbers.
  void keepInPlace(const PolicyRule& rule, const Velnet::IpGenAddr& nexthop);
  // Keeps nothing more in place.
  void keepNothing();

  // Nexthops whose addition was refused for want of a record since they
  // were last taken; one recorded since is no longer among them.
  const std::set<Velnet::IpGenAddr>& unrecorded() const { return unrecorded_; }
  std::set<Velnet::IpGenAddr> takeUnrecorded() { return std::exchange(unrecorded_, {}); }

  // The executor behind it. REQUIRES: `next` outlives its installation.
  void nextIs(Pbr::CommandRunner& next) { next_ = &next; }

 private:
  Pbr::CommandOutcome addRoute(const Pbr::RoutingRequest& request);
  Pbr::CommandOutcome addRule(const Pbr::RoutingRequest& request);
  Pbr::CommandOutcome deleteRoute(const Pbr::RoutingRequest& request);
  bool kept(const Pbr::RoutingRequest& request) const;
  bool keptTable(const Pbr::RoutingRequest& request) const;
  // Whether the addition `request` makes is recorded (`held`); remembers
  // its nexthop when not.
  bool recorded(const Pbr::RoutingRequest& request, bool held);

  StateJournal& journal_;
  KernelRouting& routing_;
  Pbr::CommandRunner* next_;
  std::map<PolicyRule, Velnet::IpGenAddr> kept_;
  std::map<RouteTableId, Velnet::IpGenAddr> keptTables_;
  std::set<Velnet::IpGenAddr> unrecorded_;
};

}  // namespace Kernel
