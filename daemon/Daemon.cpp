#include "daemon/Daemon.h"

#include <signal.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "daemon/ConfigLoader.h"
#include "daemon/DryRun.h"
#include "daemon/StatusReport.h"
#include "framework/ActivityManager.h"
#include "framework/Trace.h"
#include "kernel/ChildProcess.h"
#include "kernel/MangleReadback.h"
#include "kernel/NetlinkCommandRunner.h"
#include "kernel/QuietCommandRunner.h"
#include "plugin/StateDatabase.h"
#include "policymap/Cell.h"

namespace Waymark {

namespace {

// Prints trace records to standard error.
class StderrTraceSink : public Vix::TraceSink {
 public:
  void write(const Vix::TraceRecord& r) override {
    std::fprintf(stderr, "waymarkd[%d] %.*s %.*s:%d %s\n", r.level,
                 static_cast<int>(r.function.size()), r.function.data(),
                 static_cast<int>(r.file.size()), r.file.data(), r.line, r.text.c_str());
  }
};
StderrTraceSink stderrSink;

void log(const std::string& text) { std::fprintf(stderr, "waymarkd: %s\n", text.c_str()); }

double monotonic() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

bool parseNumber(const std::string& text, double low, double high, double* out) {
  char* end = nullptr;
  const double v = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !std::isfinite(v) || v < low || v > high) return false;
  *out = v;
  return true;
}

}  // namespace

const char* Daemon::usage() {
  return "usage: waymarkd [--config FILE] [--socket PATH] [--state FILE] [--trace-level N]\n"
         "                [--cell-id N] [--child-time-limit S] [--check | --dry-run | --cleanup]\n";
}

std::optional<DaemonOptions> Daemon::parseOptions(int argc, char** argv, std::string* error) {
  DaemonOptions o;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&]() -> std::optional<std::string> {
      if (i + 1 >= argc) return std::nullopt;
      return std::string(argv[++i]);
    };
    std::optional<std::string> v;
    double n = 0;
    if (arg == "--check") {
      o.check = true;
    } else if (arg == "--dry-run") {
      o.dryRun = true;
    } else if (arg == "--cleanup") {
      o.cleanup = true;
    } else if (arg == "--config" && (v = value())) {
      o.config = *v;
    } else if (arg == "--socket" && (v = value())) {
      o.socket = *v;
    } else if (arg == "--state" && (v = value())) {
      o.state = *v;
    } else if (arg == "--trace-level" && (v = value()) && parseNumber(*v, 0, 9, &n)) {
      o.traceLevel = static_cast<int>(n);
    } else if (arg == "--child-time-limit" && (v = value()) && parseNumber(*v, 0.1, 3600, &n)) {
      o.childTimeLimit = n;
    } else if (arg == "--cell-id" && (v = value()) && parseNumber(*v, 0, 1e9, &n)) {
      o.cellId = static_cast<uint32_t>(n);
    } else {
      *error = "bad argument: " + arg;
      return std::nullopt;
    }
  }
  return o;
}

const char* phaseName(StartupPhase phase) {
  switch (phase) {
    case StartupPhase::programmingNexthops:
      return "programming nexthops";
    case StartupPhase::writingRules:
      return "writing rules";
    case StartupPhase::removingLeftovers:
      return "removing leftovers";
    case StartupPhase::running:
      break;
  }
  return "running";
}

Daemon::Daemon(DaemonOptions options) : options_(std::move(options)), journal_(options_.state) {}

Daemon::~Daemon() {
  for (const int fd : {epoll_, timer_, signals_}) {
    if (fd >= 0) close(fd);
  }
}

