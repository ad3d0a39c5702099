// Waymark::KernelSession: the daemon's real kernel, as the router core sees
// it (RouterKernel). It reads what the previous run and other tools left
// (the state journal, the kernel's rules and tables, the mangle table),
// owns the ways to the kernel (the shell and rtnetlink executors behind the
// journal; iptables-restore through the asynchronous writer, held for the
// start's transaction), follows other tools' rules and routes, and removes
// the previous run's leftovers once the start's rules are written.
// `waymarkd --cleanup` uses removeEverything().
#pragma once

#include <functional>
#include <memory>
#include <set>
#include <string>

#include "config/ConfigModel.h"
#include "kernel/AsyncIptablesWriter.h"
#include "kernel/IcmpProber.h"
#include "kernel/JournaledCommandRunner.h"
#include "kernel/KernelRouting.h"
#include "kernel/MangleEvents.h"
#include "kernel/RestoreIptablesWriter.h"
#include "kernel/RoutingEvents.h"
#include "kernel/StateJournal.h"
#include "sync/DriftRepair.h"
#include "sync/ForeignNumbers.h"
#include "sync/MangleWatch.h"
#include "sync/PreviousRun.h"
#include "sync/RouterKernel.h"

namespace Waymark {

class KernelSession : public RouterKernel {
 public:
  // REQUIRES: `log` outlives the session.
  KernelSession(const std::string& statePath, double childTimeLimit,
                const std::function<void(const std::string&)>& log);

  // Reads the mangle table, the journal and the kernel's rules and tables,
  // and subscribes to rule and route announcements first. False with
  // `error` set when it cannot, or when the mangle table holds another
  // tool's rules that `model` does not say to take over (`foreignMangle`
  // set then).
  bool open(const ConfigModel& model, std::string* error, bool* foreignMangle);
  // The configuration's nexthops, asked for only when they are needed.
  using Nexthops = std::function<std::vector<Velnet::IpGenAddr>()>;
  // Removes waymark's chains, rules and tables, and the journal; with a
  // damaged or lost state file, what is recognised as waymark's.
  void removeEverything(const Nexthops& nexthops);

  // The descriptors to wait on, and what to do when they are ready.
  int routingEventsFd() const { return routingEvents_.fd(); }
  int mangleEventsFd() const { return mangleEvents_.fd(); }
  void handleMangleEvents(double now);
  int writerFd() const { return asyncWriter_.fd(); }
  std::vector<int> proberFds() const { return prober_.fds(); }
  void handleRoutingEvents(Pbr::NexthopTableManager& manager);
  void takeWriterOutcomes(Pbr::AclPlugin& plugin);

  Pbr::CommandRunner& runner(CommandExecutor executor) override;
  AclUtils::IptablesWriter& writer() override { return asyncWriter_; }
  Kernel::IcmpProber& prober() override { return prober_; }
  std::vector<std::string> repairDrift(Pbr::NexthopTableManager& manager,
                                       const std::function<bool(const Velnet::IpGenAddr&)>& usable,
                                       double now) override;
  void resumeDriftRepair() override { drift_.resume(); }
  void suspectDrift() override { drift_.suspect(); }
  double mangleCheckDue() const override { return mangleWatch_.due(); }
  double journalCheckDue() const override { return journalCheckedAt_ + 1.0; }
  std::string cannotRecord() override;
  bool unrecorded(const Velnet::IpGenAddr& nexthop) const override {
    return journaled_.unrecorded().count(nexthop) != 0;
  }
  bool mangleSuspected() const override { return mangleWatch_.suspected(); }
  bool mangleDrifted(double now, std::vector<std::string>& out) override;
  void beginRebuild() override { asyncWriter_.hold(); }
  void commitRebuild() override;
  void rebuildDone(const std::string& error) override;
  bool driftSuspected() const override { return drift_.suspected(); }
  void reserveNumbers(Pbr::NexthopTableManager& manager) override;
  void adopt(Pbr::NexthopTableManager& manager,
             const std::vector<Velnet::IpGenAddr>& nexthops) override;
  void nexthopsProgrammed() override;
  bool writing() const override { return !asyncWriter_.idle(); }
  void rulesWritten(Pbr::NexthopTableManager& manager) override;
  void catchUp(Pbr::AclPlugin& plugin) override;
  void describe(nlohmann::json& status) const override;
  Kernel::MangleReadback::RuleCounters ruleCounters(bool v6) override;
  std::string routeLookup(const Velnet::IpGenAddr& src, const Velnet::IpGenAddr& dst,
                          const std::string& in, uint32_t mark) override;

 private:
  // Once a second: the state file or its journal deleted or replaced from
  // outside is written again from memory, and nexthops refused for want of
  // a record are programmed again once it can be written; what to say of
  // it, if anything.
  std::vector<std::string> keepJournal(Pbr::NexthopTableManager& manager, double now);
  // Queues the nexthops refused for want of a record that are still wanted.
  std::vector<std::string> retryUnrecorded(Pbr::NexthopTableManager& manager);
  // Loads the journal and logs, as errors, what it would not trust.
  void loadJournal();
  // False when the mangle table holds another tool's rules and the
  // configuration does not say to take it over; names them either way.
  bool guardMangleTable(const ConfigModel& model, std::string* error, bool* foreignMangle);
  // A rule or route another tool adds: its numbers are never handed out.
  void noticeRule(const Kernel::PolicyRule& rule, Pbr::NexthopTableManager& manager);
  void noticeRoute(const Kernel::RouteTableId& table, Pbr::NexthopTableManager& manager);
  // Reads every rule and table again, after missed announcements.
  void noticeAll(Pbr::NexthopTableManager& manager);
  void removeLeftovers();
  // When the state file is damaged or lost, the marked rules in the kernel
  // that waymark's own chains (of the previous run) mark for, or whose
  // table's one route is a default route via one of `nexthops`, are that
  // run's, with their tables: recorded as such, to be removed once this run
  // is programmed (unless it takes them again). Anything else stays another
  // tool's.
  void recognisePreviousRun(const std::vector<Kernel::PolicyRule>& rules, const Nexthops& nexthops);

  const double childTimeLimit_;
  const std::function<void(const std::string&)> log_;
  Kernel::StateJournal journal_;
  ForeignNumbers foreign_;
  // The user chains of each family's mangle table (IPv4, IPv6) at start,
  // which the start's transaction replaces.
  std::set<std::string> existingChains_[2];
  // The marks those chains set.
  std::set<uint32_t> previousMarks_[2];
  std::unique_ptr<PreviousRun> previous_;
  Kernel::KernelRouting routing_;
  Kernel::IcmpProber prober_;
  DriftRepair drift_{routing_};
  Kernel::RoutingEvents routingEvents_;
  std::unique_ptr<Pbr::CommandRunner> shellRunner_;
  std::unique_ptr<Pbr::CommandRunner> netlinkRunner_;
  Kernel::JournaledCommandRunner journaled_;
  AclUtils::RestoreIptablesWriter restore_;
  Kernel::AsyncIptablesWriter asyncWriter_{restore_};
  Kernel::MangleEvents mangleEvents_;
  MangleWatch mangleWatch_;
  uint32_t leftoverRulesRemoved_ = 0;
  uint32_t leftoverTablesRemoved_ = 0;
  double journalCheckedAt_ = -1e9;
};

}  // namespace Waymark
