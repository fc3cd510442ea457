#include "unit/HFSPlus/CatalogMove.hpp"

#include <algorithm>

#include "HFSPlus/HFSPlusAllocation.hpp"
#include "HFSPlus/HFSPlusCatalog.hpp"
#include "support/VolumeChecker.hpp"

namespace catalogmove {

const support::BuiltVolume& builtVolume() {
  static const support::BuiltVolume volume = [] {
    support::VolumeDescription description;
    description.blockSize = kBlockSize;
    description.size = uint64_t{kBlockSize} * kTotalBlocks;
    description.keptFree = {kFree};
    description.catalog.totalNodes = 40;
    for (int i = 0; i < 40; ++i) {
      description.root().addFile("file " + std::to_string(i), support::fork(10000, 2));
    }
    return support::buildVolume(description);
  }();
  return volume;
}

Image image() {
  return builtVolume().image;
}

bool isMarked(const HFSPlusVolumeHeader& header) {
  return (header.attributes & kHFSVolumeUnmountedMask) == 0 &&
         (header.attributes & kHFSVolumeInconsistentMask) != 0;
}

HFSPlusVolumeHeader headerIn(const Image& bytes) {
  DiskOrder<HFSPlusVolumeHeader> disk;
  std::copy_n(bytes.begin() + kHFSPlusVolumeHeaderOffset, disk.bytes.size(), disk.bytes.begin());
  return toHost(disk);
}

std::string faultsOf(const Image& bytes) {
  const auto result = volumecheck::checkVolumeBytes(
      {reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()},
      {.alternate = volumecheck::AlternateRule::MustAgree, .hashForks = false});
  return result.readable ? result.report() : "not readable: " + result.report();
}

Result<> moveCatalog(HFSPlusVolume& volume, uint32_t target) {
  const HFSPlusForkData fork = *volume.hostForkData(kHFSCatalogFileID);
  uint32_t next = target;
  std::vector<std::byte> bytes;
  for (const HFSPlusExtentDescriptor& extent : fork.extents) {
    bytes.resize(uint64_t{extent.blockCount} * kBlockSize);
    TRY(volume.read(bytes, uint64_t{extent.startBlock} * kBlockSize));
    TRY(volume.write(bytes, uint64_t{next} * kBlockSize));
    next += extent.blockCount;
  }
  for (const HFSPlusExtentDescriptor& extent : fork.extents) {
    TRY(volume.allocation().clear(extent.startBlock, extent.blockCount));
  }
  TRY(volume.allocation().set(target, next - target));
  const HFSPlusCatalogRecord record = TRY(volume.catalog().copyRecordForCNID(16));
  TRY(volume.catalog().updateForkExtents(record.file().dataFork.extents, 16, kHFSDataForkType,
                                         false));
  return volume.updateForkExtents({{{target, next - target}}}, kHFSCatalogFileID);
}

Result<> runMovingCatalog(HFSPlusVolume& volume) {
  volume.beginRewriting();
  Result<> result = moveCatalog(volume, kFree.start);
  if (result) {
    const auto flushed = volume.flush();
    if (!flushed) {
      result = std::unexpected(flushed.error());
    }
  }
  if (!result) {
    static_cast<void>(volume.discardChanges());
  }
  const Result<> ended = volume.endRewriting();
  return result ? ended : result;
}

}  // namespace catalogmove