int Daemon::run() {
  Vix::Trace::sinkIs(&stderrSink, options_.traceLevel);
  // A child or a client that goes away early must cost an error, not the
  // daemon.
  signal(SIGPIPE, SIG_IGN);
  try {
    model_ = ConfigLoader::loadFile(options_.config);
  } catch (const ConfigError& e) {
    std::fprintf(stderr, "%s\n", e.what());
    if (!options_.cleanup) return 1;
  }
  if (options_.check) {
    std::printf("%s: ok (%zu access lists, %zu classes, %zu policies, %zu interfaces)\n",
                options_.config.c_str(), model_.accessLists.size(), model_.classMaps.size(),
                model_.policyMaps.size(), model_.interfaces.size());
    return 0;
  }
  std::string error;
  if (ControlServer::serving(options_.socket)) {
    log("another waymarkd serves " + options_.socket + "; refusing to start");
    return kExitAnotherInstance;
  }
  if (!options_.dryRun && !lock_.take(options_.state, &error)) {
    log(error + "; refusing to " + (options_.cleanup ? "clean up" : "start"));
    return kExitAnotherInstance;
  }
  if (options_.cleanup) {
    cleanupKernel();
    return 0;
  }
  if (!start(&error)) {
    log(error);
    return startFailure_;
  }
  loop();
  log("stopping; the kernel stays programmed");
  return 0;
}

bool Daemon::start(std::string* error) {
  startedAt_ = monotonic();
  // Blocked before the writer's threads exist, which inherit the mask: the
  // signals must reach the signalfd, never a thread's default action.
  sigset_t mask;
  sigemptyset(&mask);
  for (const int s : {SIGHUP, SIGTERM, SIGINT}) sigaddset(&mask, s);
  sigprocmask(SIG_BLOCK, &mask, nullptr);
  Cell::cellIdIs(options_.cellId);
  store_ = Vix::make<Stordb::EntityManager>();
  pbrConfig_ = Vix::make<Pbr::Config>();
  aclConfig_ = Vix::make<Acl::Config>();
  ipStatus_ = Vix::make<Ip::Status>();
  ip6Status_ = Vix::make<Ip6::Status>();

  interfaces_ = std::make_unique<InterfaceStatusSync>(ipStatus_, ip6Status_);
  netlink_ = std::make_unique<NetlinkListener>(
      [this](const NetlinkListener::Interface& shown) { interfaces_->publish(shown); });
  if (!netlink_->open(error)) return false;
  if (!options_.dryRun) {
    if (!guardMangleTable(error)) return false;
    // Subscribed before the kernel is read, so that nothing another tool
    // adds in between goes unseen.
    if (!routingEvents_.open(error)) return false;
    readKernel();
  }

  Pbr::fillStateDatabase(*store_, {pbrConfig_, Vix::make<PolicyMap::PolicyMapTypeStatus>(),
                                   aclConfig_, ipStatus_, ip6Status_});
  applier_ = std::make_unique<ConfigApplier>(pbrConfig_, aclConfig_);
  gate_ = std::make_unique<ConfigGate>(*applier_);
  gate_->prepare(model_);

  createRunners();
  plugin_ = Pbr::aclPluginFactory("waymark");
  AclUtils::IptablesWriter* writer =
      asyncWriter_ ? static_cast<AclUtils::IptablesWriter*>(asyncWriter_.get())
                   : printingWriter_.get();
  plugin_->init(Vix::make<Acl::PluginContext>(store_, executor(model_.tunables), writer));
  foreign_.reserveIn(*plugin_->nexthopTableManager());
  if (previous_) {
    previous_->adoptInto(*plugin_->nexthopTableManager(), ConfigGate::nexthopsNamed(model_));
    for (const auto& [rule, nexthop] : previous_->adoptedRules()) {
      journaled_->keepInPlace(rule, nexthop);
    }
  }
  applyTunables(model_.tunables);
  gate_->begin(plugin_->nexthopTableManager(), model_);

  control_ = std::make_unique<ControlServer>(
      [this](const nlohmann::json& request) { return handleRequest(request); });
  if (!control_->listen(options_.socket, error)) return false;

  signals_ = signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK);
  timer_ = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
  epoll_ = epoll_create1(EPOLL_CLOEXEC);
  if (signals_ < 0 || timer_ < 0 || epoll_ < 0) {
    *error = std::string("event loop: ") + std::strerror(errno);
    return false;
  }
  std::vector<int> fds = {signals_, timer_, netlink_->fd(), control_->fd()};
  if (asyncWriter_) fds.push_back(asyncWriter_->fd());
  if (routingEvents_.fd() >= 0) fds.push_back(routingEvents_.fd());
  for (const int fd : fds) {
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = fd;
    epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &ev);
  }
  log("running with " + options_.config);
  return true;
}

