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

/// Visits all extents of a fork in host order.
template <typename Visit>
[[nodiscard]] Result<> HFSPlusWalkForkExtents(HFSPlusExtents& extents, const HFSPlusForkData& host,
                                              uint32_t fileID, uint8_t forkType, Visit&& visit) {
  uint64_t blocks = 0;
  for (const HFSPlusExtentDescriptor& extent : host.extents) {
    TRY(HFSPlusVisitExtent(extent, blocks, visit));
  }
  return HFSPlusWalkOverflowExtents(extents, blocks, host.totalBlocks, fileID, forkType, visit);
}

/// Visits all extents of a fork in disk order. Made for the million: nearly all forks end within
/// their record, and their numbers are read where they lie.
template <typename Visit>
[[nodiscard]] Result<> HFSPlusWalkForkExtents(HFSPlusExtents& extents,
                                              const DiskOrder<HFSPlusForkData>& disk,
                                              uint32_t fileID, uint8_t forkType, Visit&& visit) {
  uint64_t blocks = 0;
  const std::byte* extent = &disk.bytes[offsetof(HFSPlusForkData, extents)];
  for (size_t index = 0; index < kHFSPlusExtentDensity; index++, extent += 8) {
    TRY(HFSPlusVisitExtent({readBigEndian<uint32_t>(extent), readBigEndian<uint32_t>(extent + 4)},
                           blocks, visit));
  }
  const auto totalBlocks =
      readBigEndian<uint32_t>(&disk.bytes[offsetof(HFSPlusForkData, totalBlocks)]);
  return HFSPlusWalkOverflowExtents(extents, blocks, totalBlocks, fileID, forkType, visit);
}
