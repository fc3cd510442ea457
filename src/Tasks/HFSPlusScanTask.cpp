#include "Tasks/HFSPlusScanTask.hpp"

#include <algorithm>
#include <cstring>

#include "HFSPlus/HFSPlusCatalog.hpp"
#include "HFSPlus/HFSPlusVolume.hpp"
#include "LWKit/LWStringUtilities.hpp"
#include "Tasks/HFSPlusClosedGate.hpp"
#include "XRDefragReport.hpp"

namespace {

using DiskFile = DiskOrder<HFSPlusCatalogFile>;

uint32_t fieldAt(const DiskFile& file, size_t offset) {
  return readBigEndian<uint32_t>(file.bytes.data() + offset);
}

HFSPlusReportLines::FileInfo infoOf(const DiskFile& file) {
  return {.createDate = fieldAt(file, offsetof(HFSPlusCatalogFile, createDate)),
          .contentModDate = fieldAt(file, offsetof(HFSPlusCatalogFile, contentModDate)),
          .accessDate = fieldAt(file, offsetof(HFSPlusCatalogFile, accessDate)),
          .fdType = fieldAt(file, offsetof(HFSPlusCatalogFile, userInfo.fdType)),
          .fdCreator = fieldAt(file, offsetof(HFSPlusCatalogFile, userInfo.fdCreator))};
}

/// Whether all blocks of the fork at an offset of the record are in its first extent.
bool isContiguous(const DiskFile& file, size_t fork) {
  return fieldAt(file, fork + offsetof(HFSPlusForkData, totalBlocks)) ==
         fieldAt(file, fork + offsetof(HFSPlusForkData, extents) +
                           offsetof(HFSPlusExtentDescriptor, blockCount));
}

}  // namespace

HFSPlusScanTask::HFSPlusScanTask(HFSPlusVolume& volume, std::shared_ptr<LWToolEvent> event)
    : XRDefragTask(volume), _hfsPlusVolume(volume), _lines(XRDefragReport::shared()) {
  setArguments(LWTrimmedComponents(event->string()));
  setEvent(std::move(event));
  setName("SCAN");
}

void HFSPlusScanTask::runTask() {
  reportTaskStart();
  auto outcome = _parseOptions();
  {
    const HFSPlusClosedGate closed(_hfsPlusVolume);
    auto scanned = _hfsPlusVolume.scanCatalogFiles(*this);
    if (!scanned) {
      outcome = std::move(scanned);
    }
  }
  if (!outcome) {
    reportTaskError(outcome.error());
  }
  reportTaskDone();
}

Result<> HFSPlusScanTask::_parseOptions() {
  Result<> outcome;
  for (size_t index = 1; index < arguments().size(); index++) {
    const std::string& option = arguments()[index];
    if (option == "-f" || option == "--full-paths") {
      _fullPaths = true;
    } else if (option == "--frag-only") {
      _fragOnly = true;
    } else {
      outcome = std::unexpected(XRDefragError::localized("Unknown option: %1$@", option));
    }
  }
  return outcome;
}

void HFSPlusScanTask::scanCatalogFilesWillStart() {
  _fileCount = _hfsPlusVolume.hostVolumeHeader().fileCount;
  updateTaskProgress(0);
}

Result<> HFSPlusScanTask::scanCatalogFile(const DiskFile& file, const HFSPlusCatalogKeyView& key) {
  if (_fragOnly && isContiguous(file, offsetof(HFSPlusCatalogFile, dataFork)) &&
      isContiguous(file, offsetof(HFSPlusCatalogFile, resourceFork))) {
    return {};
  }
  const uint32_t fileID = fieldAt(file, offsetof(HFSPlusCatalogFile, fileID));
  if (key.parentID != _lastParentID) {
    TRY(_beginFolder(key.parentID, fileID));
  }
  _lines.beginLine(_lineStart, fileID);
  _lines.appendText(_pathStart);
  _lines.appendName(key.nameUnits);
  _lines.appendFileInfo(infoOf(file), HFSPlusReportLines::DateWidth::Bits64);
  auto outcome = _lines.appendForksOfFile(_hfsPlusVolume.extents(), file, fileID);
  _lines.endLine();
  if (outcome) {
    _countFile();
  }
  return outcome;
}

Result<> HFSPlusScanTask::_beginFolder(uint32_t folderID, uint32_t fileID) {
  _lastParentID.reset();
  if (_fullPaths) {
    const auto path = TRY(_hfsPlusVolume.catalog().copyPathForCNID(folderID));
    if (!path) {
      return std::unexpected(
          XRDefragError::localized("Path lookup failed for file ID %1$u.", fileID));
    }
    _pathStart = outputSafeString(*path) + "/";
  }
  _lineStart = HFSPlusReportLines::lineStart(name(), "FILE", folderID);
  _lastParentID = folderID;
  return {};
}

void HFSPlusScanTask::_countFile() {
  _fileIndex += 1;
  // The header may count fewer files than there are, or none.
  const double percent = std::min(_fileIndex / _fileCount * 100, 100.0);
  if (const auto progress = static_cast<int32_t>(percent); progress != _progress) {
    _progress = progress;
    _passOnProgress(progress);
  }
}

void HFSPlusScanTask::_passOnProgress(int32_t percent) {
  // The lines of the files that the percentage counts come first.
  _lines.handOver();
  updateTaskProgress(percent);
}

void HFSPlusScanTask::scanCatalogFilesDidFinish() {
  _lines.handOver();
  if (_progress <= 99) {
    updateTaskProgress(100);
  }
}
