#include "HFSPlus/HFSPlusVolume.hpp"

#include <algorithm>
#include <array>
#include <bit>

#include "HFSPlus/HFSPlusAllocation.hpp"
#include "HFSPlus/HFSPlusAttributes.hpp"
#include "HFSPlus/HFSPlusCatalog.hpp"
#include "HFSPlus/HFSPlusCatalogScan.hpp"
#include "HFSPlus/HFSPlusExtents.hpp"
#include "HFSPlus/HFSPlusFileForkSet.hpp"
#include "HFSPlus/HFSPlusForkWalk.hpp"
#include "HFSPlus/HFSPlusHotFiles.hpp"
#include "HFSPlus/HFSPlusVolumePlace.hpp"
#include "LWKit/LWDebug.hpp"
#include "LWKit/LWStringUtilities.hpp"

namespace {

constexpr uint32_t kBlockSizeMin = 512;
constexpr uint32_t kInconsistentMask = 0x0B;  // attribute bits that a sound volume leaves clear
constexpr uint32_t kNotSpecialFileCheck = 327;

using HeaderImage = DiskOrder<HFSPlusVolumeHeader>;

XRDefragError inconsistentVolume() {
  return XRDefragError::localized("Volume is inconsistent.");
}

/// An extent of a fork and the fork block at which it begins.
struct ForkExtent {
  uint64_t forkBlock;
  HFSPlusExtentDescriptor extent;
};

/// The extent of a record that holds a fork block. `counted`, the fork blocks before the record,
/// grows by those of the extents passed.
std::optional<ForkExtent> extentHolding(uint64_t forkBlock, const HFSPlusExtentRecord& record,
                                        uint64_t& counted) {
  for (const HFSPlusExtentDescriptor& extent : record) {
    if (extent.startBlock == 0 || extent.blockCount == 0) {
      continue;
    }
    if (forkBlock >= counted && extent.blockCount > forkBlock - counted) {
      return ForkExtent{.forkBlock = counted, .extent = extent};
    }
    counted += extent.blockCount;
  }
  return std::nullopt;
}

/// A locator that the volume does not need is in nobody's way before the next run, which does not
/// begin as long as it is there: where it cannot be looked for the volume can still be looked at.
void tidyReservedBytes(XRDefragVolume& device, HFSPlusVolumePlace place) {
  if (const auto erased = HFSPlusEraseStaleLocator(device, place); !erased) {
    LWDebugLog(LWDebugLevel::Warning, "%@\n", erased.error().description());
  }
}

}  // namespace

Result<bool> HFSPlusVolume::probe(XRDefragVolume& device) {
  const HFSPlusVolumePlace place = TRY(HFSPlusLocateVolume(device));
  HeaderImage primary;
  HeaderImage alternate;
  TRY(device.read(primary.bytes, place.startOffset + kHFSPlusVolumeHeaderOffset));
  TRY(device.read(alternate.bytes,
                  place.startOffset + place.sizeBytes - kHFSPlusAlternateVolumeHeaderDistance));
  const HFSPlusVolumeHeader header = toHost(primary);
  if (header.signature != toHost(alternate).signature) {
    return false;
  }
  return (header.signature == kHFSPlusSigWord && header.version == kHFSPlusVersion) ||
         (header.signature == kHFSXSigWord && header.version == kHFSXVersion);
}

HFSPlusVolume::HFSPlusVolume(const XRDefragVolume& device) : XRDefragVolume(device) {}

HFSPlusVolume::~HFSPlusVolume() = default;

Result<std::unique_ptr<HFSPlusVolume>> HFSPlusVolume::open(const XRDefragVolume& device,
                                                           HFSXVolumes hfsxVolumes) {
  std::unique_ptr<HFSPlusVolume> volume(new HFSPlusVolume(device));
  TRY(volume->_open(hfsxVolumes));
  return volume;
}

Result<> HFSPlusVolume::_open(HFSXVolumes hfsxVolumes) {
  TRY(_readHeader());
  TRY(_checkSignatureAndVersion(hfsxVolumes));
  TRY(_findInterruptedRun());
  TRY(_checkAttributes());
  TRY(_checkGeometry());
  _logVolumeInfo();
  TRY(_openSpecialFiles());
  TRY(_recoverInterruptedRun());
  _metadata = HFSPlusMetadataZoneOf(_hostVolumeHeader);
  if (hasMetadataZone()) {
    const uint64_t count = uint64_t{_metadata.endBlock} + 1;
    LWDebugLog(LWDebugLevel::Info,
               "Metadata zone       = %@ (start block = %u, total blocks = %u)\n",
               LWPrettySize(count * _hostVolumeHeader.blockSize), _metadata.startBlock, count);
  }
  return {};
}

