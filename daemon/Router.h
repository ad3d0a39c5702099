// Waymark::Router: the router core of waymarkd, everything but the event
// loop and the kernel itself. It holds the state database and its entities,
// the plug-in, the configuration applier and gate, the tunables, the start's
// phases, the nexthops' health checks, and answers the control requests
// (status, reload, set, idle, events, explain, counters, metrics). It
// is built with its kernel (runners and writer, RouterKernel) and its clock
// passed in, so that tests and benchmarks drive the real core with fakes on
// virtual time. The Daemon owns one and calls turn() once per loop pass.
//
// The start: the configuration goes in without its policies, every nexthop
// the policies name is referenced and programmed, then the policies follow
// (ConfigGate), the held rules are written, and what the previous run left is
// removed. The phases are what the status shows.
//
// A nexthop its health check finds down is withdrawn through the gate, as a
// reload would: the classes' lists are applied again without it.
//
// Once running, it keeps the kernel what the status says: routing drift is
// repaired by the kernel side; when the mangle tables differ from what
// waymark wrote (or on resync) the policy framework programs everything
// again, as at the start, and the kernel side writes it in place as one
// transaction per family.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <prometheus/metric_family.h>
#include <nlohmann/json.hpp>

#include "config/ConfigApplier.h"
#include "config/ConfigGate.h"
#include "config/ConfigModel.h"
#include "daemon/BackgroundWork.h"
#include "framework/TimeSource.h"
#include "health/HealthMonitor.h"
#include "insight/ChangeNotices.h"
#include "insight/EventLog.h"
#include "insight/StatusReport.h"
#include "plugin/AclPlugin.h"
#include "policymap/Stordb.h"
#include "sync/InterfaceStatusSync.h"
#include "sync/MangleRebuild.h"
#include "sync/RouterKernel.h"

namespace Waymark {

enum class StartupPhase { programmingNexthops, writingRules, removingLeftovers, running };
const char* phaseName(StartupPhase phase);

class Router {
 public:
  using Log = std::function<void(const std::string&)>;

  // REQUIRES: `kernel` and `clock` outlive the router. Events also go to
  // `log`.
  Router(RouterKernel& kernel, const Vix::TimeSource& clock, std::string configPath, Log log = {});

  // Creates the plug-in over what the entities hold now, with the kernel's
  // runner and writer.
  void startPlugin();
  // Starts with `model` (kept, not copied: a large configuration's model is
  // a good part of the daemon's memory): the plug-in, the numbers the
  // previous run held, the tunables, and the first references of the gate.
  void start(ConfigModel model);
  // One pass of the loop: one due timer, the health checks, the gate, the
  // start's phases, and the events of what changed.
  void turn();
  // Seconds the loop may sleep before turn() has work: 0 when it has some
  // now, kNever when nothing is timed.
  double sleepTime() const;
  // One pass of the event loop took `seconds` (the loop's own work, not its
  // waiting): the longest is in the status and the metrics.
  void loopPassTook(double seconds) { longestTurn_ = std::max(longestTurn_, seconds); }
  // An echo answer came in for the health checks.
  void probeAnswered(uint16_t sequence, const Velnet::IpGenAddr& from);

  // Answers a control request through `reply`, at once or, for work that
  // grows with the configuration (reload, counters, metrics), once the
  // background thread has done it.
  using Reply = std::function<void(const nlohmann::json& reply)>;
  void handle(const nlohmann::json& request, const Reply& reply);
  // Reads the file again off the loop, applies the difference and then
  // finds its warnings; `done` gets "" or why not, with the warnings.
  using Reloaded = std::function<void(const std::string& error)>;
  void reload(Reloaded done = {});
  // Readable when background work has finished; turn() takes it in.
  int backgroundFd() const { return background_.fd(); }
  // Waits for the background work posted so far and takes it in (tests, and
  // answers that must not be left half-made).
  void drainBackground() { background_.drain(); }
  // Rebuilds the mangle tables from the current configuration and compares
  // the rules and routes again; it is done when the router is idle.
  void resync();
  // No kernel work pending anywhere, the start and a rebuild included.
  bool idle() const;
  nlohmann::json status() const;

  // The metrics of this moment with the classes' traffic read from the
  // kernel, handed to `done` on the loop's thread.
  void metrics(std::function<void(std::vector<prometheus::MetricFamily>)> done);

  StartupPhase phase() const { return phase_; }
  const ConfigModel& model() const { return *model_; }
  const Tunables& tunables() const { return tunables_; }
  InterfaceStatusSync& interfaces() { return interfaces_; }
  const Vix::Ptr<Stordb::EntityManager>& store() const { return store_; }
  const Vix::Ptr<Pbr::Config>& pbrConfig() const { return pbrConfig_; }
  const Vix::Ptr<Acl::Config>& aclConfig() const { return aclConfig_; }
  const Vix::Ptr<Ip::Status>& ipStatus() const { return ipStatus_; }
  const Vix::Ptr<Ip6::Status>& ip6Status() const { return ip6Status_; }
  const Vix::Ptr<PolicyMap::PolicyMapTypeStatus>& policyStatus() const { return policyStatus_; }
  // REQUIRES: the plug-in has started.
  Pbr::AclPlugin& plugin() const { return *plugin_; }

