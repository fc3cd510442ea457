#include "support/ForkDescription.hpp"

#include <array>
#include <cstring>

#include "support/SeededRandom.hpp"

namespace support {

namespace {

constexpr size_t kSectorSize = 512;
constexpr uint32_t kSectorMark = fourCharCode("SECT");

void stampSector(uint64_t seed, uint32_t fileID, uint8_t forkType, uint64_t sector,
                 std::span<std::byte, kSectorSize> into) {
  ByteWriter writer(into);
  writer.u32(kSectorMark).u32(fileID).u64(seed).u8(forkType).zeros(7).u64(sector);
  uint64_t state =
      mixBits(seed ^ mixBits(uint64_t{fileID} << 8 | forkType) ^ sector * 0x100000001B3u);
  for (size_t at = writer.position(); at < kSectorSize; at += sizeof state) {
    state = state * 6364136223846793005u + 1442695040888963407u;
    const uint64_t word = state ^ state >> 29;
    std::memcpy(into.data() + at, &word, sizeof word);
  }
}

}  // namespace

ForkDescription fork(uint64_t logicalSize, uint32_t fragments) {
  ForkDescription description;
  description.logicalSize = logicalSize;
  description.fragments = fragments;
  return description;
}

ForkDescription forkAt(std::vector<BlockExtent> extents, uint64_t logicalSize) {
  ForkDescription description;
  description.logicalSize = logicalSize;
  description.extents = std::move(extents);
  return description;
}

ForkDescription forkWith(std::string_view text) {
  const auto bytes = std::as_bytes(std::span(text));
  return forkWith(Bytes(bytes.begin(), bytes.end()));
}

ForkDescription forkWith(Bytes bytes) {
  ForkDescription description;
  description.logicalSize = bytes.size();
  description.literal = std::make_shared<const Bytes>(std::move(bytes));
  return description;
}

void stampFork(uint64_t seed, uint32_t fileID, uint8_t forkType, uint64_t offset,
               std::span<std::byte> into) {
  std::array<std::byte, kSectorSize> sector;
  while (!into.empty()) {
    const auto skip = static_cast<size_t>(offset % kSectorSize);
    const size_t count = std::min(kSectorSize - skip, into.size());
    if (count == kSectorSize) {
      stampSector(seed, fileID, forkType, offset / kSectorSize, into.first<kSectorSize>());
    } else {
      stampSector(seed, fileID, forkType, offset / kSectorSize, sector);
      std::memcpy(into.data(), sector.data() + skip, count);
    }
    offset += count;
    into = into.subspan(count);
  }
}

}  // namespace support
