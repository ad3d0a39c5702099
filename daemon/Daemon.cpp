#include "daemon/Daemon.h"

#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <thread>

#include "config/ConfigGate.h"
#include "config/ConfigLoader.h"
#include "framework/ActivityManager.h"
#include "framework/String.h"
#include "framework/Trace.h"
#include "insight/ConfigLinter.h"
#include "policymap/Cell.h"
#include "sync/DryRun.h"

namespace Waymark {

namespace {

// Prints trace records to standard error.
class StderrTraceSink : public Vix::TraceSink {
 public:
  void write(const Vix::TraceRecord& r) override {
    std::fprintf(stderr, "waymarkd[%d] %.*s %.*s:%d %s\n", r.level,
                 static_cast<int>(r.function.size()), r.function.data(),
                 static_cast<int>(r.file.size()), r.file.data(), r.line,
                 Vix::loggable(r.text).c_str());
  }
};
StderrTraceSink stderrSink;

// How often the metrics endpoint's snapshot is refreshed: reading the
// classes' counters costs an iptables-save per family.
constexpr double kMetricsPeriod = 5.0;

void log(const std::string& text) {
  std::fprintf(stderr, "waymarkd: %s\n", Vix::loggable(text).c_str());
}

bool parseNumber(const std::string& text, double low, double high, double* out) {
  char* end = nullptr;
  const double v = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !std::isfinite(v) || v < low || v > high) return false;
  *out = v;
  return true;
}

}  // namespace

// The configuration's nexthops for a cleanup, which recognise waymark's
// rules by them when the state file is damaged; none when it cannot be read.
std::vector<Velnet::IpGenAddr> Daemon::cleanupNexthops() const {
  try {
    return ConfigGate::nexthopsNamed(ConfigLoader::loadFile(options_.config));
  } catch (const ConfigError& e) {
    log(std::string("cleanup without the configuration's nexthops: ") + e.what());
    return {};
  }
}

const char* Daemon::usage() {
  return "usage: waymarkd [--config FILE] [--socket PATH] [--state FILE] [--trace-level N]\n"
         "                [--cell-id N] [--child-time-limit S] [--metrics-listen ADDR:PORT]\n"
         "                [--check | --dry-run | --cleanup]\n"
         "       waymarkd --help | --version\n"
         "  --check      validate the configuration, print warnings, exit\n"
         "  --dry-run    print the kernel commands of a start, without running them, and exit\n"
         "  --cleanup    remove waymark's chains, rules and tables, and its state file\n";
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
    if (arg == "--help") {
      o.help = true;
    } else if (arg == "--version") {
      o.version = true;
    } else if (arg == "--check") {
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
    } else if (arg == "--metrics-listen" && (v = value()) && v->find(':') != std::string::npos) {
      o.metricsListen = *v;
    } else if (arg == "--cell-id" && (v = value()) && parseNumber(*v, 0, 1e9, &n)) {
      o.cellId = static_cast<uint32_t>(n);
    } else {
      *error = "bad argument: " + arg;
      return std::nullopt;
    }
  }
  return o;
}

Daemon::Daemon(DaemonOptions options) : options_(std::move(options)) {}

Daemon::~Daemon() {
  for (const int fd : {epoll_, timer_, signals_}) {
    if (fd >= 0) close(fd);
  }
}