 private:
  void advanceStartup();
  // The synchronous control requests.
  nlohmann::json answer(const nlohmann::json& request);
  void applyReload(const std::shared_ptr<ConfigModel>& model, const std::string& error,
                   const Reloaded& done);
  // Compares the kernel with what waymark programmed and repairs it.
  void keepKernel();
  // Nothing of waymark's own is on its way: no configuration waiting, the
  // plug-in's queues empty, the writer idle.
  bool quiet() const;
  std::string setTunable(const std::string& name, const std::string& value);
  void applyTunables(const Tunables& t);
  // Records a state change with its time, and logs it.
  void event(const std::string& kind, const std::string& text);
  // Tells the status which nexthops wait for the state journal.
  StatusReport::Unrecorded unrecorded() const;
  // Turns what changed since the last look (nexthop states, each class's
  // nexthop, refused batches) into events.
  void noticeChanges();
  // What does not work at run time: applied interfaces that do not exist,
  // nexthops outside every connected subnet.
  std::set<std::string> runTimeWarnings(const nlohmann::json& status) const;
  // Which policy, class and rule take the packet a request describes, and
  // where the kernel then sends it.
  nlohmann::json explain(const nlohmann::json& request);
  // Each class's traffic, from the kernel's counters of its rules, read
  // back off the loop: {"classes": [{policy, family, class, packets,
  // bytes}]}.
  void classCounters(std::function<void(nlohmann::json)> done);
  // Finds the warnings of the model in use off the loop; a newer model's
  // search supersedes it. `done` runs once they are in.
  void lint(std::function<void()> done = {});
  // The interface whose connected subnet holds `nexthop` (the longest) and
  // the interface's address in it; no interface when none holds it.
  HealthMonitor::Link linkOf(const Velnet::IpGenAddr& nexthop) const;
  // Checks the nexthops that the classes of the model name, as it says.
  void configureHealthChecks();
  // Turns new verdicts into events and a new application of the model.
  void takeVerdicts();
  // A status nexthop entry's health fields.
  void describeHealth(nlohmann::json& nexthop) const;

  RouterKernel& kernel_;
  const Vix::TimeSource& clock_;
  const std::string configPath_;
  // Shared with the background thread, which reads it; never changed, only
  // replaced.
  std::shared_ptr<const ConfigModel> model_ = std::make_shared<const ConfigModel>();
  // The model's tunables as `set` has changed them since.
  Tunables tunables_;
  Vix::Ptr<Stordb::EntityManager> store_ = Vix::make<Stordb::EntityManager>();
  Vix::Ptr<Pbr::Config> pbrConfig_ = Vix::make<Pbr::Config>();
  Vix::Ptr<Acl::Config> aclConfig_ = Vix::make<Acl::Config>();
  Vix::Ptr<PolicyMap::PolicyMapTypeStatus> policyStatus_ =
      Vix::make<PolicyMap::PolicyMapTypeStatus>();
  Vix::Ptr<Ip::Status> ipStatus_ = Vix::make<Ip::Status>();
  Vix::Ptr<Ip6::Status> ip6Status_ = Vix::make<Ip6::Status>();
  InterfaceStatusSync interfaces_{ipStatus_, ip6Status_};
  ConfigApplier applier_{pbrConfig_, aclConfig_};
  ConfigGate gate_{applier_};
  HealthMonitor health_{kernel_.prober(),
                        [this](const Velnet::IpGenAddr& nexthop) { return linkOf(nexthop); }};
  Vix::Ptr<Pbr::AclPlugin> plugin_;
  StartupPhase phase_ = StartupPhase::programmingNexthops;
  double startedAt_;
  double longestTurn_ = 0.0;
  uint32_t reloads_ = 0;
  uint32_t reloadsFailed_ = 0;
  std::string lastReloadError_;
  // What the last applied reload changed.
  nlohmann::json lastPlan_;
  std::string lastPlanText_;
  bool resyncRequested_ = false;
  const Log log_;
  EventLog events_{log_};
  MangleRebuild rebuild_{
      kernel_, [this](const std::string& kind, const std::string& text) { event(kind, text); }};
  ChangeNotices notices_;
  // A cheap summary of the plug-in's activity that tells whether to look
  // for changes again.
  std::tuple<uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, bool, uint32_t, uint32_t, uint32_t,
             uint32_t>
      activity_{};
  std::vector<std::string> configWarnings_;
  // Who waits for the counters' read-back on its way.
  std::vector<std::function<void(nlohmann::json)>> countersAsked_;
  uint64_t lints_ = 0;  // searches started; the latest one's result counts
  bool linting_ = false;
  BackgroundWork background_;
};

}  // namespace Waymark
