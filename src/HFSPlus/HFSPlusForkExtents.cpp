#include "HFSPlus/HFSPlusForkExtents.hpp"

#include <algorithm>
#include <array>
#include <ranges>

#include "HFSPlus/HFSPlusByteOrder.hpp"
#include "HFSPlus/HFSPlusCatalog.hpp"
#include "HFSPlus/HFSPlusCatalogScan.hpp"
#include "HFSPlus/HFSPlusExtents.hpp"
#include "HFSPlus/HFSPlusNameText.hpp"
#include "HFSPlus/HFSPlusVolume.hpp"
#include "LWKit/LWDebug.hpp"

namespace {

constexpr std::string_view kSource = "HFSPlus/HFSPlusForkExtents";

bool isValid(const HFSPlusExtentDescriptor& extent) {
  return extent.startBlock != 0 && extent.blockCount != 0;
}

uint64_t endOf(const HFSPlusExtentDescriptor& extent) {
  return uint64_t{extent.startBlock} + extent.blockCount;
}

/// Looks through the whole catalog for the name of a file that cannot be found by its ID.
class NameFinder final : public HFSPlusCatalogScanDelegate {
 public:
  explicit NameFinder(uint32_t fileID) : _fileID(fileID) {}

  Result<> scanCatalogFile(const DiskOrder<HFSPlusCatalogFile>& file,
                           const HFSPlusCatalogKeyView& key) override {
    constexpr size_t kFileIDOffset = offsetof(HFSPlusCatalogFile, fileID);
    if (readBigEndian<uint32_t>(file.bytes.data() + kFileIDOffset) != _fileID) {
      return {};
    }
    _name = HFSPlusNameString(key.nameUnits);
    return std::unexpected(XRDefragError::userCancelled());
  }

  std::string takeName() { return std::move(_name); }

 private:
  uint32_t _fileID;
  std::string _name;
};

std::string nameInKey(const HFSPlusCatalogKey& key) {
  const DiskOrder<HFSPlusCatalogKey> disk = toDisk(key);
  const size_t units = std::min<size_t>(key.nodeName.length, kHFSPlusMaxNameUnits);
  constexpr size_t kUnitsOffset =
      offsetof(HFSPlusCatalogKey, nodeName) + offsetof(HFSUniStr255, unicode);
  return HFSPlusNameString(std::span(disk.bytes).subspan(kUnitsOffset, units * sizeof(uint16_t)));
}

}  // namespace

HFSPlusForkExtents::HFSPlusForkExtents(HFSPlusVolume& volume, uint32_t fileID, uint8_t forkType)
    : _volume(volume),
      _fileID(fileID),
      _forkType(forkType),
      _specialFile(volume.isSpecialFile(fileID)) {}

Result<std::unique_ptr<HFSPlusForkExtents>> HFSPlusForkExtents::open(HFSPlusVolume& volume,
                                                                     uint32_t fileID,
                                                                     uint8_t forkType) {
  std::unique_ptr<HFSPlusForkExtents> fork(new HFSPlusForkExtents(volume, fileID, forkType));
  TRY(fork->_checkForkType());
  TRY(fork->_readFork());
  TRY(fork->_readRecords());
  return fork;
}

Result<> HFSPlusForkExtents::_checkForkType() {
  if (_forkType == kHFSDataForkType || (_forkType == kHFSResourceForkType && !_specialFile)) {
    return {};
  }
  if (_specialFile) {
    return std::unexpected(XRDefragError::internal(kSource, 76));
  }
  return std::unexpected(
      XRDefragError::localized("File ID = %1$u (%2$@) has invalid fork type = %3$u.", _fileID,
                               _nameForMessages(), uint32_t{_forkType}));
}

Result<> HFSPlusForkExtents::_readFork() {
  if (!_specialFile) {
    _fileRecord = TRY(_volume.catalog().copyRecordForCNID(_fileID));
    // A thread record can lead to another file's record.
    if (!_fileRecord.isFile() || _fileRecord.file().fileID != _fileID) {
      return std::unexpected(XRDefragError::localized(
          "File ID = %1$u (%2$@) could not be found. The catalog file may be corrupt.", _fileID,
          _nameForMessages()));
    }
    return {};
  }
  const HFSPlusForkData* forkData = _volume.hostForkData(_fileID);
  if (forkData == nullptr) {
    return std::unexpected(XRDefragError::internal(kSource, 540));
  }
  HFSPlusCatalogFile file{};
  file.recordType = kHFSPlusFileRecord;
  file.fileID = _fileID;
  file.dataFork = *forkData;
  _fileRecord.type = kHFSPlusFileRecord;
  _fileRecord.u = file;
  return {};
}

HFSPlusForkData& HFSPlusForkExtents::_fork() {
  auto& file = std::get<HFSPlusCatalogFile>(_fileRecord.u);
  return _forkType == kHFSDataForkType ? file.dataFork : file.resourceFork;
}

Result<> HFSPlusForkExtents::_readRecords() {
  const HFSPlusForkData& fork = _fork();
  uint64_t blocks = 0;
  const auto addRecord = [&](const HFSPlusExtentRecord& record, bool whole) {
    for (const HFSPlusExtentDescriptor& extent : record) {
      if (isValid(extent) && (whole || blocks < fork.totalBlocks)) {
        _originalDescriptors.push_back(extent);
        blocks += extent.blockCount;
      }
    }
    _originalRecords.push_back(record);
  };

  addRecord(fork.extents, true);
  while (blocks < fork.totalBlocks) {
    addRecord(TRY(_overflowRecord(static_cast<uint32_t>(blocks))), false);
  }
  return {};
}