int Daemon::run() {
  const int traceLevel = options_.traceLevel >= 0 ? options_.traceLevel : options_.dryRun ? 3 : 4;
  Vix::Trace::sinkIs(&stderrSink, traceLevel);
  // A child or a client that goes away early must cost an error, not the
  // daemon.
  signal(SIGPIPE, SIG_IGN);
  // The state, its journal and the socket are the daemon's alone, whatever
  // umask it was started with.
  umask(0077);
  if (options_.check) {
    try {
      model_ = ConfigLoader::loadFile(options_.config, Vix::kNever);
    } catch (const ConfigError& e) {
      std::fprintf(stderr, "%s\n", e.what());
      return kExitFailed;
    }
    for (const auto& warning : ConfigLinter::warnings(model_)) std::printf("%s\n", warning.c_str());
    std::printf("%s: ok (%zu access lists, %zu classes, %zu policies, %zu interfaces)\n",
                options_.config.c_str(), model_.accessLists.size(), model_.classMaps.size(),
                model_.policyMaps.size(), model_.interfaces.size());
    return 0;
  }
  std::string error;
  std::error_code ec;
  if (std::filesystem::is_directory(options_.state, ec)) {
    log("--state names a directory, not a file: " + options_.state);
    return kExitFailed;
  }
  if (ControlServer::serving(options_.socket)) {
    log("another waymarkd serves " + options_.socket + "; refusing to start");
    return kExitAnotherInstance;
  }
  if (!options_.dryRun && !lock_.take(options_.state, &error)) {
    log(error + "; refusing to " + (options_.cleanup ? "clean up" : "start"));
    return kExitAnotherInstance;
  }
  if (options_.cleanup) {
    KernelSession(options_.state, options_.childTimeLimit, log).removeEverything([this] {
      return cleanupNexthops();
    });
    return 0;
  }
  if (!start(&error)) {
    if (!error.empty()) log(error);
    return startFailure_;
  }
  loop();
  notifier_.stopping();
  log(options_.dryRun ? "dry run done: the start would be idle now; nothing was changed"
                      : "stopping; the kernel stays programmed");
  return 0;
}

bool Daemon::start(std::string* error) {
  // Blocked before the writer's threads exist, which inherit the mask: the
  // signals must reach the signalfd, never a thread's default action.
  sigset_t mask;
  sigemptyset(&mask);
  for (const int s : {SIGHUP, SIGTERM, SIGINT}) sigaddset(&mask, s);
  sigprocmask(SIG_BLOCK, &mask, nullptr);
  Cell::cellIdIs(options_.cellId);
  // The socket answers from the first moment: first that the configuration
  // is being read, then what the router does.
  control_ = std::make_unique<ControlServer>(
      [this](const nlohmann::json& request, const ControlServer::Reply& reply) {
        handleRequest(request, reply);
      },
      clock_);
  if (!control_->listen(options_.socket, error) || !watch(mask, error)) return false;
  if (!readConfiguration(error)) return false;
  if (stop_) return true;

  RouterKernel* kernel = nullptr;
  if (options_.dryRun) {
    dryRun_ = std::make_unique<DryRunKernel>(options_.state);
    kernel = dryRun_.get();
  } else {
    session_ = std::make_unique<KernelSession>(options_.state, options_.childTimeLimit, log);
    kernel = session_.get();
  }
  router_ = std::make_unique<Router>(*kernel, clock_, options_.config, log);
  netlink_ = std::make_unique<NetlinkListener>(
      [this](const NetlinkListener::Interface& shown) { router_->interfaces().publish(shown); });
  if (!netlink_->open(error)) return false;
  bool foreignMangle = false;
  if (session_ && !session_->open(model_, error, &foreignMangle)) {
    if (foreignMangle) startFailure_ = kExitForeignMangle;
    return false;
  }
  router_->start(std::move(model_));
  watchKernel();
  if (!options_.metricsListen.empty()) {
    try {
      metrics_ = std::make_shared<MetricsSnapshot>();
      exposer_ = std::make_unique<prometheus::Exposer>(options_.metricsListen, 1);
      exposer_->RegisterCollectable(metrics_);
    } catch (const std::exception& e) {
      *error = "cannot serve metrics on " + options_.metricsListen + ": " + e.what();
      return false;
    }
  }
  log("running with " + options_.config);
  return true;
}

namespace {

void watchFd(int epoll, int fd) {
  epoll_event ev{};
  ev.events = EPOLLIN;
  ev.data.fd = fd;
  epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &ev);
}

}  // namespace

bool Daemon::watch(const sigset_t& signals, std::string* error) {
  signals_ = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
  timer_ = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
  epoll_ = epoll_create1(EPOLL_CLOEXEC);
  if (signals_ < 0 || timer_ < 0 || epoll_ < 0) {
    *error = std::string("event loop: ") + std::strerror(errno);
    return false;
  }
  for (const int fd : {signals_, timer_, control_->fd()}) watchFd(epoll_, fd);
  return true;
}

