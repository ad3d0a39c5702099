// Subnet lookups and resource allocation of the nexthop table manager:
// longestMatch over 100,000 IPv4 and 100,000 IPv6 prefixes (target: under
// 1 µs per lookup), and createNexthop for 30,000 nexthops.
#include <benchmark/benchmark.h>

#include <ctime>
#include <random>
#include <string>
#include <vector>

#include "framework/ActivityManager.h"
#include "framework/TimeSource.h"
#include "net/Routing6Trie.h"
#include "net/RoutingTrie.h"
#include "nexthop/NexthopTableManager.h"

namespace {

constexpr int kPrefixes = 100000;

void BM_LongestMatchIPv4(benchmark::State& state) {
  std::mt19937 rng(1);
  Routing::Trie trie("PBRL3IntfTrie");
  for (int i = 0; i < kPrefixes; ++i) {
    trie.routeIs(Velnet::Prefix(Velnet::IpAddr(rng()), 8 + static_cast<int>(rng() % 25)), true);
  }
  std::vector<Velnet::Prefix> probes;
  for (int i = 0; i < 4096; ++i) probes.emplace_back(Velnet::IpAddr(rng()), 32);
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(trie.longestMatch(probes[i++ & 4095]));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LongestMatchIPv4);

void BM_LongestMatchIPv6(benchmark::State& state) {
  std::mt19937 rng(2);
  auto randomAddr = [&] {
    Velnet::Ip6Addr::Bytes b{};
    b[0] = 0x20;
    b[1] = 0x01;
    for (int j = 2; j < 16; ++j) b[j] = static_cast<uint8_t>(rng());
    return Velnet::Ip6Addr(b);
  };
  Routing6::Trie trie("PBRL3IntfTrie6");
  for (int i = 0; i < kPrefixes; ++i) {
    trie.routeIs(Velnet::Ip6Prefix(randomAddr(), 32 + static_cast<int>(rng() % 97)), true);
  }
  std::vector<Velnet::Ip6Prefix> probes;
  for (int i = 0; i < 4096; ++i) probes.emplace_back(randomAddr(), 128);
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(trie.longestMatch(probes[i++ & 4095]));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LongestMatchIPv6);

void BM_CreateNexthop30000(benchmark::State& state) {
  std::vector<Velnet::IpGenAddr> nexthops;
  for (uint32_t i = 0; i < 30000; ++i) nexthops.emplace_back(Velnet::IpAddr(0xc6120000u + i));
  for (auto _ : state) {
    state.PauseTiming();
    auto manager = Vix::make<Pbr::NexthopTableManager>(nullptr, nullptr);
    state.ResumeTiming();
    for (const auto& nh : nexthops) manager->createNexthop(nh);
    state.PauseTiming();
    manager = nullptr;
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * 30000);
}
BENCHMARK(BM_CreateNexthop30000)->Unit(benchmark::kMillisecond);

}  // namespace

namespace {

// Each command takes 1 ms of virtual time, as a real `ip` would take a few.
class OneMillisecondCommands : public Pbr::CommandRunner {
 public:
  explicit OneMillisecondCommands(Vix::VirtualTimeSource* time) : time_(time) {}
  Pbr::CommandOutcome run(const Pbr::RoutingRequest&) override {
    time_->advance(0.001);
    return Pbr::CommandOutcome::exited(0);
  }

 private:
  Vix::VirtualTimeSource* time_;
};

double cpuSeconds() {
  timespec ts{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// 10,000 nexthops referenced at once: how many slices the loop needs, its
// longest slice on the virtual clock (it must stay within the limit plus one
// nexthop's commands), and the real CPU time of the loop's own work per
// nexthop (the runner costs nothing real).
void BM_ProgramTenThousandNexthops(benchmark::State& state) {
  constexpr int kNexthops = 10000;
  Vix::VirtualTimeSource time(0.0);
  Vix::activityManager().timeSourceIs(&time);
  OneMillisecondCommands runner(&time);
  double slices = 0;
  double longest = 0;
  double cpuPerNexthop = 0;
  for (auto _ : state) {
    auto manager = Pbr::nexthopTableManagerFactory(nullptr, nullptr);
    manager->commandRunnerIs(&runner);
    manager->trieIs()->routeIs(Velnet::Prefix::parse("198.18.0.0/15"), true);
    const double cpuStart = cpuSeconds();
    for (uint32_t i = 0; i < kNexthops; ++i) {
      manager->nexthopInc(Velnet::IpAddr(0xc6120000u + i), 1);
    }
    int runs = 0;
    while (Vix::activityManager().runDue() > 0) ++runs;
    cpuPerNexthop = (cpuSeconds() - cpuStart) / kNexthops;
    slices = runs;
    longest = manager->maxProgrammingTime();
    if (manager->nexthopsAdded() != kNexthops) state.SkipWithError("not every nexthop was added");
  }
  Vix::activityManager().timeSourceIs(nullptr);
  state.counters["slices"] = slices;
  state.counters["longest_slice_s"] = longest;
  state.counters["cpu_us_per_nexthop"] = cpuPerNexthop * 1e6;
}
BENCHMARK(BM_ProgramTenThousandNexthops)->Unit(benchmark::kMillisecond)->Iterations(3);

// The loop's own work per nexthop, with a runner that costs nothing: queue,
// bookmark, allocation, command texts and bookkeeping, add and delete.
class FreeCommands : public Pbr::CommandRunner {
 public:
  Pbr::CommandOutcome run(const Pbr::RoutingRequest&) override {
    return Pbr::CommandOutcome::exited(0);
  }
};

void BM_LoopOverheadPerNexthop(benchmark::State& state) {
  Vix::VirtualTimeSource time(0.0);
  Vix::activityManager().timeSourceIs(&time);
  FreeCommands runner;
  const auto manager = Pbr::nexthopTableManagerFactory(nullptr, nullptr);
  manager->commandRunnerIs(&runner);
  manager->trieIs()->routeIs(Velnet::Prefix::parse("198.18.0.0/15"), true);
  uint32_t next = 0;
  for (auto _ : state) {
    const Velnet::IpGenAddr nh(Velnet::IpAddr(0xc6120000u + (next++ % 100000)));
    manager->nexthopInc(nh, 1);
    while (Vix::activityManager().runDue() > 0) {
    }
    manager->nexthopInc(nh, 0xffffffffu);
    while (Vix::activityManager().runDue() > 0) {
    }
  }
  Vix::activityManager().timeSourceIs(nullptr);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LoopOverheadPerNexthop);

}  // namespace
