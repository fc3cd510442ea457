#include "HFSPlus/HFSPlusRecordPlace.hpp"

#include <algorithm>

#include "HFSPlus/HFSPlusByteOrder.hpp"

namespace {

constexpr uint64_t kSectorBytes = 512;
constexpr size_t kTransferBytes = size_t{1} << 20;

/// Whole sectors, which is what is transferred.
uint64_t wholeSectors(uint64_t bytes) {
  return (bytes + kSectorBytes - 1) / kSectorBytes * kSectorBytes;
}

/// Writes bytes one after another, from a byte offset of the device on, in few transfers.
class SectorWriter {
 public:
  SectorWriter(XRDefragVolume& device, std::span<std::byte> buffer, uint64_t offset)
      : _device(device), _buffer(buffer), _offset(offset) {}

  Result<> append(std::span<const std::byte> bytes) {
    while (!bytes.empty()) {
      const auto part = bytes.first(std::min(bytes.size(), _buffer.size() - _used));
      std::ranges::copy(part, _buffer.begin() + static_cast<ptrdiff_t>(_used));
      _used += part.size();
      bytes = bytes.subspan(part.size());
      if (_used == _buffer.size()) {
        TRY(_send());
      }
    }
    return {};
  }

  /// Fills up the last sector with zeros.
  Result<> finish() {
    std::ranges::fill(_buffer.first(wholeSectors(_used)).subspan(_used), std::byte{0});
    _used = wholeSectors(_used);
    return _send();
  }

 private:
  Result<> _send() {
    TRY(_device.write(_buffer.first(_used), _offset));
    _offset += _used;
    _used = 0;
    return {};
  }

  XRDefragVolume& _device;
  std::span<std::byte> _buffer;
  size_t _used = 0;
  uint64_t _offset;
};

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
                                   std::span<const std::span<const std::byte>> record) const {
  std::vector<std::byte> buffer(
      std::min<uint64_t>(kTransferBytes, wholeSectors(kLinkBytes + _recordBytes)));
  std::span<const std::byte> part;
  for (size_t i = 0; i < _runs.size(); ++i) {
    SectorWriter writer(device, buffer,
                        place.startOffset + uint64_t{_runs[i].startBlock} * _blockSize);
    TRY(writer.append(_linkTo(i + 1)));
    uint64_t room = uint64_t{_runs[i].blockCount} * _blockSize - kLinkBytes;
    while (room > 0 && (!part.empty() || !record.empty())) {
      if (part.empty()) {
        part = record.front();
        record = record.subspan(1);
      }
      const auto fitting = part.first(std::min<uint64_t>(room, part.size()));
      TRY(writer.append(fitting));
      part = part.subspan(fitting.size());
      room -= fitting.size();
    }
    TRY(writer.finish());
  }
  return {};
}

/// What leads to a run, on disk; nowhere when there is none.
auto HFSPlusRecordPlace::_linkTo(size_t run) const -> Link {
  Link link{};
  if (run < _runs.size()) {
    writeBigEndian(link.data(), uint32_t{_runs[run].startBlock});
    writeBigEndian(link.data() + 4, uint32_t{_runs[run].blockCount});
  }
  return link;
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