namespace {

// The configuration file read on a thread of its own, which owns what it
// writes: a stop does not wait for it, since a file that blocks (a FIFO, a
// hung network file system) must not hold the daemon.
class ConfigRead {
 public:
  explicit ConfigRead(const std::string& path) : state_(std::make_shared<State>()) {
    state_->wake = Kernel::FileDescriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    std::thread([state = state_, path] {
      ConfigModel model;
      std::string error;
      try {
        // The start waits for a pipe's writer as long as it takes: this
        // thread is left behind when the daemon stops first.
        model = ConfigLoader::loadFile(path, Vix::kNever);
      } catch (const ConfigError& e) {
        error = e.what();
      }
      const std::lock_guard<std::mutex> lock(state->mutex);
      state->model = std::move(model);
      state->error = std::move(error);
      state->done = true;
      const uint64_t one = 1;
      [[maybe_unused]] const ssize_t n = write(state->wake.get(), &one, sizeof one);
    }).detach();
  }
  int fd() const { return state_->wake.get(); }
  bool done() const {
    const std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->done;
  }
  // REQUIRES: done().
  const std::string& error() const { return state_->error; }
  ConfigModel take() { return std::move(state_->model); }

 private:
  struct State {
    std::mutex mutex;
    Kernel::FileDescriptor wake;
    bool done = false;
    ConfigModel model;
    std::string error;
  };
  std::shared_ptr<State> state_;
};

}  // namespace

bool Daemon::readConfiguration(std::string* error) {
  notifier_.status("reading configuration");
  ConfigRead read(options_.config);
  watchFd(epoll_, read.fd());
  while (!read.done() && !stop_) serveWhileReading();
  epoll_ctl(epoll_, EPOLL_CTL_DEL, read.fd(), nullptr);
  if (stop_) return true;
  if (!read.error().empty()) {
    std::fprintf(stderr, "%s\n", read.error().c_str());
    error->clear();
    return false;
  }
  model_ = read.take();
  return true;
}

void Daemon::serveWhileReading() {
  const double sleep = control_->sleepTime();
  const int timeout = sleep == Vix::kNever ? -1 : static_cast<int>(std::ceil(sleep * 1000));
  epoll_event events[8];
  const int n = epoll_wait(epoll_, events, 8, timeout);
  for (int i = 0; i < n; ++i) {
    if (events[i].data.fd != signals_) continue;
    signalfd_siginfo info{};
    while (read(signals_, &info, sizeof info) == sizeof info) {
      // A reload asked for now reads the file being read anyway.
      if (info.ssi_signo != SIGHUP) stop_ = true;
    }
  }
  control_->handle();
}

void Daemon::watchKernel() {
  std::vector<int> fds = {netlink_->fd(), router_->backgroundFd()};
  if (session_) {
    fds.push_back(session_->writerFd());
    if (session_->routingEventsFd() >= 0) fds.push_back(session_->routingEventsFd());
    if (session_->mangleEventsFd() >= 0) fds.push_back(session_->mangleEventsFd());
    for (const int fd : session_->proberFds()) fds.push_back(fd);
  }
  for (const int fd : fds) watchFd(epoll_, fd);
}

void Daemon::loop() {
  // The first wait does not block: requests that arrived while the daemon
  // started are answered before any kernel work begins.
  int timeout = 0;
  while (!stop_) {
    serve(timeout);
    control_->handle();
    router_->turn();
    // A dry run shows one start: it ends when the start would be idle.
    if (options_.dryRun && router_->idle()) break;
    if (router_->idle()) {
      notifier_.ready();
    } else if (router_->phase() != StartupPhase::running) {
      notifier_.status(phaseName(router_->phase()));
    }
    refreshMetrics();
    router_->loopPassTook(clock_.now() - passBegan_);
    double sleep = std::min(router_->sleepTime(), control_->sleepTime());
    // The endpoint's metrics age by the refresh period at most, even when
    // nothing else wakes the loop.
    if (metrics_ && (sleep == Vix::kNever || sleep > kMetricsPeriod)) sleep = kMetricsPeriod;
    itimerspec when{};
    if (sleep != Vix::kNever && sleep > 0) {
      when.it_value.tv_sec = static_cast<time_t>(sleep);
      when.it_value.tv_nsec = static_cast<long>((sleep - std::floor(sleep)) * 1e9) + 1;
    }
    timerfd_settime(timer_, 0, &when, nullptr);
    timeout = sleep == 0 ? 0 : -1;
  }
}