bool Daemon::guardMangleTable(std::string* error) {
  std::vector<std::string> foreign;
  for (const bool v6 : {false, true}) {
    std::string readError;
    const std::string save = Kernel::MangleReadback::save(v6, options_.childTimeLimit, &readError);
    if (!readError.empty()) {
      *error = "cannot read the mangle table: " + readError;
      return false;
    }
    existingChains_[v6 ? 1 : 0] = Kernel::MangleReadback::chains(save);
    for (const auto& line : Kernel::MangleReadback::foreign(save)) {
      foreign.push_back(std::string(v6 ? "ip6tables" : "iptables") + " -t mangle " + line);
    }
  }
  if (foreign.empty()) return true;
  const bool takeOver = model_.mangleTable == MangleTable::takeOver;
  for (const auto& line : foreign) {
    log(std::string(takeOver ? "taking over the mangle table, flushing: " : "foreign: ") + line);
  }
  if (takeOver) return true;
  startFailure_ = kExitForeignMangle;
  *error = "the mangle table holds " + std::to_string(foreign.size()) +
           " rule(s) or chain(s) that waymark did not write, which its start would flush; "
           "refusing to start (remove them, or say 'mangle-table: take-over')";
  return false;
}

void Daemon::readKernel() {
  journal_.load();
  routing_ = std::make_unique<Kernel::KernelRouting>();
  std::vector<Kernel::PolicyRule> rules;
  std::vector<Kernel::RouteTableId> tables;
  for (const bool v6 : {false, true}) {
    for (const auto& rule : routing_->rules(v6)) rules.push_back(rule);
    for (const auto& [table, routes] : routing_->routeTables(v6)) tables.push_back({v6, table});
  }
  foreign_ = ForeignNumbers::of(rules, tables, journal_);
  previous_ = std::make_unique<PreviousRun>(journal_, rules);
}

void Daemon::createRunners() {
  if (options_.dryRun) {
    shellRunner_ = std::make_unique<PrintingCommandRunner>();
    printingWriter_ = std::make_unique<PrintingIptablesWriter>();
    phase_ = StartupPhase::running;
    return;
  }
  shellRunner_ = std::make_unique<Kernel::QuietCommandRunner>(options_.childTimeLimit);
  netlinkRunner_ = std::make_unique<Kernel::NetlinkCommandRunner>(*routing_, *shellRunner_);
  journaled_ = std::make_unique<Kernel::JournaledCommandRunner>(journal_, *routing_, *shellRunner_);
  restore_ = std::make_unique<AclUtils::RestoreIptablesWriter>(options_.childTimeLimit);
  asyncWriter_ = std::make_unique<Kernel::AsyncIptablesWriter>(*restore_);
  // The dispatch chain's set-up and the start's batches form one
  // transaction per family.
  asyncWriter_->hold();
}

void Daemon::loop() {
  // The first wait does not block: requests that arrived while the daemon
  // started are answered before any kernel work begins.
  int timeout = 0;
  while (!stop_) {
    serve(timeout);
    const double turn = monotonic();
    // One timer per turn: each is bounded by its own time slice, and the
    // loop serves its sockets between them.
    Vix::activityManager().runDue(1);
    gate_->applyWhenQuiet(model_);
    advanceStartup();
    // A number of another's that coincided with one of waymark's becomes
    // free when waymark lets go of it; it must not be handed out then.
    foreign_.reserveIn(*plugin_->nexthopTableManager());
    const double sleep = Vix::activityManager().sleepTime();
    itimerspec when{};
    if (sleep != Vix::kNever && sleep > 0) {
      when.it_value.tv_sec = static_cast<time_t>(sleep);
      when.it_value.tv_nsec = static_cast<long>((sleep - std::floor(sleep)) * 1e9) + 1;
    }
    timerfd_settime(timer_, 0, &when, nullptr);
    longestTurn_ = std::max(longestTurn_, monotonic() - turn);
    timeout = sleep == 0 ? 0 : -1;
  }
}

