#include "Tasks/HFSPlusMapTask.hpp"

#include <limits>
#include <optional>

#include "HFSPlus/HFSPlusCatalog.hpp"
#include "HFSPlus/HFSPlusVolume.hpp"
#include "LWKit/LWStringUtilities.hpp"
#include "Tasks/HFSPlusClosedGate.hpp"
#include "XRDefragReport.hpp"

namespace {

bool isCNIDOption(const std::string& option) {
  return option == "-i" || option == "--cnid";
}

bool isPathOption(const std::string& option) {
  return option == "-p" || option == "--path";
}

}  // namespace

HFSPlusMapTask::HFSPlusMapTask(HFSPlusVolume& volume, std::shared_ptr<LWToolEvent> event)
    : XRDefragTask(volume), _hfsPlusVolume(volume), _lines(XRDefragReport::shared()) {
  setArguments(LWTrimmedComponents(event->string()));
  setEvent(std::move(event));
  setName("MAP");
}

void HFSPlusMapTask::runTask() {
  reportTaskStart();
  const auto outcome = _map();
  _lines.handOver();
  if (!outcome) {
    reportTaskError(outcome.error());
  }
  reportTaskDone();
}

Result<> HFSPlusMapTask::_map() {
  const auto& words = arguments();
  if (words.size() < 2) {
    return std::unexpected(XRDefragError::localized("No options specified."));
  }
  Result<> outcome;
  std::optional<HFSPlusClosedGate> closed;
  for (size_t index = 1; index < words.size(); index++) {
    const std::string& option = words[index];
    if (!isCNIDOption(option) && !isPathOption(option)) {
      outcome = std::unexpected(XRDefragError::localized("Unknown option: %1$@", option));
      continue;
    }
    if (++index == words.size()) {
      return std::unexpected(XRDefragError::localized("Option %1$@ requires an argument.", option));
    }
    if (!closed) {
      closed.emplace(_hfsPlusVolume);
    }
    TRY(isPathOption(option) ? _mapPath(words[index]) : _mapCNID(words[index]));
  }
  return outcome;
}

Result<> HFSPlusMapTask::_mapPath(const std::string& path) {
  const auto record = TRY(_hfsPlusVolume.catalog().copyRecordForPath(path));
  if (record.type == 0) {
    // Escaped here, and once more with the whole message: who reads the line undoes both.
    return std::unexpected(
        XRDefragError::localized("Lookup failed for path %1$@.", outputSafeString(path)));
  }
  return _mapCatalogRecord(record);
}

Result<> HFSPlusMapTask::_mapCNID(const std::string& word) {
  const int64_t number = LWScanInteger(word).value_or(0);
  if (number < 1 || number > std::numeric_limits<uint32_t>::max()) {
    return std::unexpected(XRDefragError::localized("%1$@ is not a valid CNID.", word));
  }
  const auto cnid = static_cast<uint32_t>(number);
  const auto record = TRY(_hfsPlusVolume.catalog().copyRecordForCNID(cnid));
  if (record.type == 0) {
    return std::unexpected(XRDefragError::localized("Lookup failed for CNID %1$u.", cnid));
  }
  return _mapCatalogRecord(record);
}

Result<> HFSPlusMapTask::_mapCatalogRecord(const HFSPlusCatalogRecord& record) {
  const uint32_t itemID = record.itemID();
  const auto path = TRY(_hfsPlusVolume.catalog().copyPathForCNID(itemID));
  if (!path) {
    return std::unexpected(
        XRDefragError::localized("Path lookup failed for CNID %1$@.", std::to_string(itemID)));
  }
  _lines.beginLine(
      HFSPlusReportLines::lineStart(name(), record.isFile() ? "FILE" : "DIR", record.key.parentID),
      itemID);
  _lines.appendText(outputSafeString(*path));
  auto outcome = record.isFile() ? _appendFile(record.file()) : Result<>();
  _lines.endLine();
  return outcome;
}

Result<> HFSPlusMapTask::_appendFile(const HFSPlusCatalogFile& file) {
  _lines.appendFileInfo({.createDate = file.createDate,
                         .contentModDate = file.contentModDate,
                         .accessDate = file.accessDate,
                         .fdType = file.userInfo.fdType,
                         .fdCreator = file.userInfo.fdCreator},
                        HFSPlusReportLines::DateWidth::Bits32);
  auto& extents = _hfsPlusVolume.extents();
  TRY(_lines.appendForkExtents(extents, file.dataFork, file.fileID, kHFSDataForkType));
  return _lines.appendForkExtents(extents, file.resourceFork, file.fileID, kHFSResourceForkType);
}
