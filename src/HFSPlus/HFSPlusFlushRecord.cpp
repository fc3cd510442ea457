#include "HFSPlus/HFSPlusFlushRecord.hpp"

#include <algorithm>
#include <array>
#include <cstring>

#include "HFSPlus/HFSPlusByteOrder.hpp"
#include "LWKit/LWChecksum.hpp"

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

/// The checksum of a record in parts, whose own field, in the first part, counts as zero.
uint64_t recordChecksum(std::span<const std::span<const std::byte>> parts) {
  constexpr std::array<std::byte, sizeof(uint64_t)> kZero{};
  LWChecksum checksum;
  checksum.add(parts.front().first(kChecksumOffset));
  checksum.add(kZero);
  checksum.add(parts.front().subspan(HFSPlusFlushRecord::kHeaderBytes));
  for (const std::span<const std::byte> part : parts.subspan(1)) {
    checksum.add(part);
  }
  return checksum.value();
}

}  // namespace

uint64_t HFSPlusFlushRecord::bytesFor(const HFSPlusFlushPlan& plan) {
  return kHeaderBytes + plan.pieces().size() * kRangeBytes + plan.byteCount();
}

HFSPlusFlushRecord::OnDisk HFSPlusFlushRecord::toDisk(const HFSPlusFlushPlan& plan,
                                                      const HFSPlusRunIdentity& identity,
                                                      uint32_t sequence) {
  const size_t rangeCount = plan.pieces().size();
  OnDisk record;
  record.head.resize(kHeaderBytes + rangeCount * kRangeBytes);
  record.parts.reserve(1 + rangeCount);
  record.parts.emplace_back(record.head);
  writeHeader(record.head.data(), identity, sequence, rangeCount, bytesFor(plan));
  std::byte* range = record.head.data() + kHeaderBytes;
  for (const HFSPlusFlushPlan::Piece& piece : plan.pieces()) {
    writeBigEndian(range, piece.offset);
    writeBigEndian(range + 8, uint64_t{piece.bytes.size()});
    range += kRangeBytes;
    record.parts.push_back(piece.bytes);
  }
  writeBigEndian(record.head.data() + kChecksumOffset, recordChecksum(record.parts));
  return record;
}

std::optional<HFSPlusFlushRecord> HFSPlusFlushRecord::fromDisk(std::vector<std::byte> bytes,
                                                               const HFSPlusRunIdentity& identity,
                                                               uint32_t sequence,
                                                               uint64_t volumeBytes) {
  if (bytes.size() < kHeaderBytes) {
    return std::nullopt;
  }
  const size_t rangeCount = readBigEndian<uint32_t>(bytes.data() + 44);
  if (rangeCount > (bytes.size() - kHeaderBytes) / kRangeBytes) {
    return std::nullopt;
  }
  std::array<std::byte, kChecksumOffset> expected;
  writeHeader(expected.data(), identity, sequence, rangeCount, bytes.size());
  if (std::memcmp(expected.data(), bytes.data(), expected.size()) != 0 ||
      readBigEndian<uint64_t>(bytes.data() + kChecksumOffset) !=
          recordChecksum(std::array{std::span<const std::byte>(bytes)})) {
    return std::nullopt;
  }

  HFSPlusFlushRecord record;
  record._bytes = std::move(bytes);
  std::span<const std::byte> content =
      std::span(record._bytes).subspan(kHeaderBytes + rangeCount * kRangeBytes);
  uint64_t previousEnd = 0;
  for (size_t i = 0; i < rangeCount; ++i) {
    const std::byte* range = record._bytes.data() + kHeaderBytes + i * kRangeBytes;
    const auto offset = readBigEndian<uint64_t>(range);
    const auto length = readBigEndian<uint64_t>(range + 8);
    if (length > content.size() || offset < previousEnd || offset > volumeBytes ||
        length > volumeBytes - offset) {
      return std::nullopt;
    }
    record._ranges.push_back({offset, content.first(length)});
    content = content.subspan(length);
    previousEnd = offset + length;
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
