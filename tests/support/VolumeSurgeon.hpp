#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "support/VolumeChecker.hpp"

// Opens up a sound volume in memory, finds its parts and breaks single rules in it. Throws when
// something that a test asks for is not there.
class VolumeSurgeon {
 public:
  using Bytes = volumecheck::Bytes;

  // A record of a B-tree, as byte offsets in the volume.
  struct Record {
    std::uint32_t node = 0;
    std::size_t nodeOffset = 0;
    std::size_t index = 0;
    std::size_t key = 0;
    std::size_t data = 0;
  };
  using Choice = std::function<bool(Bytes key, Bytes data)>;

  explicit VolumeSurgeon(std::vector<std::uint8_t> volume);

  const volumecheck::VolumeTruth& truth() const { return _truth; }
  std::vector<std::uint8_t>& bytes() { return _volume; }
  volumecheck::CheckResult check(const volumecheck::CheckOptions& options = {}) const;

  std::uint64_t get(std::size_t offset, std::size_t width) const;
  void set(std::size_t offset, std::size_t width, std::uint64_t value);
  void add(std::size_t offset, std::size_t width, std::int64_t delta);

  // Changes a field of both volume headers.
  void setHeader(std::size_t field, std::size_t width, std::uint64_t value);
  void addHeader(std::size_t field, std::size_t width, std::int64_t delta);
  std::size_t alternateHeader() const { return _volume.size() - 1024; }

  // Where a fork's byte lies in the volume.
  std::size_t forkByte(std::uint32_t cnid, std::uint64_t offset) const;
  std::size_t node(std::uint32_t treeID, std::uint32_t index) const;
  std::uint32_t nodeSize(std::uint32_t treeID) const;
  // The value of a header record field (its offset in the record).
  std::size_t treeHeader(std::uint32_t treeID, std::size_t field) const;
  // The offset of entry `index` of a node's offset table.
  std::size_t recordOffset(std::uint32_t treeID, std::uint32_t node, std::size_t index) const;

  // The first leaf (height 1) or index record (height 2) chosen.
  Record find(std::uint32_t treeID, int height, const Choice& choice) const;
  Record leaf(std::uint32_t treeID) const;
  Record catalogRecord(const std::string& path) const;
  Record thread(const std::string& path) const;
  std::uint32_t cnid(const std::string& path) const;

  void setBitmap(std::uint32_t block, bool value);
  std::uint32_t firstFreeBlock() const { return _truth.freeRuns.at(0).startBlock; }
  // A node of the tree that its map has as free.
  std::uint32_t freeNode(std::uint32_t treeID) const;
  void setMapBit(std::uint32_t treeID, std::uint32_t node, bool value);

 private:
  std::vector<std::uint8_t> _volume;
  volumecheck::VolumeTruth _truth;
};
