// What a profile of many forks costs. The time per fork must not grow with the set, but for what a
// million of them no longer find room in the caches.

#include "HFSPlus/HFSPlusFileForkSet.hpp"

#include <benchmark/benchmark.h>

#include "HFSPlus/HFSPlusFormat.hpp"

namespace {

constexpr int64_t kHundredThousand = 100'000;
constexpr int64_t kMillion = 1'000'000;

HFSPlusFileForkSet setOf(int64_t members) {
  HFSPlusFileForkSet set;
  for (int64_t i = 0; i < members; ++i) {
    set.add(static_cast<uint32_t>(16 + i), kHFSDataForkType);
  }
  return set;
}

void addMembers(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(setOf(state.range(0)));
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(addMembers)->Name("ForkSet/add")->Arg(kHundredThousand)->Arg(kMillion);

/// Half of the forks asked for are members.
void findMembers(benchmark::State& state) {
  const HFSPlusFileForkSet set = setOf(state.range(0));
  for (auto _ : state) {
    size_t found = 0;
    for (int64_t i = 0; i < state.range(0); ++i) {
      const uint8_t forkType = i % 2 == 0 ? kHFSDataForkType : kHFSResourceForkType;
      found += set.contains(static_cast<uint32_t>(16 + i), forkType);
    }
    benchmark::DoNotOptimize(found);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(findMembers)->Name("ForkSet/contains")->Arg(kHundredThousand)->Arg(kMillion);

void removeMembers(benchmark::State& state) {
  const HFSPlusFileForkSet full = setOf(state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    HFSPlusFileForkSet set = full;
    state.ResumeTiming();
    while (!set.empty()) {
      set.removeFileForkAtIndex(0);
    }
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(removeMembers)->Name("ForkSet/removeFirst")->Arg(kHundredThousand)->Arg(kMillion);

}  // namespace