Result<> HFSPlusVolume::_readHeader() {
  // Located through the plain device: this volume's own transfers are not set up yet.
  XRDefragVolume device = plainDevice();
  const HFSPlusVolumePlace place = TRY(HFSPlusLocateVolume(device));
  HeaderImage image;
  TRY(device.read(image.bytes, place.startOffset + kHFSPlusVolumeHeaderOffset));
  _volumeStartOffset = place.startOffset;
  _volumeSizeBytes = place.sizeBytes;
  _hostVolumeHeader = toHost(image);
  _flushedHeader = _hostVolumeHeader;
  return {};
}

Result<> HFSPlusVolume::_checkSignatureAndVersion(HFSXVolumes hfsxVolumes) {
  _version = _hostVolumeHeader.version;
  uint32_t supportedVersion = 0;
  if (_hostVolumeHeader.signature == kHFSPlusSigWord) {
    _name = "HFS Plus";
    _HFSPlus = true;
    supportedVersion = kHFSPlusVersion;
  } else if (_hostVolumeHeader.signature == kHFSXSigWord) {
    _name = "HFSX";
    _HFSX = true;
    // Compared with the signature on purpose: unless they are asked for, HFSX volumes are
    // recognised, but not worked on.
    supportedVersion = hfsxVolumes == HFSXVolumes::Accepted ? kHFSXVersion : kHFSXSigWord;
  } else {
    return std::unexpected(XRDefragError::localized("Unsupported volume format."));
  }
  if (_version != supportedVersion) {
    return std::unexpected(
        XRDefragError::localized("%1$@ version %2$u is not supported.", _name, _version));
  }
  return {};
}

Result<> HFSPlusVolume::_checkAttributes() {
  const uint32_t attributes = _hostVolumeHeader.attributes;
  if ((attributes & (kHFSVolumeHardwareLockMask | kHFSVolumeSoftwareLockMask)) != 0) {
    _writable = false;
  }
  const bool sound =
      (attributes & kHFSVolumeUnmountedMask) != 0 && (attributes & kInconsistentMask) == 0;
  if (!isMounted() && !sound) {
    return std::unexpected(inconsistentVolume());
  }
  return {};
}

Result<> HFSPlusVolume::_checkGeometry() const {
  const HFSPlusVolumeHeader& header = _hostVolumeHeader;
  const uint64_t headerEnd = kHFSPlusVolumeHeaderOffset + sizeof(HFSPlusVolumeHeader);
  const bool sound = std::has_single_bit(header.blockSize) && header.blockSize >= kBlockSizeMin &&
                     header.blockSize <= _volumeSizeBytes && header.totalBlocks > 0 &&
                     header.freeBlocks <= header.totalBlocks &&
                     _volumeSizeBytes >= headerEnd + kHFSPlusAlternateVolumeHeaderDistance &&
                     _volumeStartOffset <= deviceSizeBytes() &&
                     _volumeSizeBytes <= deviceSizeBytes() - _volumeStartOffset;
  if (!sound) {
    return std::unexpected(inconsistentVolume());
  }
  return {};
}

void HFSPlusVolume::_logVolumeInfo() const {
  const HFSPlusVolumeHeader& header = _hostVolumeHeader;
  LWDebugLog(LWDebugLevel::Info, "Volume info         = %@ (Version = %u), %@, %@%@\n", _name,
             _version, isMounted() ? "mounted" : "unmounted",
             isWritable() ? "read/write" : "read-only", isJournaled() ? ", journaled" : "");
  LWDebugLog(LWDebugLevel::Info,
             "Volume size         = %@ (block size = %@, total blocks = %lu, free blocks = %lu)\n",
             LWPrettySize(uint64_t{header.blockSize} * header.totalBlocks),
             LWPrettySize(header.blockSize), header.totalBlocks, header.freeBlocks);
}

