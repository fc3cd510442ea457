#include "Tasks/HFSPlusReportLines.hpp"

#include <array>
#include <charconv>
#include <cstring>
#include <utility>

#include "HFSPlus/HFSPlusExtents.hpp"
#include "HFSPlus/HFSPlusForkWalk.hpp"
#include "HFSPlus/HFSPlusNameText.hpp"
#include "XRDefragReport.hpp"

namespace {

constexpr size_t kHandOverBytes = 64U << 10;
constexpr size_t kNumberBytes = 20;  // "-9223372036854775808"
constexpr uint32_t kSecondsFrom1904To1970 = 2082844800;

int64_t dateSince1970(uint32_t date, HFSPlusReportLines::DateWidth width) {
  return width == HFSPlusReportLines::DateWidth::Bits64
             ? int64_t{date} - kSecondsFrom1904To1970
             : static_cast<int32_t>(date - kSecondsFrom1904To1970);
}

/// Whether the fork has neither blocks nor extents, as most resource forks.
bool isEmpty(const DiskOrder<HFSPlusForkData>& fork) {
  constexpr size_t kFirst = offsetof(HFSPlusForkData, totalBlocks);
  static constexpr std::array<std::byte, sizeof(HFSPlusForkData) - kFirst> kZeros{};
  return std::memcmp(fork.bytes.data() + kFirst, kZeros.data(), kZeros.size()) == 0;
}

}  // namespace

HFSPlusReportLines::HFSPlusReportLines(XRDefragReport& report) : _report(report) {
  _text.reserve(2 * kHandOverBytes);
}

void HFSPlusReportLines::beginLine(std::string_view taskName, std::string_view kind,
                                   uint32_t parentID, uint32_t itemID) {
  _text += taskName;
  _text += ',';
  _text += kind;
  _text += ',';
  _appendNumber(parentID);
  _text += ',';
  _appendNumber(itemID);
  _text += ',';
}

void HFSPlusReportLines::appendName(std::span<const std::byte> nameUnits) {
  HFSPlusAppendOutputSafeName(_text, nameUnits);
}

void HFSPlusReportLines::appendFileInfo(const FileInfo& info, DateWidth width) {
  for (const uint32_t date : {info.createDate, info.contentModDate, info.accessDate}) {
    _text += ',';
    _appendNumber(dateSince1970(date, width));
  }
  _appendHexadecimal(info.fdType);
  _appendHexadecimal(info.fdCreator);
}

Result<> HFSPlusReportLines::appendForkExtents(HFSPlusExtents& extents, const HFSPlusForkData& host,
                                               uint32_t fileID, uint8_t forkType) {
  return HFSPlusWalkForkExtents(extents, host, fileID, forkType,
                                [this](const HFSPlusExtentDescriptor& extent) {
                                  _text += ',';
                                  _appendNumber(extent.startBlock);
                                  _text += ',';
                                  _appendNumber(extent.blockCount);
                                });
}

Result<> HFSPlusReportLines::appendForksOfFile(HFSPlusExtents& extents,
                                               const DiskOrder<HFSPlusCatalogFile>& file,
                                               uint32_t fileID) {
  for (const auto& [offset, forkType] :
       {std::pair{offsetof(HFSPlusCatalogFile, dataFork), kHFSDataForkType},
        std::pair{offsetof(HFSPlusCatalogFile, resourceFork), kHFSResourceForkType}}) {
    DiskOrder<HFSPlusForkData> fork;
    std::memcpy(&fork, file.bytes.data() + offset, sizeof fork);
    if (!isEmpty(fork)) {
      TRY(appendForkExtents(extents, toHost(fork), fileID, forkType));
    }
  }
  return {};
}

void HFSPlusReportLines::endLine() {
  _text += '\n';
  if (_text.size() >= kHandOverBytes) {
    handOver();
  }
}

void HFSPlusReportLines::handOver() {
  if (!_text.empty()) {
    _report.print(_text);
    _text.clear();
  }
}

void HFSPlusReportLines::_appendNumber(int64_t value) {
  const size_t before = _text.size();
  _text.resize_and_overwrite(before + kNumberBytes, [&](char* start, size_t size) {
    return static_cast<size_t>(std::to_chars(start + before, start + size, value).ptr - start);
  });
}

void HFSPlusReportLines::_appendHexadecimal(uint32_t value) {
  std::array<char, 9> field{','};
  for (size_t digit = 8; digit > 0; digit--) {
    field[digit] = "0123456789ABCDEF"[value & 0xF];
    value >>= 4;
  }
  _text.append(field.data(), field.size());
}
