#include "HFSPlus/HFSPlusFlushRecord.hpp"

#include <algorithm>
#include <array>

#include "HFSPlus/HFSPlusByteOrder.hpp"
#include "LWKit/LWChecksum.hpp"
#include "LWKit/LWZeroPacking.hpp"

namespace {

constexpr size_t kChecksumOffset = 56;

/// The fixed part of the record, without its checksum.
void writeHeader(std::byte* header, const HFSPlusRunIdentity& identity, uint32_t sequence,
                 size_t rangeCount, uint64_t recordBytes) {
  writeBigEndian(header, HFSPlusFlushRecord::kMagic);
  writeBigEndian(header + 8, HFSPlusFlushRecord::kFormatVersion);
  writeBigEndian(header + 12, sequence);
  writeBigEndian(header + 16, identity.runID);
  writeBigEndian(header + 24, identity.signature);
  writeBigEndian(header + 26, identity.version);
  writeBigEndian(header + 28, identity.createDate);
  writeBigEndian(header + 32, identity.blockSize);
  writeBigEndian(header + 36, identity.totalBlocks);
  writeBigEndian(header + 40, identity.writeCount);
  writeBigEndian(header + 44, static_cast<uint32_t>(rangeCount));
  writeBigEndian(header + 48, recordBytes);
}

/// The checksum of a record, whose own field counts as zero.
uint64_t recordChecksum(std::span<const std::byte> record) {
  constexpr std::array<std::byte, sizeof(uint64_t)> kZero{};
  LWChecksum checksum;
  checksum.add(record.first(kChecksumOffset));
  checksum.add(kZero);
  checksum.add(record.subspan(HFSPlusFlushRecord::kHeaderBytes));
  return checksum.value();
}

bool isSealed(std::span<const std::byte> record, const HFSPlusRunIdentity& identity,
              uint32_t sequence, size_t rangeCount) {
  std::array<std::byte, kChecksumOffset> expected;
  writeHeader(expected.data(), identity, sequence, rangeCount, record.size());
  return std::ranges::equal(expected, record.first(kChecksumOffset)) &&
         readBigEndian<uint64_t>(&record[kChecksumOffset]) == recordChecksum(record);
}

struct RangeOnDisk {
  uint64_t offset;
  uint64_t length;
};

/// The ranges, if they rise without overlap inside the volume and are not too much.
std::optional<std::vector<RangeOnDisk>> readRanges(std::span<const std::byte> table,
                                                   uint64_t volumeBytes) {
  std::vector<RangeOnDisk> ranges;
  uint64_t previousEnd = 0;
  uint64_t left = HFSPlusFlushRecord::kBytesMax;
  for (; !table.empty(); table = table.subspan(HFSPlusFlushRecord::kRangeBytes)) {
    const auto offset = readBigEndian<uint64_t>(table.data());
    const auto length = readBigEndian<uint64_t>(table.data() + 8);
    if (length > left || offset < previousEnd || offset > volumeBytes ||
        length > volumeBytes - offset) {
      return std::nullopt;
    }
    ranges.push_back({offset, length});
    left -= length;
    previousEnd = offset + length;
  }
  return ranges;
}

}  // namespace

std::vector<std::byte> HFSPlusFlushRecord::toDisk(const HFSPlusFlushPlan& plan,
                                                  const HFSPlusRunIdentity& identity,
                                                  uint32_t sequence) {
  const size_t rangeCount = plan.pieces().size();
  std::vector<std::byte> record(kHeaderBytes + rangeCount * kRangeBytes);
  std::byte* range = record.data() + kHeaderBytes;
  for (const HFSPlusFlushPlan::Piece& piece : plan.pieces()) {
    writeBigEndian(range, piece.offset);
    writeBigEndian(range + 8, uint64_t{piece.bytes.size()});
    range += kRangeBytes;
  }
  record.reserve(record.size() + LWPackedZerosMaxBytes(plan.byteCount()) +
                 rangeCount * LWPackedZerosMaxBytes(1));
  for (const HFSPlusFlushPlan::Piece& piece : plan.pieces()) {
    LWPackZeros(piece.bytes, record);
  }
  writeHeader(record.data(), identity, sequence, rangeCount, record.size());
  writeBigEndian(&record[kChecksumOffset], recordChecksum(record));
  return record;
}

std::optional<HFSPlusFlushRecord> HFSPlusFlushRecord::fromDisk(std::span<const std::byte> bytes,
                                                               const HFSPlusRunIdentity& identity,
                                                               uint32_t sequence,
                                                               uint64_t volumeBytes) {
  if (bytes.size() < kHeaderBytes) {
    return std::nullopt;
  }
  const size_t rangeCount = readBigEndian<uint32_t>(&bytes[44]);
  if (rangeCount > (bytes.size() - kHeaderBytes) / kRangeBytes ||
      !isSealed(bytes, identity, sequence, rangeCount)) {
    return std::nullopt;
  }
  const size_t tableBytes = rangeCount * kRangeBytes;
  const auto ranges = readRanges(bytes.subspan(kHeaderBytes, tableBytes), volumeBytes);
  if (!ranges) {
    return std::nullopt;
  }

  HFSPlusFlushRecord record;
  uint64_t unpackedBytes = 0;
  for (const RangeOnDisk& range : *ranges) {
    unpackedBytes += range.length;
  }
  record._bytes.resize(unpackedBytes);
  std::optional packed = bytes.subspan(kHeaderBytes + tableBytes);
  std::span<std::byte> rest = record._bytes;
  for (const RangeOnDisk& range : *ranges) {
    packed = LWUnpackZeros(*packed, rest.first(range.length));
    if (!packed) {
      return std::nullopt;
    }
    record._ranges.push_back({range.offset, rest.first(range.length)});
    rest = rest.subspan(range.length);
  }
  if (!packed->empty()) {
    return std::nullopt;
  }
  return record;
}

void HFSPlusFlushRecord::overlay(std::span<std::byte> bytes, uint64_t offset) const {
  const uint64_t end = offset + bytes.size();
  // The first range that does not end at or before the offset.
  auto range = std::ranges::partition_point(_ranges, [offset](const Range& candidate) {
    return candidate.offset + candidate.bytes.size() <= offset;
  });
  for (; range != _ranges.end() && range->offset < end; ++range) {
    const uint64_t from = std::max(offset, range->offset);
    const uint64_t to = std::min(end, range->offset + range->bytes.size());
    std::ranges::copy(range->bytes.subspan(from - range->offset, to - from),
                      bytes.begin() + static_cast<ptrdiff_t>(from - offset));
  }
}
