// Waymark::RouterKernel: what the router core needs of the kernel besides
// the plug-in itself: the routing-command runner for each executor, the
// iptables writer, and the start's kernel steps (numbers that others or the
// previous run hold, the start's transaction, the removal of what the
// previous run left). The daemon's KernelSession is the real one; a dry run
// prints; tests record (tests/support/FakeRouterKernel.h).
//
// The steps have do-nothing defaults: a kernel with no previous run, no
// other tool and a writer that answers at once needs none of them.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "config/Tunables.h"
#include "kernel/CommandRunner.h"
#include "kernel/IptablesWriter.h"
#include "kernel/MangleReadback.h"
#include "kernel/ProbeSender.h"
#include "net/IpGenAddr.h"

namespace Pbr {
class AclPlugin;
class NexthopTableManager;
}  // namespace Pbr

namespace Waymark {

class RouterKernel {
 public:
  virtual ~RouterKernel() = default;

  // The runner the nexthop manager uses while `executor` is chosen.
  virtual Pbr::CommandRunner& runner(CommandExecutor executor) = 0;
  virtual AclUtils::IptablesWriter& writer() = 0;
  // Sends the health checks' echo requests.
  virtual Kernel::ProbeSender& prober() = 0;

  // Keeps out of the manager's hands the numbers another tool uses; after
  // every loop turn, since a number waymark lets go of may be one of them.
  virtual void reserveNumbers(Pbr::NexthopTableManager&) {}
  // Before the start references `nexthops`: those the previous run held
  // get their numbers back, and their rules and routes stay in place.
  virtual void adopt(Pbr::NexthopTableManager&, const std::vector<Velnet::IpGenAddr>&) {}
  // The start's nexthops are programmed: what was held back is written.
  virtual void nexthopsProgrammed() {}
  // True while written rules are still on their way.
  virtual bool writing() const { return false; }
  // The start's rules are in the kernel: what the previous run held and
  // this one did not take again goes.
  virtual void rulesWritten(Pbr::NexthopTableManager&) {}
  // Takes in what the kernel has reported and nobody has read yet.
  virtual void catchUp(Pbr::AclPlugin&) {}
  // Adds the kernel side's fields to a status.
  virtual void describe(nlohmann::json&) const {}
  // The kernel's own route lookup for a packet ("ip route get" of the
  // family, with "mark" when `mark` is not 0): its first line, or why not.
  virtual std::string routeLookup(const Velnet::IpGenAddr& /*src*/,
                                  const Velnet::IpGenAddr& /*dst*/, const std::string& /*in*/,
                                  uint32_t /*mark*/) {
    return "";
  }
  // Puts back programmed nexthops' rules and routes that something else
  // removed (`usable`: the nexthop's link is up and holds its subnet); the
  // texts of what it found and did.
  virtual std::vector<std::string> repairDrift(
      Pbr::NexthopTableManager&, const std::function<bool(const Velnet::IpGenAddr&)>& /*usable*/,
      double /*now*/) {
    return {};
  }
  // Repairs again after too many stopped them.
  virtual void resumeDriftRepair() {}
  // Compares the routing state on the next turn, as after a removal.
  virtual void suspectDrift() {}
  // When the state file is next looked at (deleted or replaced from
  // outside, or writable again after additions were refused); kNever when
  // it is not.
  virtual double journalCheckDue() const { return Vix::kNever; }
  // Why an addition could not be recorded now, found by writing the state
  // file; "" when it can.
  virtual std::string cannotRecord() { return ""; }
  // Whether `nexthop`'s last addition was refused for want of a record.
  virtual bool unrecorded(const Velnet::IpGenAddr& /*nexthop*/) const { return false; }
  // When the mangle tables are next compared with what waymark wrote.
  virtual double mangleCheckDue() const { return 1e300; }
  // Something changed them and the comparison is not done yet.
  virtual bool mangleSuspected() const { return false; }
  // Compares them; true (with `out` saying why) when they must be rebuilt.
  // REQUIRES: nothing is being written.
  virtual bool mangleDrifted(double /*now*/, std::vector<std::string>& /*out*/) { return false; }
  // A rebuild of the mangle tables begins: what is written is held until
  // commitRebuild(), which writes it as one transaction per family that
  // changes only waymark's part of the tables.
  virtual void beginRebuild() {}
  virtual void commitRebuild() {}
  // The rebuild's transactions are written: ok, or why not.
  virtual void rebuildDone(const std::string& /*error*/) {}
  // True while something removed waits to be compared: the loop must come
  // back soon even when nothing else is timed.
  virtual bool driftSuspected() const { return false; }
  // The counters of the family's mangle rules, read back in one go.
  virtual Kernel::MangleReadback::RuleCounters ruleCounters(bool /*v6*/) { return {}; }
};

}  // namespace Waymark