void Daemon::serve(int timeout) {
  epoll_event events[8];
  const int n = epoll_wait(epoll_, events, 8, timeout);
  passBegan_ = clock_.now();
  for (int i = 0; i < n; ++i) {
    const int fd = events[i].data.fd;
    if (fd == timer_) {
      uint64_t expirations;
      if (read(timer_, &expirations, sizeof expirations) < 0) continue;
    } else if (fd == signals_) {
      signalfd_siginfo info{};
      while (read(signals_, &info, sizeof info) == sizeof info) {
        if (info.ssi_signo == SIGHUP) {
          reload();
        } else {
          stop_ = true;
        }
      }
    } else if (fd == netlink_->fd()) {
      netlink_->handleEvents();
    } else if (fd == control_->fd()) {
      control_->handle();
    } else if (session_ && fd == session_->writerFd()) {
      session_->takeWriterOutcomes(router_->plugin());
    } else if (session_ && fd == session_->routingEventsFd()) {
      session_->handleRoutingEvents(*router_->plugin().nexthopTableManager());
    } else if (session_ && fd == session_->mangleEventsFd()) {
      session_->handleMangleEvents(clock_.now());
    } else if (session_ && isProberFd(fd)) {
      session_->prober().receive([this](uint16_t sequence, const Velnet::IpGenAddr& from) {
        router_->probeAnswered(sequence, from);
      });
    }
  }
}

bool Daemon::isProberFd(int fd) const {
  const auto fds = session_->proberFds();
  return std::find(fds.begin(), fds.end(), fd) != fds.end();
}

void Daemon::refreshMetrics() {
  if (!metrics_ || clock_.now() - metricsPublishedAt_ < kMetricsPeriod) return;
  // The next refresh is timed from this one's start; the counters are read
  // back off the loop meanwhile.
  metricsPublishedAt_ = clock_.now();
  router_->metrics([metrics = metrics_](std::vector<prometheus::MetricFamily> families) {
    metrics->publish(std::move(families));
  });
}

void Daemon::reload() {
  notifier_.reloading();
  router_->reload([this](const std::string&) { notifier_.reloaded(); });
}

nlohmann::json Daemon::readingStatus() const {
  return {{"policies", nlohmann::json::array()},
          {"nexthops", nlohmann::json::array()},
          {"queues", {{"ipv4", 0}, {"ipv6", 0}, {"nexthopsPending", 0}}},
          {"counters", nlohmann::json::object()},
          {"warnings", nlohmann::json::array()},
          {"idle", false},
          {"startup", {{"phase", "reading configuration"}}},
          {"daemon", {{"config", options_.config}, {"startingUp", true}}}};
}

void Daemon::handleRequest(const nlohmann::json& request, const ControlServer::Reply& reply) {
  const std::string command = request.value("command", "");
  if (!router_) {
    if (command == "status") {
      reply(readingStatus());
    } else if (command == "idle") {
      reply({{"idle", false}});
    } else {
      reply({{"ok", false}, {"error", "waymarkd is reading its configuration"}});
    }
    return;
  }
  // Address changes the kernel has reported count as work not yet done.
  if (command == "idle") netlink_->handleEvents();
  if (command == "reload") {
    notifier_.reloading();
    router_->handle(request, [this, reply](const nlohmann::json& answer) {
      notifier_.reloaded();
      reply(answer);
    });
    return;
  }
  router_->handle(request, [this, reply, command](nlohmann::json answer) {
    if (command == "status") {
      answer["daemon"]["netlinkRedumps"] = netlink_->redumps();
      answer["daemon"]["dryRun"] = options_.dryRun;
    }
    reply(answer);
  });
}

}  // namespace Waymark
