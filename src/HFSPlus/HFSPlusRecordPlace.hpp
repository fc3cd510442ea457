#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "HFSPlus/HFSPlusBlockRanges.hpp"
#include "HFSPlus/HFSPlusFormat.hpp"
#include "HFSPlus/HFSPlusVolumePlace.hpp"
#include "XRDefragVolume.hpp"

/// Where a flush record lies: runs of allocation blocks, one where free space allows it and
/// otherwise as many as it takes, filled in their order.
///
/// Each run begins with a link to the next one, so that the first run leads to all of the record:
///    0  first block u32    4  blocks u32; both 0 in the last run
/// Big-endian; the record's bytes follow. A link that leads astray gives other bytes, which the
/// record's checksum tells.
class HFSPlusRecordPlace {
 public:
  /// A place without runs, for a record of this many bytes on a volume of this block size.
  HFSPlusRecordPlace(uint64_t recordBytes, uint32_t blockSize)
      : _recordBytes(recordBytes), _blockSize(blockSize) {}

  /// Blocks that the record takes in a single run.
  uint64_t blocksInOneRun() const { return _blocksFor(_recordBytes); }

  /// Adds a run, or as much of its front as there is use for; true once the record fits.
  bool add(uint32_t block, uint64_t count);

  /// The runs in the order of the record's bytes.
  const std::vector<HFSPlusExtentDescriptor>& runs() const { return _runs; }

  /// Whether some of these bytes of the volume are the record's.
  bool touches(uint64_t offset, uint64_t count) const;

  /// Adds the runs to a set of blocks.
  void addTo(HFSPlusBlockRanges& blocks) const;

  /// Writes a record that fits. Device errors.
  [[nodiscard]] Result<> write(XRDefragVolume& device, HFSPlusVolumePlace place,
                               std::span<const std::byte> record) const;

  /// Reads this many bytes of a record back from the first of its runs on; nothing if the links do
  /// not lead to so many bytes inside the volume. Device errors.
  [[nodiscard]] static Result<std::optional<std::vector<std::byte>>> read(
      XRDefragVolume& device, HFSPlusVolumePlace place, uint32_t blockSize,
      HFSPlusExtentDescriptor firstRun, uint64_t recordBytes);

 private:
  static constexpr uint64_t kLinkBytes = 8;

  uint64_t _blocksFor(uint64_t bytes) const { return (kLinkBytes + bytes - 1) / _blockSize + 1; }

  uint64_t _recordBytes;
  uint32_t _blockSize;
  uint64_t _room = 0;  // bytes of the record that fit into the runs
  std::vector<HFSPlusExtentDescriptor> _runs;
};
