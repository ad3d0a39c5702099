// Subnet lookups and resource allocation of the nexthop table manager:
// longestMatch over 100,000 IPv4 and 100,000 IPv6 prefixes (target: under
// 1 µs per lookup), and createNexthop for 30,000 nexthops.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "nexthop/NexthopTableManager.h"
#include "platform/Routing6Trie.h"
#include "platform/RoutingTrie.h"

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
    auto manager = Vix::make<Pbr::NexthopTableManager>();
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
