// 50,000 sub-rules (100,000 lines) through a family's rule queue with the
// default pacing and the real iptables-restore writer, next to the same kind
// of rules added with one `iptables` process per rule, in one run and one
// private network namespace. Prints lines per second for both, the ratio, and
// the longest single drain. Needs root; without it it says so and exits 0.
//
// One process per rule gets slower as the table grows, and adding all 100,000
// lines that way would take the better part of an hour, so it is measured on
// samples: on an empty chain (its best case, the strict lower bound of the
// ratio) and appended to the full 100,000-line table; the cost of the same
// 100,000 lines is estimated by interpolating linearly between the two.
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench/PrivateNamespace.h"
#include "framework/ActivityManager.h"
#include "framework/TimeSource.h"
#include "iptables/AclTypeData.h"
#include "kernel/ChildProcess.h"
#include "kernel/RestoreIptablesWriter.h"

namespace {

constexpr int kSubRules = 50000;
constexpr int kNaiveRules = 1000;

std::string match(int i) {
  return "-p tcp -s 10." + std::to_string(i / 256 % 256) + "." + std::to_string(i % 256) +
         ".0/24 -m tcp --dport " + std::to_string(1 + i / 65536);
}

bool shell(const std::string& command) { return std::system(command.c_str()) == 0; }

}  // namespace

int main() {
  if (geteuid() != 0) {
    std::printf("iptables queue benchmark: needs root (network namespaces); not run\n");
    return 0;
  }
  waymark::bench::PrivateNamespace ns("wmbench");
  if (!ns.ok()) {
    std::printf("iptables queue benchmark: cannot create a network namespace; not run\n");
    return 1;
  }
  AclUtils::RestoreIptablesWriter writer;
  const auto v4 = Vix::make<Pbr::Iptables::AclTypeData>(PolicyMap::matchIpv4, &writer);
  v4->applyRules("-N PBR_1_bench\n");

  const double start = Vix::now();
  for (int i = 0; i < kSubRules; ++i) {
    v4->enqueueRule("-A PBR_1_bench " + match(i) + " -j MARK --set-mark 0x2\n");
    v4->enqueueRule("-A PBR_1_bench " + match(i) + " -j ACCEPT\n");
  }
  int drains = 0;
  while (v4->iptablesOperations() > 0) {
    drains += Vix::activityManager().runDue();
  }
  const double queued = Vix::now() - start;
  const auto counted = Kernel::ChildProcess::run(
      {"sh", "-c", "iptables -t mangle -S PBR_1_bench | grep -c -- '^-A'"}, "", 60);
  const long inKernel = std::strtol(counted.output.c_str(), nullptr, 10);

  // Seconds per line for one process per rule, appending to `chain`.
  auto naiveSecondsPerLine = [](const std::string& chain) {
    const double t0 = Vix::now();
    for (int i = 0; i < kNaiveRules / 2; ++i) {
      shell("iptables -w -t mangle -A " + chain + " " + match(i) + " -j MARK --set-mark 0x2");
      shell("iptables -w -t mangle -A " + chain + " " + match(i) + " -j ACCEPT");
    }
    return (Vix::now() - t0) / kNaiveRules;
  };
  const double naiveFull = naiveSecondsPerLine("PBR_1_bench");
  shell("iptables -t mangle -F PBR_1_bench");
  shell("iptables -t mangle -N PBR_2_naive");
  const double naiveEmpty = naiveSecondsPerLine("PBR_2_naive");
  const double naiveEstimate = (naiveEmpty + naiveFull) / 2 * 2 * kSubRules;

  const double queueRate = 2.0 * kSubRules / queued;
  const double naiveRate = 1.0 / naiveEmpty;
  std::printf(
      "lines through the queue:      %d in %.2f s = %.0f lines/s (%d drains, %u batches, "
      "%u failed; %ld rules read back)\n",
      2 * kSubRules, queued, queueRate, drains, v4->iptablesInvoked(),
      v4->iptablesManager()->batchesFailed(), inKernel);
  std::printf("longest single drain:         %.3f s (limit %.1f s)\n", v4->maxProgrammingTime(),
              v4->ruleProgrammingTimeLimit());
  std::printf(
      "one iptables process per rule: %.1f ms per line on an empty chain, %.1f ms on the "
      "full table (%d lines each)\n",
      naiveEmpty * 1e3, naiveFull * 1e3, kNaiveRules);
  std::printf("ratio, against its best case (empty chain): %.0fx\n", queueRate / naiveRate);
  std::printf("ratio, same 100,000 lines (estimated %.0f s one by one): %.0fx\n", naiveEstimate,
              naiveEstimate / queued);
  return inKernel == 2 * kSubRules ? 0 : 1;
}
