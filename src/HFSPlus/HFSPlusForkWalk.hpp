#pragma once

#include <concepts>
#include <cstdint>
#include <utility>

#include "HFSPlus/HFSPlusExtents.hpp"

/// Visits all extents of a fork (host order) in fork order: those of its own eight, then those of
/// its overflow records, each of which must begin where the ones before it end, until the fork's
/// total blocks are reached. Records beyond those are not looked at. Extents whose start or count
/// is 0 are left out.
///
/// `visit` takes an HFSPlusExtentDescriptor and returns nothing or a Result<>, whose error ends the
/// walk. Fails with "Overflow extent record missing.".
template <typename Visit>
[[nodiscard]] Result<> HFSPlusWalkForkExtents(HFSPlusExtents& extents, const HFSPlusForkData& host,
                                              uint32_t fileID, uint8_t forkType, Visit&& visit) {
  uint64_t blocks = 0;
  const auto visitExtent = [&](const HFSPlusExtentDescriptor& extent) -> Result<> {
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
  };

  for (const HFSPlusExtentDescriptor& extent : host.extents) {
    TRY(visitExtent(extent));
  }
  while (blocks < host.totalBlocks) {
    const HFSPlusExtentRecord record =
        TRY(extents.requireExtentRecord(static_cast<uint32_t>(blocks), fileID, forkType));
    for (const HFSPlusExtentDescriptor& extent : record) {
      if (blocks < host.totalBlocks) {
        TRY(visitExtent(extent));
      }
    }
  }
  return {};
}