void Daemon::serve(int timeout) {
  epoll_event events[8];
  const int n = epoll_wait(epoll_, events, 8, timeout);
  for (int i = 0; i < n; ++i) {
    const int fd = events[i].data.fd;
    if (fd == timer_) {
      uint64_t expirations;
      if (read(timer_, &expirations, sizeof expirations) < 0) continue;
    } else if (fd == signals_) {
      signalfd_siginfo info{};
      while (read(signals_, &info, sizeof info) == sizeof info) {
        if (info.ssi_signo == SIGHUP) {
          const std::string error = reload();
          log(error.empty() ? "reloaded " + options_.config : "reload refused: " + error);
        } else {
          stop_ = true;
        }
      }
    } else if (fd == netlink_->fd()) {
      netlink_->handleEvents();
    } else if (fd == control_->fd()) {
      control_->handle();
    } else if (asyncWriter_ && fd == asyncWriter_->fd()) {
      takeWriterOutcomes();
    } else if (fd == routingEvents_.fd()) {
      handleRoutingEvents();
    }
  }
}

void Daemon::handleRoutingEvents() {
  routingEvents_.handle({[this](const auto& r) { noticeRule(r); },
                         [this](const auto& t) { noticeRoute(t); }, [this] { noticeAll(); }});
}

void Daemon::noticeRule(const Kernel::PolicyRule& rule) {
  // waymark's own rules are journaled before they are added; one it has
  // deleted again since is no longer in the kernel.
  if (journal_.holds(rule) || !routing_->hasRule(rule)) return;
  if (!foreign_.addRule(rule)) return;
  foreign_.reserveIn(*plugin_->nexthopTableManager());
  log("another tool's rule at priority " + std::to_string(rule.priority) + " (table " +
      std::to_string(rule.table) + ", mark " + std::to_string(rule.mark) +
      "): its numbers are reserved");
}

void Daemon::noticeRoute(const Kernel::RouteTableId& table) {
  if (table.table == 0 || (table.table >= 253 && table.table <= 255)) return;
  if (journal_.holds(table) || !routing_->hasRoutes(table)) return;
  if (!foreign_.addTable(table.table)) return;
  foreign_.reserveIn(*plugin_->nexthopTableManager());
  log("another tool's routes in table " + std::to_string(table.table) + ": it is reserved");
}

void Daemon::noticeAll() {
  for (const bool v6 : {false, true}) {
    for (const auto& rule : routing_->rules(v6)) noticeRule(rule);
    for (const auto& [table, routes] : routing_->routeTables(v6)) noticeRoute({v6, table});
  }
}

void Daemon::takeWriterOutcomes() {
  for (const auto& o : asyncWriter_->takeOutcomes()) {
    const auto option = o.type == Acl::aclTypeIpv6 ? PolicyMap::matchIpv6 : PolicyMap::matchIpv4;
    if (const auto typeData = plugin_->aclHelper()->aclTypeData(option)) {
      typeData->iptablesManager()->outcomeIs(o.result, o.text);
    }
  }
}

