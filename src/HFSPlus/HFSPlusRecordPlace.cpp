#include "HFSPlus/HFSPlusRecordPlace.hpp"

#include <algorithm>
#include <utility>

#include "HFSPlus/HFSPlusByteOrder.hpp"

namespace {

constexpr uint64_t kSectorBytes = 512;
constexpr size_t kTransferBytes = size_t{1} << 20;
constexpr HFSPlusExtentDescriptor kNowhere{.startBlock = 0,
                                           .blockCount = 0};  // behind the last run

/// Whole sectors, which is what is transferred.
uint64_t wholeSectors(uint64_t bytes) {
  return (bytes + kSectorBytes - 1) / kSectorBytes * kSectorBytes;
}

}  // namespace

bool HFSPlusRecordPlace::add(uint32_t block, uint64_t count) {
  if (_room < _recordBytes) {
    const uint64_t used = std::min(count, _blocksFor(_recordBytes - _room));
    _runs.push_back({block, static_cast<uint32_t>(used)});
    _room += used * _blockSize - kLinkBytes;
  }
  return _room >= _recordBytes;
}

bool HFSPlusRecordPlace::touches(uint64_t offset, uint64_t count) const {
  return std::ranges::any_of(_runs, [&](const HFSPlusExtentDescriptor& run) {
    const uint64_t begin = uint64_t{run.startBlock} * _blockSize;
    return offset < begin + uint64_t{run.blockCount} * _blockSize && begin < offset + count;
  });
}

void HFSPlusRecordPlace::addTo(HFSPlusBlockRanges& blocks) const {
  for (const HFSPlusExtentDescriptor& run : _runs) {
    blocks.add(run.startBlock, run.blockCount);
  }
}

Result<> HFSPlusRecordPlace::write(XRDefragVolume& device, HFSPlusVolumePlace place,
                                   std::span<const std::byte> record) const {
  std::vector<std::byte> buffer(
      std::min<uint64_t>(kTransferBytes, wholeSectors(kLinkBytes + record.size())));
  for (size_t i = 0; i < _runs.size(); ++i) {
    const HFSPlusExtentDescriptor next = i + 1 < _runs.size() ? _runs[i + 1] : kNowhere;
    writeBigEndian(buffer.data(), uint32_t{next.startBlock});
    writeBigEndian(buffer.data() + 4, uint32_t{next.blockCount});
    size_t used = kLinkBytes;
    uint64_t offset = place.startOffset + uint64_t{_runs[i].startBlock} * _blockSize;
    const uint64_t room = uint64_t{_runs[i].blockCount} * _blockSize - kLinkBytes;
    auto part = record.first(std::min<uint64_t>(room, record.size()));
    record = record.subspan(part.size());
    do {
      const auto fitting = part.first(std::min(part.size(), buffer.size() - used));
      std::ranges::copy(fitting, &buffer[used]);
      used += fitting.size();
      std::ranges::fill(std::span(buffer).first(wholeSectors(used)).subspan(used), std::byte{0});
      TRY(device.write(std::span(buffer).first(wholeSectors(used)), offset));
      part = part.subspan(fitting.size());
      offset += std::exchange(used, 0);
    } while (!part.empty());
  }
  return {};
}

Result<std::optional<std::vector<std::byte>>> HFSPlusRecordPlace::read(
    XRDefragVolume& device, HFSPlusVolumePlace place, uint32_t blockSize,
    HFSPlusExtentDescriptor firstRun, uint64_t recordBytes) {
  if (recordBytes > place.sizeBytes) {
    return std::nullopt;
  }
  std::vector<std::byte> record;
  record.reserve(recordBytes);
  HFSPlusExtentDescriptor run = firstRun;
  while (record.size() < recordBytes) {
    const uint64_t offset = uint64_t{run.startBlock} * blockSize;
    const uint64_t length = uint64_t{run.blockCount} * blockSize;
    // A run that holds more than its link: so the record grows with each, and comes to an end.
    if (length <= kLinkBytes || offset > place.sizeBytes || length > place.sizeBytes - offset) {
      return std::nullopt;
    }
    const uint64_t used = std::min(length, kLinkBytes + recordBytes - record.size());
    std::vector<std::byte> bytes(std::min(wholeSectors(used), length));
    TRY(device.read(bytes, place.startOffset + offset));
    record.insert(record.end(), bytes.begin() + kLinkBytes,
                  bytes.begin() + static_cast<ptrdiff_t>(used));
    run = {readBigEndian<uint32_t>(bytes.data()), readBigEndian<uint32_t>(bytes.data() + 4)};
  }
  return record;
}
