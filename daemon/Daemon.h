// Waymark::Daemon: waymarkd's event loop around the router core (Router).
// One thread and one epoll loop: a timerfd wakes the framework clock's due
// work, a signalfd turns SIGHUP into a reload and SIGTERM/SIGINT into a stop
// (the kernel stays programmed), the rtnetlink listener feeds interface
// status, the kernel session's descriptors carry other tools' rules and the
// writer's outcomes, the prober's sockets the health checks' answers, and the
// control socket hands requests to the router.
// Each turn runs one due timer (itself bounded by its time slice), then
// waits. The service manager hears of the start's phases, and READY=1 once
// the start is idle.
//
// Start-up removes nothing up front, so that traffic keeps flowing through
// what the previous run left: load and validate the configuration, take the
// instance lock, dump links and addresses, read what the previous run and
// other tools left (KernelSession), start the router and open the control
// socket. The router's start then goes on, on the loop.
#pragma once

#include <signal.h>

#include <memory>
#include <optional>
#include <set>
#include <string>

#include <prometheus/exposer.h>
#include <nlohmann/json.hpp>

#include "control/ControlServer.h"
#include "control/InstanceLock.h"
#include "control/SystemdNotifier.h"
#include "daemon/Router.h"
#include "framework/TimeSource.h"
#include "insight/MetricsSnapshot.h"
#include "kernel/NetlinkListener.h"
#include "sync/KernelSession.h"

namespace Waymark {

struct DaemonOptions {
  std::string config = "/etc/waymark/waymark.yaml";
  std::string socket = "/run/waymark/waymarkd.sock";
  std::string state = "/run/waymark/state.json";
  // 4 by default; 3 for a dry run, whose output is the commands themselves
  // and must not repeat them as traces.
  int traceLevel = -1;
  uint32_t cellId = 1;
  bool help = false;
  bool version = false;
  bool check = false;
  bool dryRun = false;
  bool cleanup = false;
  // Longest run of one `ip` or iptables-restore child.
  double childTimeLimit = 30.0;
  // ADDR:PORT to serve the metrics on over HTTP; "" serves none.
  std::string metricsListen;
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
  std::vector<Velnet::IpGenAddr> cleanupNexthops() const;
  // Opens the loop's own descriptors and waits on them and the control
  // socket's.
  bool watch(const sigset_t& signals, std::string* error);
  // Reads the configuration on a thread of its own while the control socket
  // answers that it is being read, and a stop is still heard; false when the
  // file is refused (said on standard error).
  bool readConfiguration(std::string* error);
  void serveWhileReading();
  nlohmann::json readingStatus() const;
  // Waits on the kernel's and the router's descriptors too.
  void watchKernel();
  void loop();
  // Waits at most `timeout` ms (-1: until something happens) and handles
  // what is ready: signals, netlink events, control requests, the kernel
  // session's reports.
  void serve(int timeout);
  void handleRequest(const nlohmann::json& request, const ControlServer::Reply& reply);
  // Loads the file again (SIGHUP), telling the service manager.
  void reload();
  // Whether `fd` is one of the health-check prober's sockets.
  bool isProberFd(int fd) const;
  // Publishes fresh metrics to the HTTP endpoint when they are due.
  void refreshMetrics();

  DaemonOptions options_;
  InstanceLock lock_;
  int startFailure_ = kExitFailed;
  ConfigModel model_;
  Vix::MonotonicTimeSource clock_;
  // The real kernel, or for a dry run one that prints.
  std::unique_ptr<KernelSession> session_;
  std::unique_ptr<RouterKernel> dryRun_;
  std::unique_ptr<Router> router_;
  std::unique_ptr<NetlinkListener> netlink_;
  std::unique_ptr<ControlServer> control_;
  // The HTTP endpoint's threads read the snapshot, never the router.
  std::shared_ptr<MetricsSnapshot> metrics_;
  std::unique_ptr<prometheus::Exposer> exposer_;
  SystemdNotifier notifier_;
  double metricsPublishedAt_ = -1e9;
  // When the loop's current pass stopped waiting.
  double passBegan_ = 0;
  int epoll_ = -1;
  int timer_ = -1;
  int signals_ = -1;
  bool stop_ = false;
};

}  // namespace Waymark
