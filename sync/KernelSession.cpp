#include "sync/KernelSession.h"

#include <cerrno>

#include "config/ConfigGate.h"
#include "kernel/ChildProcess.h"
#include "kernel/MangleReadback.h"
#include "kernel/NetlinkCommandRunner.h"
#include "kernel/QuietCommandRunner.h"
#include "plugin/AclPlugin.h"

namespace Waymark {

KernelSession::KernelSession(const std::string& statePath, double childTimeLimit,
                             const std::function<void(const std::string&)>& log)
    : childTimeLimit_(childTimeLimit),
      log_(log),
      journal_(statePath),
      shellRunner_(std::make_unique<Kernel::QuietCommandRunner>(childTimeLimit)),
      netlinkRunner_(std::make_unique<Kernel::NetlinkCommandRunner>(routing_, *shellRunner_)),
      journaled_(journal_, routing_, *shellRunner_),
      restore_(childTimeLimit),
      mangleWatch_(
          [this](bool v6, std::string* error) {
            return Kernel::MangleReadback::save(v6, childTimeLimit_, error);
          },
          [this](bool v6) {
            return asyncWriter_.written(v6 ? Acl::aclTypeIpv6 : Acl::aclTypeIpv4);
          }) {
  // The dispatch chain's set-up and the start's batches form one
  // transaction per family.
  asyncWriter_.hold();
}

bool KernelSession::open(const ConfigModel& model, std::string* error, bool* foreignMangle) {
  if (!guardMangleTable(model, error, foreignMangle)) return false;
  // Subscribed before the kernel is read, so that nothing another tool
  // adds in between goes unseen.
  if (!routingEvents_.open(error) || !prober_.open(error)) return false;
  std::string eventsError;
  if (!mangleEvents_.open(&eventsError)) {
    log_(eventsError + "; the mangle tables are compared every " +
         std::to_string(static_cast<int>(MangleWatch::kPeriod)) + " s only");
  }
  loadJournal();
  std::vector<Kernel::PolicyRule> rules;
  std::vector<Kernel::RouteTableId> tables;
  for (const bool v6 : {false, true}) {
    for (const auto& rule : routing_.rules(v6)) rules.push_back(rule);
    for (const auto& [table, routes] : routing_.routeTables(v6)) tables.push_back({v6, table});
  }
  recognisePreviousRun(rules, [&model] { return ConfigGate::nexthopsNamed(model); });
  foreign_ = ForeignNumbers::of(rules, tables, journal_);
  previous_ = std::make_unique<PreviousRun>(journal_, rules);
  return true;
}

bool KernelSession::guardMangleTable(const ConfigModel& model, std::string* error,
                                     bool* foreignMangle) {
  std::vector<std::string> foreign;
  for (const bool v6 : {false, true}) {
    std::string readError;
    const std::string save = Kernel::MangleReadback::save(v6, childTimeLimit_, &readError);
    if (!readError.empty()) {
      *error = "cannot read the mangle table: " + readError;
      return false;
    }
    existingChains_[v6 ? 1 : 0] = Kernel::MangleReadback::chains(save);
    previousMarks_[v6 ? 1 : 0] = Kernel::MangleReadback::marksSet(save);
    for (const auto& line : Kernel::MangleReadback::foreign(save)) {
      foreign.push_back(std::string(v6 ? "ip6tables" : "iptables") + " -t mangle " + line);
    }
  }
  if (foreign.empty()) return true;
  const bool takeOver = model.mangleTable == MangleTable::takeOver;
  for (const auto& line : foreign) {
    log_(std::string(takeOver ? "taking over the mangle table, flushing: " : "foreign: ") + line);
  }
  if (takeOver) return true;
  *foreignMangle = true;
  *error = "the mangle table holds " + std::to_string(foreign.size()) +
           " rule(s) or chain(s) that waymark did not write, which its start would flush; "
           "refusing to start (remove them, or say 'mangle-table: take-over')";
  return false;
}

Pbr::CommandRunner& KernelSession::runner(CommandExecutor executor) {
  journaled_.nextIs(executor == CommandExecutor::netlink ? *netlinkRunner_ : *shellRunner_);
  return journaled_;
}

void KernelSession::reserveNumbers(Pbr::NexthopTableManager& manager) {
  foreign_.reserveIn(manager);
}

void KernelSession::adopt(Pbr::NexthopTableManager& manager,
                          const std::vector<Velnet::IpGenAddr>& nexthops) {
  previous_->adoptInto(manager, nexthops);
  for (const auto& [rule, nexthop] : previous_->adoptedRules()) {
    journaled_.keepInPlace(rule, nexthop);
  }
}

void KernelSession::nexthopsProgrammed() {
  asyncWriter_.commit(existingChains_[0], existingChains_[1]);
}

void KernelSession::rulesWritten(Pbr::NexthopTableManager& manager) {
  journaled_.keepNothing();
  removeLeftovers();
  // The previous run's numbers are free now; another's stay reserved.
  previous_->release(manager);
  foreign_.reserveIn(manager);
  log_("started: " + std::to_string(asyncWriter_.transactions()) +
       " start-up transaction(s) written whole, " +
       std::to_string(asyncWriter_.transactionFallbacks()) + " written batch by batch; " +
       std::to_string(leftoverRulesRemoved_) + " rule(s) and " +
       std::to_string(leftoverTablesRemoved_) + " table(s) of the previous run removed");
  if (asyncWriter_.transactionFallbacks() != 0) {
    log_("a start-up transaction was refused: " + asyncWriter_.fallbackReason());
  }
}

void KernelSession::removeLeftovers() {
  // Rules first, so that a marked packet never meets a rule whose table has
  // just been emptied.
  for (const auto& rule : journal_.leftoverRules()) {
    const int result = routing_.deleteRule(rule);
    if (result != 0 && result != -ENOENT) continue;
    journal_.ruleReleased(rule);
    if (result == 0) ++leftoverRulesRemoved_;
  }
  for (const auto& table : journal_.leftoverTables()) {
    const int removed = routing_.flushTable(table.v6, table.table);
    if (removed < 0) continue;
    journal_.tableReleased(table);
    if (removed > 0) ++leftoverTablesRemoved_;
  }
  if (!journal_.compact()) log_(journal_.error());
}

void KernelSession::handleRoutingEvents(Pbr::NexthopTableManager& manager) {
  routingEvents_.handle({[&](const auto& r) { noticeRule(r, manager); },
                         [&](const auto& t) { noticeRoute(t, manager); }, [&] { drift_.suspect(); },
                         [&] {
                           noticeAll(manager);
                           drift_.suspect();
                         }});
}

void KernelSession::handleMangleEvents(double now) {
  // waymark's own restores are followed by the writer's model; a read-back
  // after each of them would cost a second per family at 100,000 rules.
  for (const int pid : mangleEvents_.handle()) {
    if (!restore_.started(pid)) mangleWatch_.suspect(now);
  }
}

bool KernelSession::mangleDrifted(double now, std::vector<std::string>& out) {
  const auto compared = mangleWatch_.check(now, asyncWriter_.writes());
  if (!compared) return false;
  const std::string& found = *compared;
  if (found.empty()) {
    drift_.mangleAgrees();
    return false;
  }
  return drift_.mangleDrifted(found, now, out);
}

void KernelSession::commitRebuild() {
  // A table that cannot be read gets a transaction that assumes nothing of
  // waymark's is left; should something be, iptables refuses it whole.
  const double timeLimit = childTimeLimit_;
  asyncWriter_.commitInPlace([timeLimit](Acl::AclType type) {
    std::string error;
    return Kernel::MangleReadback::own(
        Kernel::MangleReadback::save(type == Acl::aclTypeIpv6, timeLimit, &error));
  });
}

void KernelSession::rebuildDone(const std::string& error) {
  if (error.empty()) {
    drift_.mangleAgrees();
  } else {
    drift_.mangleRebuildFailed("the rebuild failed: " + error);
  }
}

void KernelSession::noticeRule(const Kernel::PolicyRule& rule, Pbr::NexthopTableManager& manager) {
  // waymark's own rules are journaled before they are added; one it has
  // deleted again since is no longer in the kernel.
  if (journal_.holds(rule) || !routing_.hasRule(rule)) return;
  if (!foreign_.addRule(rule)) return;
  foreign_.reserveIn(manager);
  log_("another tool's rule at priority " + std::to_string(rule.priority) + " (table " +
       std::to_string(rule.table) + ", mark " + std::to_string(rule.mark) +
       "): its numbers are reserved");
}

void KernelSession::noticeRoute(const Kernel::RouteTableId& table,
                                Pbr::NexthopTableManager& manager) {
  if (table.table == 0 || (table.table >= 253 && table.table <= 255)) return;
  if (journal_.holds(table) || !routing_.hasRoutes(table)) return;
  if (!foreign_.addTable(table.table)) return;
  foreign_.reserveIn(manager);
  log_("another tool's routes in table " + std::to_string(table.table) + ": it is reserved");
}

void KernelSession::noticeAll(Pbr::NexthopTableManager& manager) {
  for (const bool v6 : {false, true}) {
    for (const auto& rule : routing_.rules(v6)) noticeRule(rule, manager);
    for (const auto& [table, routes] : routing_.routeTables(v6)) noticeRoute({v6, table}, manager);
  }
}

void KernelSession::takeWriterOutcomes(Pbr::AclPlugin& plugin) {
  for (const auto& o : asyncWriter_.takeOutcomes()) {
    const auto option = o.type == Acl::aclTypeIpv6 ? PolicyMap::matchIpv6 : PolicyMap::matchIpv4;
    if (const auto typeData = plugin.aclHelper()->aclTypeData(option)) {
      typeData->iptablesManager()->outcomeIs(o.result, o.text);
    }
  }
}

void KernelSession::catchUp(Pbr::AclPlugin& plugin) {
  handleRoutingEvents(*plugin.nexthopTableManager());
  takeWriterOutcomes(plugin);
}

void KernelSession::describe(nlohmann::json& status) const {
  status["startup"]["leftoverRulesRemoved"] = leftoverRulesRemoved_;
  status["startup"]["leftoverTablesRemoved"] = leftoverTablesRemoved_;
  status["reserved"] = foreign_.toJson();
  drift_.describe(status);
  if (previous_) status["previousRun"] = previous_->toJson();
  status["journal"] = {{"numbersHeld", journal_.size()},
                       {"journalLines", journal_.journalLines()},
                       {"error", journal_.error()},
                       {"problems", journal_.problems()}};
}

Kernel::MangleReadback::RuleCounters KernelSession::ruleCounters(bool v6) {
  std::string error;
  const std::string save = Kernel::MangleReadback::save(v6, childTimeLimit_, &error, true);
  if (!error.empty()) log_("cannot read the counters: " + error);
  return Kernel::MangleReadback::ruleCounters(save);
}

std::string KernelSession::routeLookup(const Velnet::IpGenAddr& src, const Velnet::IpGenAddr& dst,
                                       const std::string& in, uint32_t mark) {
  std::vector<std::string> argv = {"ip"};
  if (dst.isV6()) argv.push_back("-6");
  for (const std::string& word : {std::string("route"), std::string("get"), dst.stringValue(),
                                  std::string("from"), src.stringValue(), std::string("iif"), in}) {
    argv.push_back(word);
  }
  if (mark != 0) {
    argv.push_back("mark");
    argv.push_back(std::to_string(mark));
  }
  const auto r = Kernel::ChildProcess::run(argv, "", childTimeLimit_);
  std::string line = r.output.substr(0, r.output.find('\n'));
  while (!line.empty() && line.back() == ' ') line.pop_back();
  return r.ok() ? line : "no route: " + line;
}

std::vector<std::string> KernelSession::repairDrift(
    Pbr::NexthopTableManager& manager, const std::function<bool(const Velnet::IpGenAddr&)>& usable,
    double now) {
  auto texts = drift_.run(manager, usable, now);
  for (auto& text : keepJournal(manager, now)) texts.push_back(std::move(text));
  return texts;
}

std::vector<std::string> KernelSession::keepJournal(Pbr::NexthopTableManager& manager, double now) {
  if (now - journalCheckedAt_ < 1.0) return {};
  journalCheckedAt_ = now;
  if (journal_.restoreIfGone()) {
    return {"state file " + journal_.path() +
            " or its journal was deleted or replaced: written again from memory"};
  }
  if (journaled_.unrecorded().empty() || !cannotRecord().empty()) return {};
  return retryUnrecorded(manager);
}

std::string KernelSession::cannotRecord() { return journal_.compact() ? "" : journal_.error(); }

std::vector<std::string> KernelSession::retryUnrecorded(Pbr::NexthopTableManager& manager) {
  std::vector<std::string> texts;
  for (const auto& nexthop : journaled_.takeUnrecorded()) {
    if (manager.nexthop(nexthop) == 0 || manager.programmed(nexthop)) continue;
    manager.pendingNexthopIs(nexthop, Pbr::pendingAdd);
    texts.push_back("state journal writable again: nexthop " + nexthop.stringValue() +
                    " is programmed again");
  }
  manager.handleNexthopProgrammingTimeLimit();
  return texts;
}

void KernelSession::loadJournal() {
  journal_.load();
  for (const auto& problem : journal_.problems()) log_("error: " + problem);
}

void KernelSession::recognisePreviousRun(const std::vector<Kernel::PolicyRule>& rules,
                                         const Nexthops& configured) {
  // Only with a previous run to speak of: a damaged file, or waymark's own
  // chains still in place. A first start recognises nothing.
  const bool previousRun =
      journal_.snapshotDamaged() || !previousMarks_[0].empty() || !previousMarks_[1].empty();
  if (journal_.snapshotRead() || !previousRun) return;
  const auto named = configured();
  const std::set<Velnet::IpGenAddr> nexthops(named.begin(), named.end());
  const std::map<uint32_t, Velnet::IpGenAddr> gateways[2] = {routing_.soleDefaultGateways(false),
                                                             routing_.soleDefaultGateways(true)};
  size_t rulesTaken = 0;
  size_t tablesTaken = 0;
  // A backup nexthop's rule has a mark no chain sets yet; its table's one
  // default route via a nexthop of the configuration tells it.
  const auto ours = [&](const Kernel::PolicyRule& rule) {
    const size_t family = rule.v6 ? 1 : 0;
    if (previousMarks_[family].count(rule.mark) != 0) return true;
    const auto via = gateways[family].find(rule.table);
    return via != gateways[family].end() && nexthops.count(via->second) != 0;
  };
  for (const auto& rule : rules) {
    if (rule.mark == 0 || journal_.holds(rule) || !ours(rule)) continue;
    if (!journal_.previousHeld(rule)) continue;
    ++rulesTaken;
    const Kernel::RouteTableId table{rule.v6, rule.table};
    if (routing_.hasRoutes(table) && journal_.previousHeld(table)) ++tablesTaken;
  }
  if (rulesTaken == 0) return;
  log_("the state file is damaged or lost: " + std::to_string(rulesTaken) + " rule(s) and " +
       std::to_string(tablesTaken) +
       " table(s) that waymark's own chains mark for, or that route to its nexthops, are "
       "taken as the previous run's");
}

void KernelSession::removeEverything(const Nexthops& nexthops) {
  loadJournal();
  std::string saves[2];
  for (const bool v6 : {false, true}) {
    std::string error;
    saves[v6 ? 1 : 0] = Kernel::MangleReadback::save(v6, childTimeLimit_, &error);
    if (!error.empty()) log_(error);
    previousMarks_[v6 ? 1 : 0] = Kernel::MangleReadback::marksSet(saves[v6 ? 1 : 0]);
  }
  std::vector<Kernel::PolicyRule> rules;
  for (const bool v6 : {false, true}) {
    for (const auto& rule : routing_.rules(v6)) rules.push_back(rule);
  }
  recognisePreviousRun(rules, nexthops);
  for (const auto& rule : journal_.rules()) routing_.deleteRule(rule);
  for (const auto& table : journal_.tables()) routing_.flushTable(table.v6, table.table);
  for (const bool v6 : {false, true}) {
    const std::string& save = saves[v6 ? 1 : 0];
    std::string text;
    for (const auto& line : Kernel::MangleReadback::removal(save)) text += line + "\n";
    if (text.empty()) continue;
    const auto result = restore_.writeNow(v6 ? Acl::aclTypeIpv6 : Acl::aclTypeIpv4,
                                          "*mangle\n" + text + "COMMIT\n");
    if (!result.ok) log_(result.error);
  }
  journal_.remove();
  log_("removed waymark's chains, rules and tables");
}

}  // namespace Waymark
