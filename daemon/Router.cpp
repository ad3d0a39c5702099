#include "daemon/Router.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <utility>

#include "config/ConfigLoader.h"
#include "config/ReloadPlan.h"
#include "framework/ActivityManager.h"
#include "insight/ChangeNotices.h"
#include "insight/ClassCounters.h"
#include "insight/ConfigLinter.h"
#include "insight/Explanation.h"
#include "insight/MetricsSnapshot.h"
#include "insight/PacketMatcher.h"
#include "insight/StatusReport.h"
#include "plugin/ClassCommonData.h"
#include "plugin/StateDatabase.h"
#include "sync/ConnectedLinks.h"
#include "sync/MangleRebuild.h"

namespace Waymark {

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

Router::Router(RouterKernel& kernel, const Vix::TimeSource& clock, std::string configPath, Log log)
    : kernel_(kernel),
      clock_(clock),
      configPath_(std::move(configPath)),
      startedAt_(clock.now()),
      log_(std::move(log)) {
  Pbr::fillStateDatabase(*store_, {pbrConfig_, policyStatus_, aclConfig_, ipStatus_, ip6Status_});
}

void Router::startPlugin() {
  plugin_ = Pbr::aclPluginFactory("waymark");
  plugin_->init(Vix::make<Acl::PluginContext>(store_, &kernel_.runner(tunables_.commandExecutor),
                                              &kernel_.writer()));
}

void Router::start(ConfigModel model) {
  model_ = std::make_shared<const ConfigModel>(std::move(model));
  tunables_ = model_->tunables;
  gate_.prepare(*model_);
  startPlugin();
  kernel_.reserveNumbers(*plugin_->nexthopTableManager());
  kernel_.adopt(*plugin_->nexthopTableManager(), ConfigGate::nexthopsNamed(*model_));
  applyTunables(tunables_);
  gate_.begin(plugin_->nexthopTableManager(), *model_);
  configureHealthChecks();
  // Steering first: the warnings are found while the start programs.
  lint();
}

void Router::lint(std::function<void()> done) {
  const uint64_t id = ++lints_;
  linting_ = true;
  background_.post([this, id, model = model_, done = std::move(done)]() -> BackgroundWork::Done {
    auto warnings = ConfigLinter::warnings(*model);
    return [this, id, warnings = std::move(warnings), done]() {
      if (id == lints_) {
        linting_ = false;
        configWarnings_ = warnings;
        for (const auto& warning : configWarnings_) event("config-warning", warning);
      }
      if (done) done();
    };
  });
}

void Router::configureHealthChecks() {
  std::map<Velnet::IpGenAddr, HealthCheckSpec> checks;
  for (const auto& nexthop : ConfigGate::checkedNexthops(*model_)) {
    checks.emplace(nexthop, model_->healthChecks.at(nexthop));
  }
  health_.configure(checks, clock_.now());
}

void Router::takeVerdicts() {
  const auto verdicts = health_.takeVerdicts();
  for (const auto& v : verdicts) {
    event(v.up ? "nexthop-up" : "nexthop-down",
          "nexthop " + v.nexthop.stringValue() + (v.up ? " up: " : " down: ") + v.reason);
  }
  if (!verdicts.empty()) gate_.requestApply();
}

double Router::sleepTime() const {
  const double health = std::max(0.0, health_.nextDue() - clock_.now());
  // A suspected drift is compared after a grace of a tenth of a second.
  const double drift = kernel_.driftSuspected() ? 0.05 : Vix::kNever;
  // A comparison waits for waymark's own work; what ends that work wakes
  // the loop anyway.
  const double mangle = phase_ == StartupPhase::running && !rebuild_.running() && quiet()
                            ? std::max(0.0, kernel_.mangleCheckDue() - clock_.now())
                            : Vix::kNever;
  const double journal = phase_ == StartupPhase::running
                             ? std::max(0.0, kernel_.journalCheckDue() - clock_.now())
                             : Vix::kNever;
  const double startRetry = std::max(0.0, rebuild_.startRetryDue() - clock_.now());
  return std::min({Vix::activityManager().sleepTime(), health, drift, mangle, journal, startRetry});
}

void Router::probeAnswered(uint16_t sequence, const Velnet::IpGenAddr& from) {
  health_.answered(sequence, from, clock_.now());
  takeVerdicts();
}

void Router::turn() {
  // One timer per turn: each is bounded by its own time slice, and the
  // loop serves its sockets between them.
  Vix::activityManager().runDue(1);
  background_.finish();
  health_.run(clock_.now());
  takeVerdicts();
  gate_.applyWhenQuiet(*model_, health_.down());
  advanceStartup();
  kernel_.reserveNumbers(*plugin_->nexthopTableManager());
  if (phase_ == StartupPhase::running) keepKernel();
  noticeChanges();
}

void Router::advanceStartup() {
  if (phase_ == StartupPhase::programmingNexthops) {
    if (gate_.startingUp() || gate_.waiting() || !StatusReport::idle(*plugin_)) return;
    phase_ = StartupPhase::writingRules;
    kernel_.nexthopsProgrammed();
  }
  if (phase_ == StartupPhase::writingRules) {
    rebuild_.advance(*plugin_, StatusReport::idle(*plugin_));
    if (rebuild_.running() || kernel_.writing() || !rebuild_.startLanded(*plugin_, clock_.now())) {
      return;
    }
    phase_ = StartupPhase::removingLeftovers;
    kernel_.rulesWritten(*plugin_->nexthopTableManager());
    phase_ = StartupPhase::running;
  }
}

void Router::keepKernel() {
  const auto usable = [this](const Velnet::IpGenAddr& a) { return !linkOf(a).interface.empty(); };
  for (const auto& text :
       kernel_.repairDrift(*plugin_->nexthopTableManager(), usable, clock_.now())) {
    event("drift", text);
  }
  if (rebuild_.running()) {
    rebuild_.advance(*plugin_, StatusReport::idle(*plugin_));
    return;
  }
  // Compared only when nothing is on its way, so that what waymark is
  // writing is not taken for drift.
  if (!quiet()) return;
  if (resyncRequested_) {
    resyncRequested_ = false;
    rebuild_.begin(*plugin_, "resync");
    return;
  }
  if (clock_.now() < kernel_.mangleCheckDue()) return;
  std::vector<std::string> found;
  const bool rebuild = kernel_.mangleDrifted(clock_.now(), found);
  for (const auto& text : found) event("drift", text);
  if (rebuild) rebuild_.begin(*plugin_, "drift");
}

bool Router::quiet() const {
  return !gate_.waiting() && StatusReport::idle(*plugin_) && !kernel_.writing();
}

void Router::resync() {
  kernel_.resumeDriftRepair();
  kernel_.suspectDrift();
  resyncRequested_ = true;
  event("resync",
        "resync asked: waymark's mangle tables are rebuilt, its rules and routes compared");
}

namespace {

// Whether `next` names a nexthop that `current` does not.
bool newNexthops(const ConfigModel& current, const ConfigModel& next) {
  const auto named = ConfigGate::nexthopsNamed(current);
  const std::set<Velnet::IpGenAddr> known(named.begin(), named.end());
  for (const auto& nexthop : ConfigGate::nexthopsNamed(next)) {
    if (known.count(nexthop) == 0) return true;
  }
  return false;
}

}  // namespace

void Router::reload(Reloaded done) {
  ++reloads_;
  // The file is read and checked off the loop; the loop applies it.
  background_.post([this, path = configPath_, done = std::move(done)]() -> BackgroundWork::Done {
    auto model = std::make_shared<ConfigModel>();
    std::string error;
    try {
      *model = ConfigLoader::loadFile(path);
    } catch (const ConfigError& e) {
      error = e.what();
    }
    return [this, model, error, done]() { applyReload(model, error, done); };
  });
}

void Router::applyReload(const std::shared_ptr<ConfigModel>& model, const std::string& error,
                         const Reloaded& done) {
  if (!error.empty()) {
    ++reloadsFailed_;
    lastReloadError_ = error;
    event("reload-refused", "reload refused, nothing changed: " + lastReloadError_);
    if (done) done(lastReloadError_);
    return;
  }
  // A reload that would program nexthops the state journal cannot record
  // changes nothing: the kernel would hold what no later run knows of.
  if (const std::string why = newNexthops(*model_, *model) ? kernel_.cannotRecord() : "";
      !why.empty()) {
    applyReload(model, "cannot record new nexthops in the state journal: " + why, done);
    return;
  }
  const ReloadPlan plan = ReloadPlan::between(*model_, *model);
  lastPlan_ = plan.toJson();
  lastPlanText_ = plan.text();
  model_ = model;
  tunables_ = model_->tunables;
  applyTunables(tunables_);
  configureHealthChecks();
  kernel_.resumeDriftRepair();
  gate_.requestApply();
  gate_.applyWhenQuiet(*model_, health_.down());
  lastReloadError_.clear();
  event("reload", "reloaded " + configPath_ + ": " + lastPlanText_);
  lint([done] {
    if (done) done("");
  });
}

bool Router::idle() const {
  return phase_ == StartupPhase::running && quiet() && !rebuild_.running() && !resyncRequested_ &&
         !kernel_.driftSuspected() && !kernel_.mangleSuspected();
}

void Router::applyTunables(const Tunables& t) {
  auto& manager = *plugin_->nexthopTableManager();
  manager.commandRunnerIs(&kernel_.runner(t.commandExecutor));
  manager.nexthopProgrammingTimeLimitIs(t.nexthopProgrammingTimeLimit);
  for (const auto option : {PolicyMap::matchIpv4, PolicyMap::matchIpv6}) {
    const auto typeData = plugin_->aclHelper()->aclTypeDataIs(option);
    typeData->rulesPerInvocationIs(t.rulesPerInvocation);
    typeData->ruleProgrammingTimeLimitIs(t.ruleProgrammingTimeLimit);
  }
}

std::string Router::setTunable(const std::string& name, const std::string& value) {
  Tunables t = tunables_;
  const std::string error = t.assign(name, value);
  if (!error.empty()) return error;
  tunables_ = t;
  applyTunables(t);
  return "";
}

HealthMonitor::Link Router::linkOf(const Velnet::IpGenAddr& nexthop) const {
  const auto link = ConnectedLinks::linkOf(*ipStatus_, *ip6Status_, nexthop);
  return {link.interface, link.source};
}

void Router::event(const std::string& kind, const std::string& text) {
  events_.add(clock_.now() - startedAt_, kind, text);
}

void Router::noticeChanges() {
  const auto& m = *plugin_->nexthopTableManager();
  const auto v4 = plugin_->aclHelper()->aclTypeData(PolicyMap::matchIpv4);
  const auto v6 = plugin_->aclHelper()->aclTypeData(PolicyMap::matchIpv6);
  ChangeNotices::Batches batches;
  for (const size_t i : {0, 1}) {
    const auto& typeData = i == 0 ? v4 : v6;
    if (typeData) batches.failed[i] = typeData->iptablesManager()->batchesFailed();
  }
  // Nothing the plug-in did since the last look: nothing to compare.
  const auto activity = std::make_tuple(
      m.nexthopsAdded(), m.nexthopsDeleted(), m.pendingNexthops().members(),
      m.nexthopsWithoutResources().members(), m.programmedSet().members(), gate_.waiting(),
      applier_.applications(), batches.failed[0], batches.failed[1],
      ipStatus_->ipIntfStatusMap().members() + ip6Status_->intfMap().members());
  if (activity == activity_) return;
  activity_ = activity;
  for (const size_t i : {0, 1}) {
    const auto& typeData = i == 0 ? v4 : v6;
    if (typeData) batches.lastError[i] = typeData->iptablesManager()->lastError();
  }
  const nlohmann::json now = StatusReport::build(*plugin_, unrecorded());
  for (const auto& notice : notices_.since(now, runTimeWarnings(now), batches)) {
    event(notice.kind, notice.text);
  }
}

std::set<std::string> Router::runTimeWarnings(const nlohmann::json& status) const {
  std::set<std::string> out;
  for (const auto& [intf, policy] : applier_.applied().interfaces) {
    if (ipStatus_->ipIntfStatus(intf) || ip6Status_->intf(intf)) continue;
    out.insert("interface " + intf.stringValue() + " applies policy " + policy +
               " but does not exist");
  }
  for (const auto& n : status["nexthops"]) {
    if (n["state"] != Reason::kOutsideSubnets) continue;
    out.insert("nexthop " + n["address"].get<std::string>() + " is " + Reason::kOutsideSubnets);
  }
  // What the state journal would not trust, and why it cannot record.
  const auto journal = status.value("journal", nlohmann::json::object());
  for (const auto& p : journal.value("problems", nlohmann::json::array())) out.insert(p);
  const std::string error = journal.value("error", "");
  if (!error.empty()) out.insert("state journal: " + error + "; additions are refused meanwhile");
  return out;
}

nlohmann::json Router::explain(const nlohmann::json& request) {
  std::string error;
  const auto packet = Explanation::packetOf(request, &error);
  if (!packet) return {{"ok", false}, {"error", error}};
  const Explanation::Context context{*plugin_, unrecorded(), [this](const Velnet::IpGenAddr& a) {
                                       const auto health = health_.view(a);
                                       return health && !health->up;
                                     }};
  uint32_t mark = 0;
  nlohmann::json out = Explanation::of(applier_.applied(), *packet, context, &mark);
  out["kernelRoute"] = kernel_.routeLookup(packet->src, packet->dst, packet->in, mark);
  return out;
}

void Router::metrics(std::function<void(std::vector<prometheus::MetricFamily>)> done) {
  classCounters([this, done = std::move(done)](nlohmann::json counters) {
    done(MetricsSnapshot::build(status(), counters));
  });
}

void Router::classCounters(std::function<void(nlohmann::json)> done) {
  countersAsked_.push_back(std::move(done));
  // One read-back answers everyone who asks while it is on its way, so that
  // scrapers asking without pause cost one read-back at a time.
  if (countersAsked_.size() > 1) return;
  background_.post([this, chains = ClassCounters::chainsOf(*plugin_)]() {
    auto classes =
        ClassCounters::read(chains, [this](bool v6) { return kernel_.ruleCounters(v6); });
    return BackgroundWork::Done([this, classes = std::move(classes)]() {
      for (const auto& asked : std::exchange(countersAsked_, {})) asked({{"classes", classes}});
    });
  });
}

StatusReport::Unrecorded Router::unrecorded() const {
  return [this](const Velnet::IpGenAddr& nexthop) { return kernel_.unrecorded(nexthop); };
}

nlohmann::json Router::status() const {
  nlohmann::json status = StatusReport::build(*plugin_, unrecorded());
  status["version"] = WAYMARK_VERSION;
  status["uptime"] = clock_.now() - startedAt_;
  status["idle"] = idle();
  status["interfaces"] = ConnectedLinks::addresses(*ipStatus_, *ip6Status_);
  for (auto& nexthop : status["nexthops"]) {
    const auto address = Velnet::IpGenAddr::parse(nexthop["address"].get<std::string>());
    const std::string intf = linkOf(address).interface;
    nexthop["interface"] = intf.empty() ? nlohmann::json() : nlohmann::json(intf);
    describeHealth(nexthop);
  }
  const auto& manager = *plugin_->nexthopTableManager();
  uint32_t programmed = 0;
  manager.programmedSet().forEach([&](const auto&, bool p) { programmed += p ? 1 : 0; });
  const auto& queues = status["queues"];
  status["startup"] = {
      {"phase", phaseName(phase_)},
      {"nexthopsProgrammed", programmed},
      {"nexthopsPending", manager.pendingNexthops().members()},
      {"rulesWaiting", queues["ipv4"].get<uint32_t>() + queues["ipv6"].get<uint32_t>()},
      {"writeAttempts", rebuild_.startAttempts()},
      {"writeError", rebuild_.startError()},
      {"nextWriteIn",
       rebuild_.startRetryDue() == Vix::kNever
           ? nlohmann::json()
           : nlohmann::json(std::max(0.0, rebuild_.startRetryDue() - clock_.now()))}};
  status["daemon"] = {{"config", configPath_},
                      {"uptime", clock_.now() - startedAt_},
                      {"longestLoopTurn", longestTurn_},
                      {"reloads", reloads_},
                      {"reloadsFailed", reloadsFailed_},
                      {"lastReloadError", lastReloadError_},
                      {"commandExecutor",
                       tunables_.commandExecutor == CommandExecutor::netlink ? "netlink" : "shell"},
                      {"startingUp", phase_ != StartupPhase::running},
                      {"configWaiting", gate_.waiting()},
                      {"writerIdle", !kernel_.writing()},
                      {"mangleRebuilds", rebuild_.rebuilds()},
                      {"mangleRebuilding", rebuild_.running() || resyncRequested_}};
  kernel_.describe(status);
  // Last: the run-time warnings read what the kernel side describes too.
  nlohmann::json warnings = configWarnings_;
  for (const auto& w : runTimeWarnings(status)) warnings.push_back(w);
  status["warnings"] = warnings;
  status["warningsPending"] = linting_;
  return status;
}

void Router::describeHealth(nlohmann::json& nexthop) const {
  const auto view = health_.view(Velnet::IpGenAddr::parse(nexthop["address"].get<std::string>()));
  if (!view) {
    nexthop["health"] = "not checked";
    nexthop["healthCheck"] = nullptr;
    return;
  }
  nexthop["health"] = view->up ? "up" : "down";
  nexthop["healthCheck"] = {
      {"lastRound", view->lastAnswered
                        ? nlohmann::json(*view->lastAnswered ? "answered" : "unanswered")
                        : nlohmann::json()},
      {"lossPercent", view->lossPercent},
      {"rounds", view->rounds},
      {"rttMs", view->rttMs ? nlohmann::json(*view->rttMs) : nlohmann::json()}};
}

void Router::handle(const nlohmann::json& request, const Reply& reply) {
  const std::string command = request.value("command", "");
  if (command == "reload") {
    reload([this, reply](const std::string& error) {
      reply({{"ok", error.empty()},
             {"error", error},
             {"warnings", configWarnings_},
             {"plan", error.empty() ? lastPlan_ : nlohmann::json()},
             {"planText", error.empty() ? lastPlanText_ : "nothing"}});
    });
    return;
  }
  if (command == "metrics") {
    metrics([reply](const std::vector<prometheus::MetricFamily>& families) {
      reply({{"text", MetricsSnapshot::text(families)}});
    });
    return;
  }
  if (command == "counters") {
    classCounters([this, reply](nlohmann::json counters) {
      counters["counters"] = StatusReport::build(*plugin_)["counters"];
      reply(counters);
    });
    return;
  }
  reply(answer(request));
}

nlohmann::json Router::answer(const nlohmann::json& request) {
  const std::string command = request.value("command", "");
  if (command == "status") return status();
  if (command == "set") {
    const std::string error = setTunable(request.value("tunable", ""), request.value("value", ""));
    return {{"ok", error.empty()}, {"error", error}};
  }
  if (command == "events") return events_.toJson();
  if (command == "resync") {
    resync();
    return {{"ok", true}, {"error", ""}};
  }
  if (command == "explain") return explain(request);
  if (command == "idle") {
    // What the kernel has already reported counts as work not yet done:
    // take it in first, so that a change made just before asking is seen.
    kernel_.catchUp(*plugin_);
    return {{"idle", idle()}};
  }
  return {{"ok", false}, {"error", "unknown command '" + command + "'"}};
}

}  // namespace Waymark
