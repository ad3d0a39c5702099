// Vix::HashMap against std::unordered_map: insert, lookup, delete and full
// iteration of N random 32-bit keys, in the same run. The target is lookup
// and insert within 1.5x of std::unordered_map and iteration no slower.
// Iteration is measured twice: with the counted iterator (which survives the
// deletion of the member it stands on) and with forEach.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <random>
#include <unordered_map>
#include <vector>

#include "framework/ValueMap.h"

namespace {

std::vector<uint32_t> randomKeys(size_t n, uint32_t trial) {
  std::mt19937 rng(trial);
  std::unordered_map<uint32_t, bool> seen;
  std::vector<uint32_t> keys;
  keys.reserve(n);
  while (keys.size() < n) {
    const uint32_t k = rng();
    if (seen.emplace(k, true).second) keys.push_back(k);
  }
  return keys;
}

struct VixMap {
  Vix::ValueMap<uint32_t, uint32_t> m;
  void insert(uint32_t k, uint32_t v) { m.valueIs(k, v); }
  const uint32_t* find(uint32_t k) const { return m.find(k); }
  void erase(uint32_t k) { m.del(k); }
  uint64_t sum() const {
    uint64_t s = 0;
    for (auto it = m.begin(); it != m.end(); ++it) s += it->value();
    return s;
  }
};

// The same map walked with forEach instead of the counted iterator.
struct VixMapWalk : VixMap {
  uint64_t sum() const {
    uint64_t s = 0;
    m.forEach([&](uint32_t, uint32_t v) { s += v; });
    return s;
  }
};

struct StdMap {
  std::unordered_map<uint32_t, uint32_t> m;
  void insert(uint32_t k, uint32_t v) { m[k] = v; }
  const uint32_t* find(uint32_t k) const {
    const auto it = m.find(k);
    return it == m.end() ? nullptr : &it->second;
  }
  void erase(uint32_t k) { m.erase(k); }
  uint64_t sum() const {
    uint64_t s = 0;
    for (const auto& [k, v] : m) s += v;
    return s;
  }
};

template <class Map>
void fill(Map& map, const std::vector<uint32_t>& keys) {
  for (const uint32_t k : keys) map.insert(k, k);
}

template <class Map>
void BM_Insert(benchmark::State& state) {
  const auto keys = randomKeys(static_cast<size_t>(state.range(0)), 1);
  for (auto _ : state) {
    auto map = std::make_unique<Map>();
    fill(*map, keys);
    benchmark::DoNotOptimize(map.get());
    state.PauseTiming();
    map.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <class Map>
void BM_Lookup(benchmark::State& state) {
  const auto keys = randomKeys(static_cast<size_t>(state.range(0)), 2);
  Map map;
  fill(map, keys);
  std::vector<uint32_t> probes = keys;
  std::shuffle(probes.begin(), probes.end(), std::mt19937(3));
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(map.find(probes[i]));
    if (++i == probes.size()) i = 0;
  }
  state.SetItemsProcessed(state.iterations());
}

template <class Map>
void BM_Delete(benchmark::State& state) {
  const auto keys = randomKeys(static_cast<size_t>(state.range(0)), 4);
  std::vector<uint32_t> order = keys;
  std::shuffle(order.begin(), order.end(), std::mt19937(5));
  for (auto _ : state) {
    state.PauseTiming();
    Map map;
    fill(map, keys);
    state.ResumeTiming();
    for (const uint32_t k : order) map.erase(k);
    benchmark::DoNotOptimize(map);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <class Map>
void BM_Iterate(benchmark::State& state) {
  const auto keys = randomKeys(static_cast<size_t>(state.range(0)), 6);
  Map map;
  fill(map, keys);
  for (auto _ : state) benchmark::DoNotOptimize(map.sum());
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

#define WAYMARK_MAP_BENCH(fn)                                                             \
  BENCHMARK_TEMPLATE(fn, VixMap)->Arg(1000)->Arg(100000)->Arg(1000000)->Name(#fn "/vix"); \
  BENCHMARK_TEMPLATE(fn, StdMap)->Arg(1000)->Arg(100000)->Arg(1000000)->Name(#fn "/std")

WAYMARK_MAP_BENCH(BM_Insert);
WAYMARK_MAP_BENCH(BM_Lookup);
WAYMARK_MAP_BENCH(BM_Delete);
WAYMARK_MAP_BENCH(BM_Iterate);
BENCHMARK_TEMPLATE(BM_Iterate, VixMapWalk)
    ->Arg(1000)
    ->Arg(100000)
    ->Arg(1000000)
    ->Name("BM_Iterate/vix_forEach");

}  // namespace
