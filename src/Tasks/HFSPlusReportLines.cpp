#include "Tasks/HFSPlusReportLines.hpp"

#include <cstring>

#include "HFSPlus/HFSPlusExtents.hpp"
#include "HFSPlus/HFSPlusForkWalk.hpp"
#include "HFSPlus/HFSPlusNameText.hpp"
#include "LWKit/LWDigits.hpp"
#include "XRDefragReport.hpp"

namespace {

constexpr size_t kHandOverBytes = 64U << 10;
constexpr size_t kNumberFieldBytes = 1 + kLWDecimalBytes;
constexpr size_t kHexadecimalFieldBytes = 1 + kLWHexadecimalBytes;
constexpr size_t kExtentFieldsBytes = 2 * kNumberFieldBytes;
constexpr uint32_t kSecondsFrom1904To1970 = 2082844800;

template <typename Number>
char* putNumberField(char* out, Number number) {
  *out++ = ',';
  return LWPutDecimal(out, number);
}

char* putHexadecimalField(char* out, uint32_t number) {
  *out++ = ',';
  return LWPutHexadecimal(out, number);
}

char* putExtent(char* out, const HFSPlusExtentDescriptor& extent) {
  out = putNumberField(out, extent.startBlock);
  return putNumberField(out, extent.blockCount);
}

int64_t dateSince1970(uint32_t date, HFSPlusReportLines::DateWidth width) {
  return width == HFSPlusReportLines::DateWidth::Bits64
             ? int64_t{date} - kSecondsFrom1904To1970
             : static_cast<int32_t>(date - kSecondsFrom1904To1970);
}

/// The three dates of a file. Those of one that was never changed are the same: the digits are
/// copied.
char* putDates(char* out, const HFSPlusReportLines::FileInfo& info,
               HFSPlusReportLines::DateWidth width) {
  constexpr size_t kDateFieldBytes = 16;  // at least: a comma, a sign, ten digits
  static_assert(kDateFieldBytes <= kNumberFieldBytes);
  const char* field = out;
  uint32_t date = info.createDate;
  out = putNumberField(out, dateSince1970(date, width));
  for (const uint32_t next : {info.contentModDate, info.accessDate}) {
    const size_t size = static_cast<size_t>(out - field);
    if (next == date) {
      std::memmove(out, field, kDateFieldBytes);
      field = out;
      out += size;
    } else {
      field = out;
      date = next;
      out = putNumberField(out, dateSince1970(date, width));
    }
  }
  return out;
}

}  // namespace

HFSPlusReportLines::HFSPlusReportLines(XRDefragReport& report)
    : _report(report), _text(2 * kHandOverBytes) {}

std::string HFSPlusReportLines::lineStart(std::string_view taskName, std::string_view kind,
                                          uint32_t parentID) {
  return std::string(taskName).append(",").append(kind).append(",") + std::to_string(parentID);
}

void HFSPlusReportLines::beginLine(std::string_view start, uint32_t itemID) {
  _text.append(start.size() + kNumberFieldBytes + 1, [&](char* out) {
    out = putNumberField(LWTextBuffer::put(out, start), itemID);
    *out++ = ',';
    return out;
  });
}

void HFSPlusReportLines::appendName(std::span<const std::byte> nameUnits) {
  _text.append(HFSPlusOutputSafeNameMaxBytes(nameUnits),
               [nameUnits](char* out) { return HFSPlusPutOutputSafeName(out, nameUnits); });
}

void HFSPlusReportLines::appendFileInfo(const FileInfo& info, DateWidth width) {
  _text.append(3 * kNumberFieldBytes + 2 * kHexadecimalFieldBytes, [&](char* out) {
    out = putDates(out, info, width);
    out = putHexadecimalField(out, info.fdType);
    return putHexadecimalField(out, info.fdCreator);
  });
}

template <typename Fork>
Result<> HFSPlusReportLines::appendForkExtents(HFSPlusExtents& extents, const Fork& fork,
                                               uint32_t fileID, uint8_t forkType) {
  uint64_t blocks = 0;
  _text.append(kHFSPlusExtentDensity * kExtentFieldsBytes, [&](char* out) {
    auto put = [&out](const HFSPlusExtentDescriptor& extent) { out = putExtent(out, extent); };
    blocks = *HFSPlusWalkOwnExtents(fork, put);  // putting does not fail
    return out;
  });
  if (blocks >= HFSPlusTotalBlocksOf(fork)) {
    return {};
  }
  auto append = [this](const HFSPlusExtentDescriptor& extent) {
    _text.append(kExtentFieldsBytes, [&extent](char* out) { return putExtent(out, extent); });
  };
  return HFSPlusWalkOverflowExtents(extents, blocks, HFSPlusTotalBlocksOf(fork), fileID, forkType,
                                    append);
}

template Result<> HFSPlusReportLines::appendForkExtents(HFSPlusExtents&, const HFSPlusForkData&,
                                                        uint32_t, uint8_t);
template Result<> HFSPlusReportLines::appendForkExtents(HFSPlusExtents&,
                                                        const DiskOrder<HFSPlusForkData>&, uint32_t,
                                                        uint8_t);

Result<> HFSPlusReportLines::appendForksOfFile(HFSPlusExtents& extents,
                                               const DiskOrder<HFSPlusCatalogFile>& file,
                                               uint32_t fileID) {
  TRY(appendForkExtents(extents,
                        partOf<HFSPlusForkData>(file, offsetof(HFSPlusCatalogFile, dataFork)),
                        fileID, kHFSDataForkType));
  return appendForkExtents(
      extents, partOf<HFSPlusForkData>(file, offsetof(HFSPlusCatalogFile, resourceFork)), fileID,
      kHFSResourceForkType);
}

void HFSPlusReportLines::endLine() {
  _text.append("\n");
  if (_text.size() >= kHandOverBytes) {
    handOver();
  }
}

void HFSPlusReportLines::handOver() {
  if (!_text.empty()) {
    _report.print(_text.text());
    _text.clear();
  }
}
