#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "HFSPlus/HFSPlusByteOrder.hpp"
#include "HFSPlus/HFSPlusExtents.hpp"

// All extents of a fork in fork order: those of its own eight, then those of its overflow records,
// each of which must begin where the ones before it end, until the fork's total blocks are reached.
// Records beyond those are not looked at. Extents whose start or count is 0 are left out.
//
// `visit` takes an HFSPlusExtentDescriptor and returns nothing or a Result<>, whose error ends the
// walk. Both walks fail with "Overflow extent record missing.".

/// Visits an extent that counts, and adds its blocks.
template <typename Visit>
[[nodiscard]] Result<> HFSPlusVisitExtent(const HFSPlusExtentDescriptor& extent, uint64_t& blocks,
                                          Visit& visit) {
  if (extent.startBlock == 0 || extent.blockCount == 0) {
    return {};
  }
  blocks += extent.blockCount;
  if constexpr (std::same_as<decltype(visit(extent)), void>) {
    visit(extent);
    return {};
  } else {
    return visit(extent);
  }
}

/// Visits the extents in the record of a fork in host order; the blocks that they hold.
template <typename Visit>
[[nodiscard]] Result<uint64_t> HFSPlusWalkOwnExtents(const HFSPlusForkData& host, Visit& visit) {
  uint64_t blocks = 0;
  for (const HFSPlusExtentDescriptor& extent : host.extents) {
    TRY(HFSPlusVisitExtent(extent, blocks, visit));
  }
  return blocks;
}

/// The same for a fork in disk order. Made for the million: the numbers are read where they lie.
template <typename Visit>
[[nodiscard]] Result<uint64_t> HFSPlusWalkOwnExtents(const DiskOrder<HFSPlusForkData>& disk,
                                                     Visit& visit) {
  uint64_t blocks = 0;
  const std::byte* extent = &disk.bytes[offsetof(HFSPlusForkData, extents)];
  for (size_t index = 0; index < kHFSPlusExtentDensity; index++, extent += 8) {
    // Most of the eight are unused, which both numbers tell at once.
    if (readBigEndian<uint64_t>(extent) != 0) {
      TRY(HFSPlusVisitExtent({readBigEndian<uint32_t>(extent), readBigEndian<uint32_t>(extent + 4)},
                             blocks, visit));
    }
  }
  return blocks;
}

inline uint32_t HFSPlusTotalBlocksOf(const HFSPlusForkData& host) {
  return host.totalBlocks;
}

inline uint32_t HFSPlusTotalBlocksOf(const DiskOrder<HFSPlusForkData>& disk) {
  return readBigEndian<uint32_t>(&disk.bytes[offsetof(HFSPlusForkData, totalBlocks)]);
}

/// Visits the extents in the overflow records of a fork whose own ones hold `blocks` blocks.
template <typename Visit>
[[nodiscard]] Result<> HFSPlusWalkOverflowExtents(HFSPlusExtents& extents, uint64_t blocks,
                                                  uint32_t totalBlocks, uint32_t fileID,
                                                  uint8_t forkType, Visit& visit) {
  while (blocks < totalBlocks) {
    const HFSPlusExtentRecord record =
        TRY(extents.requireExtentRecord(static_cast<uint32_t>(blocks), fileID, forkType));
    for (const HFSPlusExtentDescriptor& extent : record) {
      if (blocks < totalBlocks) {
        TRY(HFSPlusVisitExtent(extent, blocks, visit));
      }
    }
  }
  return {};
}

/// Visits all extents of a fork, in host or disk order.
template <typename Fork, typename Visit>
[[nodiscard]] Result<> HFSPlusWalkForkExtents(HFSPlusExtents& extents, const Fork& fork,
                                              uint32_t fileID, uint8_t forkType, Visit&& visit) {
  const uint64_t blocks = TRY(HFSPlusWalkOwnExtents(fork, visit));
  if (blocks >= HFSPlusTotalBlocksOf(fork)) {
    return {};  // as nearly all forks
  }
  return HFSPlusWalkOverflowExtents(extents, blocks, HFSPlusTotalBlocksOf(fork), fileID, forkType,
                                    visit);
}
