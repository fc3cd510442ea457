#include "HFSPlus/HFSPlusBootCacheProfile.hpp"

#include <vector>

#include "HFSPlus/HFSPlusBootCachePlaylist.hpp"
#include "HFSPlus/HFSPlusByteOrder.hpp"
#include "HFSPlus/HFSPlusCatalog.hpp"
#include "HFSPlus/HFSPlusCatalogScan.hpp"
#include "HFSPlus/HFSPlusForkExtents.hpp"
#include "HFSPlus/HFSPlusForkWalk.hpp"
#include "HFSPlus/HFSPlusVolume.hpp"

namespace {

constexpr std::string_view kPlaylistPath = "/private/var/db/BootCache.playlist";
constexpr std::u16string_view kPlaylistName = u"BootCache.playlist";

/// The playlist file's record. A lookup whose path ends early gives the deepest item found, which
/// must not be taken for the playlist: hence the look at the name.
Result<std::optional<HFSPlusCatalogFile>> findPlaylist(HFSPlusCatalog& catalog) {
  const HFSPlusCatalogRecord record = TRY(catalog.copyRecordForPath(kPlaylistPath));
  if (!record.isFile() || !catalog.isNamed(record, kPlaylistName)) {
    return std::nullopt;
  }
  return record.file();
}

/// Finds the owner of every range of the playlist in one pass over the catalog.
class OwnerFinder final : public HFSPlusCatalogScanDelegate {
 public:
  OwnerFinder(HFSPlusExtents& extents, HFSPlusBootCachePlaylist& playlist)
      : _extents(extents), _playlist(playlist) {}

  Result<> scanCatalogFile(const DiskOrder<HFSPlusCatalogFile>& record,
                           const HFSPlusCatalogKeyView&) override {
    const HFSPlusCatalogFile file = toHost(record);
    TRY(_claimFork(file.fileID, kHFSDataForkType, file.dataFork));
    return _claimFork(file.fileID, kHFSResourceForkType, file.resourceFork);
  }

 private:
  Result<> _claimFork(uint32_t fileID, uint8_t forkType, const HFSPlusForkData& fork) {
    return HFSPlusWalkForkExtents(_extents, fork, fileID, forkType,
                                  [&](const HFSPlusExtentDescriptor& extent) {
                                    _playlist.claim(extent.startBlock, fileID, forkType);
                                  });
  }

  HFSPlusExtents& _extents;
  HFSPlusBootCachePlaylist& _playlist;
};

Result<std::optional<HFSPlusBootCachePlaylist>> readPlaylist(HFSPlusVolume& volume) {
  const auto file = TRY(findPlaylist(volume.catalog()));
  const uint64_t size = file ? file->dataFork.logicalSize : 0;
  if (size < HFSPlusBootCachePlaylist::kHeaderBytes ||
      size > HFSPlusBootCachePlaylist::kFileBytesMax) {
    return std::nullopt;
  }
  const HFSPlusRegisteredForkData registered(volume, *file);
  std::vector<std::byte> bytes(size);
  TRY(HFSPlusFile(volume, file->fileID).read(bytes, 0));
  const HFSPlusVolumeHeader& header = volume.hostVolumeHeader();
  return HFSPlusBootCachePlaylist::parse(bytes, header.blockSize, volume.firstDataBlock(),
                                         header.totalBlocks);
}

/// Takes the playlist file's blocks away, if it has any. Half of it must not be kept.
Result<> emptyPlaylist(HFSPlusVolume& volume) {
  const auto file = TRY(findPlaylist(volume.catalog()));
  if (!file || file->dataFork.logicalSize == 0) {
    return {};
  }
  const auto fork = TRY(HFSPlusForkExtents::open(volume, file->fileID, kHFSDataForkType));
  fork->deleteAllExtents();
  return fork->update();
}

}  // namespace

Result<HFSPlusProfile> HFSPlusBootCacheProfile::addFileForks(HFSPlusVolume& volume,
                                                             HFSPlusFileForkSet& fileForks) {
  std::optional<HFSPlusBootCachePlaylist> playlist = TRY(readPlaylist(volume));
  if (!playlist) {
    return HFSPlusProfile::Absent;
  }
  OwnerFinder finder(volume.extents(), *playlist);
  TRY(volume.scanCatalogFiles(finder));
  for (const auto& range : playlist->rangesInPlayOrder()) {
    if (range.fileID != 0) {
      fileForks.add(range.fileID, range.forkType);
    }
  }
  return HFSPlusProfile::Added;
}

void HFSPlusBootCacheProfile::reset(HFSPlusVolume& volume) {
  if (volume.isWritable() && !emptyPlaylist(volume)) {
    static_cast<void>(volume.discardChanges());
  }
}