void Daemon::advanceStartup() {
  if (phase_ == StartupPhase::programmingNexthops) {
    if (gate_->startingUp() || gate_->waiting() || !StatusReport::idle(*plugin_)) return;
    phase_ = StartupPhase::writingRules;
    asyncWriter_->commit(existingChains_[0], existingChains_[1]);
  }
  if (phase_ == StartupPhase::writingRules) {
    if (!asyncWriter_->idle()) return;
    phase_ = StartupPhase::removingLeftovers;
    journaled_->keepNothing();
    removeLeftovers();
    // The previous run's numbers are free now; another's stay reserved.
    previous_->release(*plugin_->nexthopTableManager());
    foreign_.reserveIn(*plugin_->nexthopTableManager());
    phase_ = StartupPhase::running;
    log("started: " + std::to_string(asyncWriter_->transactions()) +
        " start-up transaction(s) written whole, " +
        std::to_string(asyncWriter_->transactionFallbacks()) + " written batch by batch; " +
        std::to_string(leftoverRulesRemoved_) + " rule(s) and " +
        std::to_string(leftoverTablesRemoved_) + " table(s) of the previous run removed");
    if (asyncWriter_->transactionFallbacks() != 0) {
      log("a start-up transaction was refused: " + asyncWriter_->fallbackReason());
    }
  }
}

void Daemon::removeLeftovers() {
  // Rules first, so that a marked packet never meets a rule whose table has
  // just been emptied.
  for (const auto& rule : journal_.leftoverRules()) {
    const int result = routing_->deleteRule(rule);
    if (result != 0 && result != -ENOENT) continue;
    journal_.ruleReleased(rule);
    if (result == 0) ++leftoverRulesRemoved_;
  }
  for (const auto& table : journal_.leftoverTables()) {
    const int removed = routing_->flushTable(table.v6, table.table);
    if (removed < 0) continue;
    journal_.tableReleased(table);
    if (removed > 0) ++leftoverTablesRemoved_;
  }
  if (!journal_.compact()) log(journal_.error());
}

std::string Daemon::reload() {
  ++reloads_;
  try {
    model_ = ConfigLoader::loadFile(options_.config);
  } catch (const ConfigError& e) {
    ++reloadsFailed_;
    lastReloadError_ = e.what();
    return lastReloadError_;
  }
  applyTunables(model_.tunables);
  gate_->requestApply();
  gate_->applyWhenQuiet(model_);
  lastReloadError_.clear();
  return "";
}

nlohmann::json Daemon::interfaces() const {
  nlohmann::json out = nlohmann::json::object();
  ipStatus_->ipIntfStatusMap().forEach([&](const Ip::IpIntfStatus& intf) {
    nlohmann::json addrs = nlohmann::json::array();
    if (intf.activeAddrWithMask() != Velnet::IpAddrWithMask()) {
      addrs.push_back(intf.activeAddrWithMask().stringValue());
    }
    for (const auto& [addr, active] : intf.activeSecondaryWithMask()) {
      if (active) addrs.push_back(addr.stringValue());
    }
    out[intf.key().stringValue()] = addrs;
  });
  return out;
}

bool Daemon::idle() const {
  return phase_ == StartupPhase::running && !gate_->waiting() && StatusReport::idle(*plugin_) &&
         (!asyncWriter_ || asyncWriter_->idle());
}

Pbr::CommandRunner* Daemon::executor(const Tunables& t) const {
  if (options_.dryRun) return shellRunner_.get();
  journaled_->nextIs(t.commandExecutor == CommandExecutor::netlink ? *netlinkRunner_
                                                                   : *shellRunner_);
  return journaled_.get();
}

void Daemon::applyTunables(const Tunables& t) {
  plugin_->nexthopTableManager()->commandRunnerIs(executor(t));
  plugin_->nexthopTableManager()->nexthopProgrammingTimeLimitIs(t.nexthopProgrammingTimeLimit);
  for (const auto option : {PolicyMap::matchIpv4, PolicyMap::matchIpv6}) {
    const auto typeData = plugin_->aclHelper()->aclTypeDataIs(option);
    typeData->rulesPerInvocationIs(t.rulesPerInvocation);
    typeData->ruleProgrammingTimeLimitIs(t.ruleProgrammingTimeLimit);
  }
}

std::string Daemon::setTunable(const std::string& name, const std::string& value) {
  Tunables t = model_.tunables;
  const std::string error = t.assign(name, value);
  if (!error.empty()) return error;
  model_.tunables = t;
  applyTunables(t);
  return "";
}

