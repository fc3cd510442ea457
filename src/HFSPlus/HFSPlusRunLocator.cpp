#include "HFSPlus/HFSPlusRunLocator.hpp"

#include "HFSPlus/HFSPlusByteOrder.hpp"
#include "LWKit/LWChecksum.hpp"

namespace {

constexpr size_t kChecksumOffset = 56;

}  // namespace

std::array<std::byte, HFSPlusRunLocator::kBytes> HFSPlusRunLocator::toDisk() const {
  std::array<std::byte, kBytes> bytes{};
  writeBigEndian(bytes.data(), kMagic);
  writeBigEndian(bytes.data() + 8, runID);
  writeBigEndian(bytes.data() + 16, sequence);
  writeBigEndian(bytes.data() + 20, recordBlock);
  writeBigEndian(bytes.data() + 24, runBlocks);
  writeBigEndian(bytes.data() + 28, recordBytes);
  writeBigEndian(bytes.data() + 32, headerBefore);
  writeBigEndian(bytes.data() + 40, headerAfter);
  writeBigEndian(bytes.data() + 48, attributes);
  writeBigEndian(bytes.data() + 52, writeCount);
  writeBigEndian(bytes.data() + kChecksumOffset,
                 LWChecksum::of(std::span(bytes).first(kChecksumOffset)));
  return bytes;
}

std::optional<HFSPlusRunLocator> HFSPlusRunLocator::fromDisk(
    std::span<const std::byte, kBytes> bytes) {
  if (readBigEndian<uint64_t>(bytes.data()) != kMagic ||
      readBigEndian<uint64_t>(bytes.data() + kChecksumOffset) !=
          LWChecksum::of(bytes.first(kChecksumOffset))) {
    return std::nullopt;
  }
  return HFSPlusRunLocator{.runID = readBigEndian<uint64_t>(bytes.data() + 8),
                           .sequence = readBigEndian<uint32_t>(bytes.data() + 16),
                           .recordBlock = readBigEndian<uint32_t>(bytes.data() + 20),
                           .runBlocks = readBigEndian<uint32_t>(bytes.data() + 24),
                           .recordBytes = readBigEndian<uint32_t>(bytes.data() + 28),
                           .headerBefore = readBigEndian<uint64_t>(bytes.data() + 32),
                           .headerAfter = readBigEndian<uint64_t>(bytes.data() + 40),
                           .attributes = readBigEndian<uint32_t>(bytes.data() + 48),
                           .writeCount = readBigEndian<uint32_t>(bytes.data() + 52)};
}
