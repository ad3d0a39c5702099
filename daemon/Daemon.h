// Waymark::Daemon: waymarkd. One thread and one epoll loop: a timerfd wakes
// the framework clock's due work, a signalfd turns SIGHUP into a reload and
// SIGTERM/SIGINT into a stop (the kernel stays programmed), the rtnetlink
// listener feeds interface status, and the control socket answers status,
// reload, set and idle requests. Each turn runs one due timer (itself
// bounded by its time slice), then waits; the longest turn is kept for the
// status.
//
// Start-up: load and validate the configuration, dump links and addresses,
// remove what an earlier run recorded in the state file, fill the state
// database, create and initialise the plug-in, run; the policies follow once
// their nexthops are programmed, and every reload is applied while the
// nexthop loop is quiet (ConfigGate).
#pragma once

#include <memory>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "daemon/ConfigApplier.h"
#include "daemon/ConfigGate.h"
#include "daemon/ConfigModel.h"
#include "daemon/ControlServer.h"
#include "daemon/NetlinkListener.h"
#include "daemon/StateFile.h"
#include "nexthop/CommandRunner.h"
#include "platform/IptablesManager.h"
#include "plugin/AclPlugin.h"

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
  void loop();
  nlohmann::json handleRequest(const nlohmann::json& request);
  // Loads the file again and applies the difference; "" or why not.
  std::string reload();
  std::string setTunable(const std::string& name, const std::string& value);
  void applyTunables(const Tunables& t);
  Pbr::CommandRunner* commandRunner(const Tunables& t) const;
  void cleanupKernel();
  void runQuietly(const std::string& command);
  bool idle() const;
  // Each interface's IPv4 addresses as the daemon knows them, primary first.
  nlohmann::json interfaces() const;

  DaemonOptions options_;
  ConfigModel model_;
  StateFile state_;
  Vix::Ptr<Stordb::EntityManager> store_;
  Vix::Ptr<Pbr::Config> pbrConfig_;
  Vix::Ptr<Acl::Config> aclConfig_;
  Vix::Ptr<Ip::Status> ipStatus_;
  Vix::Ptr<Ip6::Status> ip6Status_;
  std::unique_ptr<NetlinkListener> netlink_;
  std::unique_ptr<ConfigApplier> applier_;
  std::unique_ptr<ControlServer> control_;
  // The ways to the kernel: the shell runner, and the rtnetlink executor
  // that sends what it does not know to it (for a dry run, one printing
  // runner serves as both); iptables-restore, or the printing writer for a
  // dry run.
  std::unique_ptr<Pbr::CommandRunner> shellRunner_;
  std::unique_ptr<Pbr::CommandRunner> netlinkRunner_;
  // Each of the two, behind the state file's journal.
  std::unique_ptr<Pbr::CommandRunner> journaledShell_;
  std::unique_ptr<Pbr::CommandRunner> journaledNetlink_;
  std::unique_ptr<AclUtils::IptablesWriter> kernelWriter_;
  Vix::Ptr<Pbr::AclPlugin> plugin_;
  std::unique_ptr<ConfigGate> gate_;
  int epoll_ = -1;
  int timer_ = -1;
  int signals_ = -1;
  bool stop_ = false;
  double longestTurn_ = 0.0;
  uint32_t reloads_ = 0;
  uint32_t reloadsFailed_ = 0;
  std::string lastReloadError_;
};

}  // namespace Waymark
