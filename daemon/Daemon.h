// Waymark::Daemon: waymarkd. One thread and one epoll loop: a timerfd wakes
// the framework clock's due work, a signalfd turns SIGHUP into a reload and
// SIGTERM/SIGINT into a stop (the kernel stays programmed), the rtnetlink
// listener feeds interface status, and the control socket answers status,
// reload, set and idle requests. Each turn runs one due timer (itself
// bounded by its time slice), then waits; the longest turn is kept for the
// status.
//
// Start-up removes nothing up front, so that traffic keeps flowing through
// what the previous run left: load and validate the configuration, dump
// links and addresses, read the state journal and the kernel's rules and
// tables (what is not waymark's is never handed out), fill the state
// database, hold the iptables writer, create and initialise the plug-in and
// open the control socket. Then, on the loop: the nexthops are programmed
// (a nexthop that gets the numbers it had before has its rule and route
// replaced in place), the policies follow once their nexthops are
// programmed (ConfigGate), the held batches of each family reach the kernel
// as one transaction, and what the previous run held and this one did not
// take again is removed. Every reload is applied while the nexthop loop is
// quiet.
#pragma once

#include <memory>
#include <optional>
#include <set>
#include <string>

#include <nlohmann/json.hpp>

#include "daemon/ConfigApplier.h"
#include "daemon/ConfigGate.h"
#include "daemon/ConfigModel.h"
#include "daemon/ControlServer.h"
#include "daemon/ForeignNumbers.h"
#include "daemon/InstanceLock.h"
#include "daemon/InterfaceStatusSync.h"
#include "daemon/PreviousRun.h"
#include "kernel/AsyncIptablesWriter.h"
#include "kernel/CommandRunner.h"
#include "kernel/JournaledCommandRunner.h"
#include "kernel/KernelRouting.h"
#include "kernel/NetlinkListener.h"
#include "kernel/RestoreIptablesWriter.h"
#include "kernel/RoutingEvents.h"
#include "kernel/StateJournal.h"
#include "plugin/AclPlugin.h"
#include "policymap/IptablesManager.h"

namespace Waymark {

struct DaemonOptions {
  std::string config = "/etc/waymark/waymark.yaml";
  std::string socket = "/run/waymark/waymarkd.sock";
  std::string state = "/run/waymark/state.json";
  int traceLevel = 4;
  uint32_t cellId = 1;
  bool check = false;
  bool dryRun = false;
  bool cleanup = false;
  // Longest run of one `ip` or iptables-restore child.
  double childTimeLimit = 30.0;
};

// waymarkd's exit statuses. The refusals have their own, so that a service
// manager can tell them from a failure worth restarting for.
enum ExitStatus : int {
  kExitOk = 0,
  kExitFailed = 1,
  kExitUsage = 2,
  kExitForeignMangle = 3,   // the mangle table holds another tool's rules
  kExitAnotherInstance = 4  // another waymarkd holds the state or the socket
};

// Where a start stands; the status shows it.
enum class StartupPhase { programmingNexthops, writingRules, removingLeftovers, running };

class Daemon {
 public:
  explicit Daemon(DaemonOptions options);
  ~Daemon();

  // Parses the command line; nothing (and `error` set) when it is wrong.
  static std::optional<DaemonOptions> parseOptions(int argc, char** argv, std::string* error);
  static const char* usage();

  // Runs until stopped; the process's exit code.
  int run();

 private:
  bool start(std::string* error);
  // Reads the state journal and the kernel's rules and tables.
  void readKernel();
  // False when the mangle table holds another tool's rules and the
  // configuration does not say to take it over; names them either way.
  bool guardMangleTable(std::string* error);
  void createRunners();
  void loop();
  // Waits at most `timeout` ms (-1: until something happens) and handles
  // what is ready: signals, netlink events, control requests, the writer.
  void serve(int timeout);
  // Moves the start on when its current phase is done.
  void advanceStartup();
  // Removes what the previous run held and this one did not take again.
  void removeLeftovers();
  void handleRoutingEvents();
  // A rule or route another tool adds: its numbers are never handed out.
  void noticeRule(const Kernel::PolicyRule& rule);
  void noticeRoute(const Kernel::RouteTableId& table);
  // Reads every rule and table again, after missed announcements.
  void noticeAll();
  // Hands the writer's outcomes to the iptables managers.
  void takeWriterOutcomes();
  nlohmann::json handleRequest(const nlohmann::json& request);
  nlohmann::json status() const;
  // Loads the file again and applies the difference; "" or why not.
  std::string reload();
  std::string setTunable(const std::string& name, const std::string& value);
  void applyTunables(const Tunables& t);
  Pbr::CommandRunner* executor(const Tunables& t) const;
  void cleanupKernel();
  // No kernel work pending anywhere, the start included.
  bool idle() const;
  // Each interface's IPv4 addresses as the daemon knows them, primary first.
  nlohmann::json interfaces() const;

  DaemonOptions options_;
  InstanceLock lock_;
  int startFailure_ = kExitFailed;
  ConfigModel model_;
  Kernel::StateJournal journal_;
  ForeignNumbers foreign_;
  // The user chains of each family's mangle table (IPv4, IPv6) at start,
  // which the start's transaction replaces.
  std::set<std::string> existingChains_[2];
  std::unique_ptr<PreviousRun> previous_;
  StartupPhase phase_ = StartupPhase::programmingNexthops;
  Vix::Ptr<Stordb::EntityManager> store_;
  Vix::Ptr<Pbr::Config> pbrConfig_;
  Vix::Ptr<Acl::Config> aclConfig_;
  Vix::Ptr<Ip::Status> ipStatus_;
  Vix::Ptr<Ip6::Status> ip6Status_;
  std::unique_ptr<InterfaceStatusSync> interfaces_;
  std::unique_ptr<NetlinkListener> netlink_;
  Kernel::RoutingEvents routingEvents_;
  std::unique_ptr<ConfigApplier> applier_;
  std::unique_ptr<ControlServer> control_;
  // The ways to the kernel: the shell executor, and the rtnetlink executor
  // that sends what it does not know to it, both behind the journal (for a
  // dry run, one printing runner instead); iptables-restore through the
  // asynchronous writer, or the printing writer for a dry run.
  std::unique_ptr<Kernel::KernelRouting> routing_;
  std::unique_ptr<Pbr::CommandRunner> shellRunner_;
  std::unique_ptr<Pbr::CommandRunner> netlinkRunner_;
  std::unique_ptr<Kernel::JournaledCommandRunner> journaled_;
  std::unique_ptr<AclUtils::RestoreIptablesWriter> restore_;
  std::unique_ptr<Kernel::AsyncIptablesWriter> asyncWriter_;
  std::unique_ptr<AclUtils::IptablesWriter> printingWriter_;
  Vix::Ptr<Pbr::AclPlugin> plugin_;
  std::unique_ptr<ConfigGate> gate_;
  int epoll_ = -1;
  int timer_ = -1;
  int signals_ = -1;
  bool stop_ = false;
  double startedAt_ = 0.0;
  double longestTurn_ = 0.0;
  uint32_t reloads_ = 0;
  uint32_t reloadsFailed_ = 0;
  uint32_t leftoverRulesRemoved_ = 0;
  uint32_t leftoverTablesRemoved_ = 0;
  std::string lastReloadError_;
};

}  // namespace Waymark
