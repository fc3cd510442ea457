// What reading the largest playlist costs, and finding the owner of each of its ranges.

#include "HFSPlus/HFSPlusBootCachePlaylist.hpp"

#include <benchmark/benchmark.h>

#include <cstring>

namespace {

constexpr uint32_t kEntries = 52'000;
constexpr uint32_t kBlockSize = 4096;
constexpr uint32_t kTotalBlocks = 4 * kEntries;

template <typename T>
void put(std::vector<std::byte>& bytes, size_t offset, T value) {
  std::memcpy(bytes.data() + offset, &value, sizeof value);
}

/// Entries of two blocks each, in an order without a pattern.
std::vector<std::byte> largestPlaylist() {
  constexpr uint32_t kMagic = 0xA1B2C3D6;
  constexpr uint64_t kStep = 20'011;  // has no divisor in common with the entry count
  std::vector<std::byte> bytes(HFSPlusBootCachePlaylist::kHeaderBytes +
                               kEntries * HFSPlusBootCachePlaylist::kEntryBytes);
  put(bytes, 0, kMagic);
  put(bytes, 4, kEntries);
  for (uint32_t i = 0; i < kEntries; ++i) {
    const size_t entry =
        HFSPlusBootCachePlaylist::kHeaderBytes + i * HFSPlusBootCachePlaylist::kEntryBytes;
    const uint64_t block = 1 + i * kStep % kEntries * 3;
    put<uint64_t>(bytes, entry, block * kBlockSize);
    put<uint64_t>(bytes, entry + 8, 2 * kBlockSize);
    put<uint32_t>(bytes, entry + 16, i % 5);
  }
  return bytes;
}

void parsePlaylist(benchmark::State& state) {
  const std::vector<std::byte> bytes = largestPlaylist();
  for (auto _ : state) {
    benchmark::DoNotOptimize(HFSPlusBootCachePlaylist::parse(bytes, kBlockSize, 1, kTotalBlocks));
  }
  state.SetItemsProcessed(state.iterations() * kEntries);
}
BENCHMARK(parsePlaylist)->Name("Playlist/parse");

void claimRanges(benchmark::State& state) {
  auto playlist = HFSPlusBootCachePlaylist::parse(largestPlaylist(), kBlockSize, 1, kTotalBlocks);
  if (!playlist) {
    state.SkipWithError("the playlist is not one");
    return;
  }
  for (auto _ : state) {
    for (uint32_t i = 0; i < kEntries; ++i) {
      playlist->claim(1 + i * 3, 16 + i, 0);
    }
  }
  state.SetItemsProcessed(state.iterations() * kEntries);
}
BENCHMARK(claimRanges)->Name("Playlist/claim");

}  // namespace
