// Programming nexthops through the nexthop table manager with one `ip`
// process per command, and with the rtnetlink executor, in one run and one
// private network namespace: 1,000 nexthops each (four commands apiece),
// read back from the kernel. Needs root; without it it says so and exits 0.
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "daemon/NetlinkCommandRunner.h"
#include "daemon/QuietCommandRunner.h"
#include "nexthop/NexthopTableManager.h"
#include "platform/ChildProcess.h"

namespace {

constexpr int kNexthops = 1000;

class Namespace {
 public:
  Namespace() : name_("wmexec-" + std::to_string(getpid())) {
    original_ = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    if (std::system(("ip netns add " + name_).c_str()) != 0) return;
    const int fd = open(("/run/netns/" + name_).c_str(), O_RDONLY | O_CLOEXEC);
    ok_ = fd >= 0 && setns(fd, CLONE_NEWNET) == 0;
    if (fd >= 0) close(fd);
  }
  ~Namespace() {
    if (original_ >= 0) {
      if (setns(original_, CLONE_NEWNET) != 0) std::perror("setns");
      close(original_);
    }
    if (std::system(("ip netns del " + name_ + " 2>/dev/null").c_str()) != 0) {
      std::fprintf(stderr, "could not delete namespace %s\n", name_.c_str());
    }
  }
  bool ok() const { return ok_; }

 private:
  std::string name_;
  int original_ = -1;
  bool ok_ = false;
};

double now() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

long count(const std::string& command) {
  const auto r = Platform::ChildProcess::run({"sh", "-c", command}, "", 60);
  return std::strtol(r.output.c_str(), nullptr, 10);
}

// Seconds to program kNexthops nexthops of 198.18.0.0/16 through `runner`.
double program(Pbr::CommandRunner& runner, uint32_t firstHost) {
  const auto manager = Pbr::nexthopTableManagerFactory(nullptr, nullptr);
  manager->commandRunnerIs(&runner);
  manager->trieIs()->routeIs(Velnet::Prefix::parse("198.18.0.0/16"), true);
  const double start = now();
  for (uint32_t i = 0; i < kNexthops; ++i) {
    manager->createRoutingTable(Velnet::IpAddr(0xc6120000u + firstHost + i), false);
  }
  return now() - start;
}

// Programs the nexthops in a fresh namespace of their own; the seconds it
// took, and the fwmark rules the kernel then holds.
std::pair<double, long> programInFreshNamespace(Pbr::CommandRunner& runner) {
  Namespace ns;
  if (!ns.ok()) return {0, -1};
  if (std::system("ip link add wm0 type veth peer name wm1 && ip link set wm0 up && "
                  "ip link set wm1 up && ip addr add 198.18.255.254/16 dev wm0") != 0) {
    return {0, -1};
  }
  const double seconds = program(runner, 1);
  return {seconds, count("ip rule | grep -c fwmark")};
}

}  // namespace

int main() {
  if (geteuid() != 0) {
    std::printf("command executor benchmark: needs root (network namespaces); not run\n");
    return 0;
  }
  Waymark::QuietCommandRunner shell;
  const auto [processes, rulesAfterShell] = programInFreshNamespace(shell);
  Waymark::NetlinkCommandRunner* netlink = nullptr;
  std::pair<double, long> viaNetlink;
  {
    // The executor's socket must be opened inside the namespace it serves.
    Namespace ns;
    if (!ns.ok() ||
        std::system("ip link add wm0 type veth peer name wm1 && ip link set wm0 up && "
                    "ip link set wm1 up && ip addr add 198.18.255.254/16 dev wm0") != 0) {
      return 1;
    }
    Waymark::NetlinkCommandRunner executor(&shell);
    netlink = &executor;
    viaNetlink = {program(executor, 1), count("ip rule | grep -c fwmark")};
    std::printf(
        "one ip process per command: %d nexthops in %.2f s (%.2f ms each, %ld rules "
        "read back)\n",
        kNexthops, processes, processes * 1e3 / kNexthops, rulesAfterShell);
    std::printf(
        "rtnetlink executor:         %d nexthops in %.3f s (%.1f us each, %ld rules read "
        "back, %u requests, %u through the shell)\n",
        kNexthops, viaNetlink.first, viaNetlink.first * 1e6 / kNexthops, viaNetlink.second,
        netlink->requests(), netlink->fallbacks());
  }
  std::printf("ratio: %.0fx\n", processes / viaNetlink.first);
  return rulesAfterShell == kNexthops && viaNetlink.second == kNexthops ? 0 : 1;
}
