#pragma once

#include <algorithm>
#include <cstring>
#include <map>
#include <optional>
#include <vector>

#include "HFSPlus/HFSPlusHeldWrites.hpp"
#include "HFSPlus/HFSPlusVolumeAccess.hpp"
#include "support/doubles/TestRandom.hpp"

/// A volume in memory that has an allocation file and nothing else. The file lies at the start of
/// the volume in one piece.
class MemoryBitmapVolume final : public HFSPlusVolumeAccess {
 public:
  /// `fileBytes` is the allocation file's logical size; by default as many whole blocks as it
  /// takes.
  explicit MemoryBitmapVolume(uint32_t totalBlocks, uint32_t blockSize = 4096,
                              std::optional<uint64_t> fileBytes = {}) {
    uint64_t needed = (uint64_t{totalBlocks} + 7) / 8;
    uint64_t blocks = (fileBytes.value_or(needed) + blockSize - 1) / blockSize;
    header.blockSize = blockSize;
    header.totalBlocks = totalBlocks;
    header.allocationFile.logicalSize = fileBytes.value_or(blocks * blockSize);
    header.allocationFile.totalBlocks = static_cast<uint32_t>(blocks);
    header.allocationFile.extents[0] = {0, static_cast<uint32_t>(blocks)};
    bytes.resize(blocks * blockSize);
  }

  Result<> readVolume(std::span<std::byte> target, uint64_t offset) override {
    ++reads;
    if (offset + target.size() > failingFrom) {
      return std::unexpected(XRDefragError::withFormat("The device is broken."));
    }
    std::ranges::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(offset),
                        static_cast<std::ptrdiff_t>(target.size()), target.begin());
    return {};
  }
  const HFSPlusVolumeHeader& hostVolumeHeader() const override { return header; }
  const HFSPlusForkData* hostForkData(uint32_t fileID) const override {
    return fileID == kHFSAllocationFileID ? &header.allocationFile : nullptr;
  }
  Result<HFSPlusTranslation> translateOffset(uint64_t offset, uint32_t fileID, uint8_t,
                                             const HFSPlusForkData& fork) override {
    uint64_t end = std::min(fork.logicalSize, uint64_t{fork.totalBlocks} * header.blockSize);
    if (offset >= end) {
      return std::unexpected(XRDefragError::withFormat(
          "Offset %1$llu is out of range for file ID %2$lu.", offset, fileID));
    }
    return HFSPlusTranslation{offset, end - offset};
  }
  HFSPlusHeldWrites& heldWrites() override { return held; }
  uint32_t blockSizeOfDevice() const override { return 512; }
  bool isHFSX() const override { return false; }
  void updateFreeBlocks(int64_t delta) override { toldDeltas.push_back(delta); }

  /// Writes what is held, as a volume's flush does.
  void writeHeld() {
    for (const auto& [key, piece] : held.pieces()) {
      std::ranges::copy(piece, bytes.begin() + static_cast<std::ptrdiff_t>(key.offset));
    }
    held.clear();
  }

  bool bit(uint64_t block) const {
    return (std::to_integer<unsigned>(bytes[block / 8]) >> (7 - block % 8) & 1) != 0;
  }
  void setBit(uint64_t block, bool used) {
    auto mask = static_cast<std::byte>(0x80 >> block % 8);
    bytes[block / 8] = used ? bytes[block / 8] | mask : bytes[block / 8] & ~mask;
  }
  /// Fills the bitmap with runs of random length.
  void fillRandomly(TestRandom& random, uint32_t longestRun) {
    bool used = false;
    for (uint64_t block = 0; block < bytes.size() * 8; used = !used) {
      for (uint64_t left = random() % longestRun + 1; left > 0 && block < bytes.size() * 8;
           --left) {
        setBit(block++, used);
      }
    }
  }
  int64_t told() const {
    int64_t sum = 0;
    for (int64_t delta : toldDeltas) {
      sum += delta;
    }
    return sum;
  }

  HFSPlusVolumeHeader header{};
  std::vector<std::byte> bytes;
  HFSPlusHeldWrites held;
  std::vector<int64_t> toldDeltas;
  uint64_t reads = 0;
  uint64_t failingFrom = UINT64_MAX;  // byte offset
};
