#include "Tasks/HFSPlusReportLines.hpp"

#include "HFSPlus/HFSPlusExtents.hpp"
#include "HFSPlus/HFSPlusForkWalk.hpp"
#include "HFSPlus/HFSPlusNameText.hpp"
#include "LWKit/LWDigits.hpp"
#include "XRDefragReport.hpp"

namespace {

constexpr size_t kHandOverBytes = 64U << 10;
constexpr size_t kNumberFieldBytes = 1 + kLWDecimalBytes;
constexpr size_t kHexadecimalFieldBytes = 1 + kLWHexadecimalBytes;
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

int64_t dateSince1970(uint32_t date, HFSPlusReportLines::DateWidth width) {
  return width == HFSPlusReportLines::DateWidth::Bits64
             ? int64_t{date} - kSecondsFrom1904To1970
             : static_cast<int32_t>(date - kSecondsFrom1904To1970);
}

}  // namespace

HFSPlusReportLines::HFSPlusReportLines(XRDefragReport& report)
    : _report(report), _text(2 * kHandOverBytes) {}

void HFSPlusReportLines::beginLine(std::string_view taskName, std::string_view kind,
                                   uint32_t parentID, uint32_t itemID) {
  const size_t most = taskName.size() + 1 + kind.size() + 2 * kNumberFieldBytes + 1;
  _text.append(most, [&](char* out) {
    out = LWTextBuffer::put(out, taskName);
    *out++ = ',';
    out = LWTextBuffer::put(out, kind);
    out = putNumberField(out, parentID);
    out = putNumberField(out, itemID);
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
    out = putNumberField(out, dateSince1970(info.createDate, width));
    out = putNumberField(out, dateSince1970(info.contentModDate, width));
    out = putNumberField(out, dateSince1970(info.accessDate, width));
    out = putHexadecimalField(out, info.fdType);
    return putHexadecimalField(out, info.fdCreator);
  });
}

template <typename Fork>
Result<> HFSPlusReportLines::appendForkExtents(HFSPlusExtents& extents, const Fork& fork,
                                               uint32_t fileID, uint8_t forkType) {
  return HFSPlusWalkForkExtents(extents, fork, fileID, forkType,
                                [this](const HFSPlusExtentDescriptor& extent) {
                                  _text.append(2 * kNumberFieldBytes, [&extent](char* out) {
                                    out = putNumberField(out, extent.startBlock);
                                    return putNumberField(out, extent.blockCount);
                                  });
                                });
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