Result<HFSPlusExtentRecord> HFSPlusForkExtents::_overflowRecord(uint32_t startBlock) {
  const auto found = TRY(_volume.extents().copyExtentRecord(startBlock, _fileID, _forkType));
  if (!found || found->startBlock != startBlock || !isValid(found->extents.front())) {
    return std::unexpected(_extentsNotFound());
  }
  return found->extents;
}

auto HFSPlusForkExtents::copyExtentDescriptors(uint32_t startBlock) const -> Descriptors {
  Descriptors descriptors;
  descriptors.reserve(_originalDescriptors.size());
  for (const HFSPlusExtentDescriptor& extent : _originalDescriptors) {
    if (extent.startBlock >= startBlock) {
      descriptors.push_back(extent);
    } else if (endOf(extent) > startBlock) {
      const uint32_t below = startBlock - extent.startBlock;
      descriptors.push_back({startBlock, extent.blockCount - below});
    }
  }
  return descriptors;
}

size_t HFSPlusForkExtents::_indexOfDescriptorContaining(uint32_t block) const {
  // Moves mostly come in fork order, each right behind the one before.
  const Descriptors& list = *_modifiedDescriptors;
  const auto containsBlock = [&](const HFSPlusExtentDescriptor& extent) {
    return extent.startBlock <= block && block < endOf(extent);
  };
  const auto start = list.begin() + static_cast<ptrdiff_t>(std::min(_searchStart, list.size()));
  auto found = std::find_if(start, list.end(), containsBlock);
  if (found == list.end()) {
    found = std::find_if(list.begin(), start, containsBlock);
    if (found == start) {
      return list.size();
    }
  }
  return static_cast<size_t>(found - list.begin());
}

Result<> HFSPlusForkExtents::move(uint32_t from, uint32_t to, uint32_t count) {
  if (count == 0) {
    return {};
  }
  if (!_modifiedDescriptors) {
    _modifiedDescriptors = _originalDescriptors;
  }
  Descriptors& list = *_modifiedDescriptors;
  size_t index = _indexOfDescriptorContaining(from);
  if (index == list.size() || uint64_t{from} + count > endOf(list[index])) {
    return std::unexpected(XRDefragError::localized(
        "Invalid extent range with start block = %1$u and block count = %2$u encountered when "
        "processing file ID = %3$u (%4$@).",
        from, count, _fileID, _nameForMessages()));
  }

  const auto splitAt = [&](uint32_t blocks) {
    const HFSPlusExtentDescriptor whole = list[index];
    list[index].blockCount = blocks;
    list.insert(list.begin() + static_cast<ptrdiff_t>(index) + 1,
                {whole.startBlock + blocks, whole.blockCount - blocks});
  };
  if (list[index].startBlock < from) {
    splitAt(from - list[index].startBlock);
    ++index;
  }
  if (list[index].startBlock != from) {
    return std::unexpected(XRDefragError::internal(kSource, 270));
  }
  if (count < list[index].blockCount) {
    splitAt(count);
  }
  if (list[index] != HFSPlusExtentDescriptor{from, count}) {
    return std::unexpected(XRDefragError::internal(kSource, 304));
  }
  list[index].startBlock = to;
  _searchStart = index + 1;
  return {};
}

void HFSPlusForkExtents::deleteAllExtents() {
  _modifiedDescriptors.emplace();
}

size_t HFSPlusForkExtents::editedDescriptorCount() const {
  const Descriptors& list = _modifiedDescriptors ? *_modifiedDescriptors : _originalDescriptors;
  size_t count = list.empty() ? 0 : 1;
  for (size_t i = 1; i < list.size(); ++i) {
    count += endOf(list[i - 1]) == list[i].startBlock ? 0 : 1;
  }
  return count;
}

bool HFSPlusForkExtents::staysInFirstRecord() const {
  return _originalRecords.size() <= 1 && editedDescriptorCount() <= kHFSPlusExtentDensity;
}

const std::string& HFSPlusForkExtents::_nameForMessages() {
  if (_fileName) {
    return *_fileName;
  }
  _fileName.emplace();
  if (_fileID == 0) {
    return *_fileName;
  }
  HFSPlusCatalog& catalog = _volume.catalog();
  if (const auto record = catalog.copyRecordForCNID(_fileID); record && record->isFile()) {
    return *(_fileName = nameInKey(record->key));
  }
  // Whatever stops the scan, a name that is not found is no reason for another error.
  NameFinder finder(_fileID);
  if (HFSPlusScanCatalogFiles(catalog, finder)) {
    return *_fileName;
  }
  return *(_fileName = finder.takeName());
}

XRDefragError HFSPlusForkExtents::_extentsNotFound() {
  return XRDefragError::localized(
      "Extents for file ID = %1$u (%2$@) could not be found. The extents overflow file may be "
      "corrupt.",
      _fileID, _nameForMessages());
}

void HFSPlusForkExtents::dump() const {
  if (!LWDebugEnabled(LWDebugLevel::Debug)) {
    return;
  }
  const auto log = [](const Descriptors& list) {
    const char* prefix = "";
    for (const HFSPlusExtentDescriptor& extent : list) {
      LWDebugLog(LWDebugLevel::Debug, "%s%08X:%X", prefix, extent.startBlock, extent.blockCount);
      prefix = ", ";
    }
  };
  LWDebugLog(LWDebugLevel::Debug, "  ");
  log(_originalDescriptors);
  LWDebugLog(LWDebugLevel::Debug, " -> ");
  log(_modifiedDescriptors.value_or(Descriptors{}));
  LWDebugLog(LWDebugLevel::Debug, "\n");
}
