#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "support/ForkDescription.hpp"

namespace support {

/// A fork as it was written, special files included.
struct BuiltFork {
  uint32_t fileID = 0;
  uint8_t forkType = kDataFork;
  /// Belongs to an extended attribute; `forkType` then only tells the file's attributes apart.
  bool isAttribute = false;
  bool unwritten = false;
  uint64_t logicalSize = 0;
  uint32_t totalBlocks = 0;
  std::vector<BlockExtent> extents;
  /// The fork's bytes, with zeros after them where it is longer; null when the fork is stamped.
  std::shared_ptr<const Bytes> literal;
};

/// A file or folder as the catalog names it.
struct BuiltItem {
  uint32_t id = 0;
  uint32_t parentID = 0;
  bool isFolder = false;
  std::u16string name;
};

/// The truth about a volume that was built, for tests to compare with.
struct BuiltVolume {
  uint64_t seed = 0;
  uint32_t blockSize = 0;
  uint32_t totalBlocks = 0;
  uint32_t freeBlocks = 0;
  /// Byte offset of the volume in the image (not 0 inside a wrapper), its length, the image's
  /// length.
  uint64_t volumeStart = 0;
  uint64_t volumeSize = 0;
  uint64_t imageSize = 0;
  /// All files and folders but the root folder, by ID.
  std::vector<BuiltItem> items;
  /// All forks that own blocks, by file ID and fork; the special files' own among them.
  std::vector<BuiltFork> forks;
  /// The image, when it was built in memory.
  Bytes image;

  /// A file's data or resource fork; null when it owns no blocks.
  const BuiltFork* fork(uint32_t fileID, uint8_t forkType) const;
  const BuiltItem* item(uint32_t id) const;

  /// The path of an item as the program prints it ("/" in a name turned into ":"), before escaping;
  /// empty for the root folder.
  std::string path(uint32_t id) const;

  /// The item at such a path.
  std::optional<uint32_t> idOfPath(std::string_view path) const;

  /// Fills `into` with what the fork of a file holds from byte `offset` on. Not for the trees and
  /// the allocation file, whose bytes follow from everything else.
  void readFork(const BuiltFork& builtFork, uint64_t offset, std::span<std::byte> into) const;
};

}  // namespace support
