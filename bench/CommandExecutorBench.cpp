// Programming nexthops through the nexthop table manager with one `ip`
// process per command, and with the rtnetlink executor, in one run and one
// private network namespace: 1,000 nexthops each (four commands apiece),
// read back from the kernel. Needs root; without it it says so and exits 0.
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "bench/PrivateNamespace.h"
#include "kernel/ChildProcess.h"
#include "kernel/KernelRouting.h"
#include "kernel/NetlinkCommandRunner.h"
#include "kernel/QuietCommandRunner.h"
#include "nexthop/NexthopTableManager.h"

namespace {

constexpr int kNexthops = 1000;

double now() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

long count(const std::string& command) {
  const auto r = Kernel::ChildProcess::run({"sh", "-c", command}, "", 60);
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

struct Run {
  double seconds = 0;
  long rules = -1;  // fwmark rules the kernel holds afterwards
  uint32_t requests = 0;
  uint32_t fallbacks = 0;
};

// Programs the nexthops in a fresh namespace of their own, through the
// runner `make` builds there (the executor's socket must be opened inside
// the namespace it serves).
// The rtnetlink executor with what it needs, opened where it is made.
struct NetlinkExecutor : Pbr::CommandRunner {
  Pbr::CommandOutcome run(const Pbr::RoutingRequest& r) override { return executor.run(r); }
  Kernel::KernelRouting routing;
  Kernel::QuietCommandRunner shell;
  Kernel::NetlinkCommandRunner executor{routing, shell};
};

template <class MakeRunner>
Run programInFreshNamespace(MakeRunner make) {
  waymark::bench::PrivateNamespace ns("wmexec");
  if (!ns.ok() || std::system("ip link add wm0 type veth peer name wm1 && ip link set wm0 up && "
                              "ip link set wm1 up && ip addr add 198.18.255.254/16 dev wm0") != 0) {
    return {};
  }
  auto runner = make();
  Run run;
  run.seconds = program(*runner, 1);
  run.rules = count("ip rule | grep -c fwmark");
  if (const auto* netlink = dynamic_cast<const NetlinkExecutor*>(runner.get())) {
    run.requests = netlink->routing.requests();
    run.fallbacks = netlink->executor.fallbacks();
  }
  return run;
}

}  // namespace

int main() {
  if (geteuid() != 0) {
    std::printf("command executor benchmark: needs root (network namespaces); not run\n");
    return 0;
  }
  const Run processes = programInFreshNamespace([]() -> std::unique_ptr<Pbr::CommandRunner> {
    return std::make_unique<Kernel::QuietCommandRunner>();
  });
  const Run netlink = programInFreshNamespace(
      []() -> std::unique_ptr<Pbr::CommandRunner> { return std::make_unique<NetlinkExecutor>(); });
  std::printf(
      "one ip process per command: %d nexthops in %.2f s (%.2f ms each, %ld rules read back)\n",
      kNexthops, processes.seconds, processes.seconds * 1e3 / kNexthops, processes.rules);
  std::printf(
      "rtnetlink executor:         %d nexthops in %.3f s (%.1f us each, %ld rules read back, "
      "%u requests, %u through the shell)\n",
      kNexthops, netlink.seconds, netlink.seconds * 1e6 / kNexthops, netlink.rules,
      netlink.requests, netlink.fallbacks);
  std::printf("ratio: %.0fx\n", processes.seconds / netlink.seconds);
  return processes.rules == kNexthops && netlink.rules == kNexthops ? 0 : 1;
}