/// From here everything reads as if the interrupted run's last flush had been carried out.
Result<> HFSPlusVolume::_findInterruptedRun() {
  XRDefragVolume device = plainDevice();
  const HFSPlusVolumePlace place{_volumeStartOffset, _volumeSizeBytes};
  _recovery = TRY(HFSPlusRunRecovery::find(device, place, _hostVolumeHeader));
  if (_recovery) {
    _hostVolumeHeader = _recovery->header();
    _flushedHeader = _hostVolumeHeader;
  }
  return {};
}

/// Makes the recovered state last. On a device that is not to be written it stays a view of it.
Result<> HFSPlusVolume::_recoverInterruptedRun() {
  XRDefragVolume device = plainDevice();
  const HFSPlusVolumePlace place{_volumeStartOffset, _volumeSizeBytes};
  if (!_recovery) {
    if (isWritable()) {
      tidyReservedBytes(device, place);
    }
    return {};
  }
  if (!_recovery->touchesOnly(TRY(_specialFileBlocks()))) {
    return std::unexpected(inconsistentVolume());
  }
  if (isWritable()) {
    TRY(_recovery->carryOut(device));
    _recovery.reset();
  }
  return {};
}

Result<HFSPlusBlockRanges> HFSPlusVolume::_specialFileBlocks() {
  HFSPlusBlockRanges blocks;
  for (const uint32_t fileID : {kHFSExtentsFileID, kHFSCatalogFileID, kHFSAllocationFileID,
                                kHFSStartupFileID, kHFSAttributesFileID}) {
    TRY(HFSPlusWalkForkExtents(*_extents, *hostForkData(fileID), fileID, kHFSDataForkType,
                               [&](const HFSPlusExtentDescriptor& extent) {
                                 blocks.add(extent.startBlock, extent.blockCount);
                               }));
  }
  return blocks;
}

Result<> HFSPlusVolume::_openSpecialFiles() {
  _extents = TRY(HFSPlusExtents::open(*this));
  _allocation = TRY(HFSPlusAllocation::open(*this));
  // Not before: more blocks than the bitmap has bits are the bitmap's fault.
  if (uint64_t{_hostVolumeHeader.totalBlocks} * _hostVolumeHeader.blockSize > _volumeSizeBytes) {
    return std::unexpected(inconsistentVolume());
  }
  _catalog = TRY(HFSPlusCatalog::open(*this));
  const HFSPlusExtentDescriptor& first = _hostVolumeHeader.attributesFile.extents[0];
  if (first.startBlock != 0 && first.blockCount != 0) {
    _attributes = TRY(HFSPlusAttributes::open(*this));
  }
  return {};
}

Result<> HFSPlusVolume::readVolume(std::span<std::byte> bytes, uint64_t offset) {
  return read(bytes, offset);
}

bool HFSPlusVolume::isJournaled() const {
  return (_hostVolumeHeader.attributes & kHFSVolumeJournaledMask) != 0;
}

bool HFSPlusVolume::hasSparedBlocks() const {
  return (_hostVolumeHeader.attributes & kHFSVolumeSparedBlocksMask) != 0;
}

uint32_t HFSPlusVolume::firstDataBlock() const {
  if (hasMetadataZone()) {
    return _metadata.endBlock + 1;
  }
  const uint32_t blockSize = _hostVolumeHeader.blockSize;
  return kHFSPlusBootAreaBytes / blockSize + (kHFSPlusBootAreaBytes % blockSize != 0 ? 1 : 0);
}

HFSPlusForkData* HFSPlusVolume::_specialForkData(uint32_t fileID) {
  switch (fileID) {
    case kHFSExtentsFileID:
      return &_hostVolumeHeader.extentsFile;
    case kHFSCatalogFileID:
      return &_hostVolumeHeader.catalogFile;
    case kHFSAllocationFileID:
      return &_hostVolumeHeader.allocationFile;
    case kHFSStartupFileID:
      return &_hostVolumeHeader.startupFile;
    case kHFSAttributesFileID:
      return &_hostVolumeHeader.attributesFile;
    default:
      return nullptr;
  }
}

bool HFSPlusVolume::isSpecialFile(uint32_t fileID) const {
  return const_cast<HFSPlusVolume*>(this)->_specialForkData(fileID) != nullptr;
}