nlohmann::json Daemon::status() const {
  nlohmann::json status = StatusReport::build(*plugin_);
  status["idle"] = idle();
  status["interfaces"] = interfaces();
  const auto& manager = *plugin_->nexthopTableManager();
  uint32_t programmed = 0;
  manager.programmedSet().forEach([&](const auto&, bool p) { programmed += p ? 1 : 0; });
  status["startup"] = {{"phase", phaseName(phase_)},
                       {"nexthopsProgrammed", programmed},
                       {"nexthopsPending", manager.pendingNexthops().members()},
                       {"leftoverRulesRemoved", leftoverRulesRemoved_},
                       {"leftoverTablesRemoved", leftoverTablesRemoved_}};
  status["reserved"] = foreign_.toJson();
  if (previous_) status["previousRun"] = previous_->toJson();
  status["journal"] = {{"numbersHeld", journal_.size()},
                       {"journalLines", journal_.journalLines()},
                       {"error", journal_.error()}};
  status["daemon"] = {
      {"config", options_.config},
      {"uptime", monotonic() - startedAt_},
      {"longestLoopTurn", longestTurn_},
      {"reloads", reloads_},
      {"reloadsFailed", reloadsFailed_},
      {"lastReloadError", lastReloadError_},
      {"netlinkRedumps", netlink_->redumps()},
      {"commandExecutor",
       model_.tunables.commandExecutor == CommandExecutor::netlink ? "netlink" : "shell"},
      {"startingUp", phase_ != StartupPhase::running},
      {"configWaiting", gate_->waiting()},
      {"writerIdle", !asyncWriter_ || asyncWriter_->idle()},
      {"dryRun", options_.dryRun}};
  return status;
}

nlohmann::json Daemon::handleRequest(const nlohmann::json& request) {
  const std::string command = request.value("command", "");
  if (command == "status") return status();
  if (command == "reload") {
    const std::string error = reload();
    return {{"ok", error.empty()}, {"error", error}};
  }
  if (command == "set") {
    const std::string error = setTunable(request.value("tunable", ""), request.value("value", ""));
    return {{"ok", error.empty()}, {"error", error}};
  }
  if (command == "idle") {
    // What the kernel has already reported counts as work not yet done:
    // take it in first, so that a change made just before asking is seen.
    netlink_->handleEvents();
    if (routingEvents_.fd() >= 0) handleRoutingEvents();
    if (asyncWriter_) takeWriterOutcomes();
    return {{"idle", idle()}};
  }
  return {{"ok", false}, {"error", "unknown command '" + command + "'"}};
}

void Daemon::cleanupKernel() {
  journal_.load();
  Kernel::KernelRouting routing;
  for (const auto& rule : journal_.rules()) routing.deleteRule(rule);
  for (const auto& table : journal_.tables()) routing.flushTable(table.v6, table.table);
  AclUtils::RestoreIptablesWriter writer;
  for (const bool v6 : {false, true}) {
    const char* tool = v6 ? "ip6tables" : "iptables";
    const auto listing = Kernel::ChildProcess::run({tool, "-w", "-t", "mangle", "-S"}, "", 30);
    std::istringstream in(listing.output);
    std::string text;
    std::vector<std::string> chains;
    for (std::string line; std::getline(in, line);) {
      if (line == "-A PREROUTING -j TAMBRO_PBR_INTF") text += "-D PREROUTING -j TAMBRO_PBR_INTF\n";
      if (line.rfind("-N PBR_", 0) == 0 || line == "-N TAMBRO_PBR_INTF")
        chains.push_back(line.substr(3));
    }
    for (const auto& c : chains) text += "-F " + c + "\n";
    for (const auto& c : chains) text += "-X " + c + "\n";
    if (text.empty()) continue;
    const auto result =
        writer.writeNow(v6 ? Acl::aclTypeIpv6 : Acl::aclTypeIpv4, "*mangle\n" + text + "COMMIT\n");
    if (!result.ok) log(result.error);
  }
  journal_.remove();
  log("removed waymark's chains, rules and tables");
}

}  // namespace Waymark