const HFSPlusForkData* HFSPlusVolume::hostForkData(uint32_t fileID) const {
  if (const HFSPlusForkData* special = const_cast<HFSPlusVolume*>(this)->_specialForkData(fileID)) {
    return special;
  }
  const auto cached = _hostForkDataCache.find(fileID);
  return cached == _hostForkDataCache.end() ? nullptr : cached->second.get();
}

void HFSPlusVolume::cacheHostForkData(const HFSPlusForkData& forkData, uint32_t fileID) {
  std::unique_ptr<HFSPlusForkData>& entry = _hostForkDataCache[fileID];
  if (!entry) {
    entry = std::make_unique<HFSPlusForkData>();
  }
  *entry = forkData;
}

void HFSPlusVolume::uncacheHostForkData(uint32_t fileID) {
  _hostForkDataCache.erase(fileID);
}

Result<> HFSPlusVolume::updateForkExtents(const HFSPlusExtentRecord& host, uint32_t fileID) {
  HFSPlusForkData* forkData = _specialForkData(fileID);
  if (forkData == nullptr || !isWritable()) {
    return std::unexpected(XRDefragError::internal("HFSPlus/HFSPlusVolume", kNotSpecialFileCheck));
  }
  forkData->extents = host;
  _dirty = true;
  return {};
}

void HFSPlusVolume::updateFreeBlocks(int64_t delta) {
  if (delta != 0) {
    // A count that was wrong to begin with must not become one with which no volume opens.
    const int64_t free = int64_t{_hostVolumeHeader.freeBlocks} + delta;
    _hostVolumeHeader.freeBlocks =
        static_cast<uint32_t>(std::clamp<int64_t>(free, 0, _hostVolumeHeader.totalBlocks));
    _dirty = true;
  }
}

Result<HFSPlusTranslation> HFSPlusVolume::translateOffset(uint64_t offset, uint32_t fileID,
                                                          uint8_t forkType,
                                                          const HFSPlusForkData& forkData) {
  const uint64_t blockSize = _hostVolumeHeader.blockSize;
  const uint64_t forkBlock = offset / blockSize;
  const auto outOfRange = [&] {
    return std::unexpected(XRDefragError::localized(
        "Offset %1$llu is out of range for file ID %2$lu.", offset, fileID));
  };
  if (offset >= forkData.logicalSize || forkBlock >= forkData.totalBlocks) {
    return outOfRange();
  }
  uint64_t counted = 0;
  std::optional<ForkExtent> found = extentHolding(forkBlock, forkData.extents, counted);
  // The overflow tree's own extents are all in the header; it cannot be asked about itself.
  if (!found && _extents && fileID != kHFSExtentsFileID) {
    const auto record =
        TRY(_extents->copyExtentRecord(static_cast<uint32_t>(forkBlock), fileID, forkType));
    if (record && record->startBlock >= counted && record->extents[0].startBlock != 0 &&
        record->extents[0].blockCount != 0) {
      counted = record->startBlock;
      found = extentHolding(forkBlock, record->extents, counted);
    }
  }
  if (!found || uint64_t{found->extent.startBlock} + found->extent.blockCount >
                    _hostVolumeHeader.totalBlocks) {
    return outOfRange();
  }
  const uint64_t start = found->forkBlock * blockSize;
  const uint64_t end = std::min({start + found->extent.blockCount * blockSize, forkData.logicalSize,
                                 forkData.totalBlocks * blockSize});
  return HFSPlusTranslation{.offset = offset - start + found->extent.startBlock * blockSize,
                            .length = end - offset};
}

Result<HFSPlusFileForkSet> HFSPlusVolume::immutableForkIDs(bool includeHotFiles) {
  HFSPlusFileForkSet forks;
  for (const std::string_view path : {"/.journal_info_block", "/.journal"}) {
    const Result<HFSPlusCatalogRecord> record = _catalog->copyRecordForPath(path);
    if (record && record->isFile()) {
      forks.add(record->file().fileID, kHFSDataForkType);
    }
  }
  if (includeHotFiles) {
    if (const auto hotFiles = TRY(HFSPlusHotFiles::open(*this, *this, *_catalog))) {
      TRY(hotFiles->mergeFileIDs(forks, firstDataBlock()));
    }
  }
  return forks;
}

Result<> HFSPlusVolume::scanCatalogFiles(HFSPlusCatalogScanDelegate& delegate) {
  return HFSPlusScanCatalogFiles(*_catalog, delegate);
}
