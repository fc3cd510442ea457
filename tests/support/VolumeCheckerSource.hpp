#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/VolumeCheckerBytes.hpp"

namespace volumecheck {

struct Extent {
  std::uint32_t startBlock = 0;
  std::uint32_t blockCount = 0;
  bool operator==(const Extent&) const = default;
};

// The bytes of one volume: a file, a block device or a buffer, or a window into it (the volume
// embedded in an HFS wrapper). Read-only. Knows where a sparse file has holes.
class VolumeCheckerSource {
 public:
  // The buffer must outlive the source.
  explicit VolumeCheckerSource(Bytes buffer);
  // None when the file cannot be opened; `whyNot` then says why.
  static std::unique_ptr<VolumeCheckerSource> openFile(const std::string& path,
                                                       std::string& whyNot);
  ~VolumeCheckerSource();
  VolumeCheckerSource(const VolumeCheckerSource&) = delete;
  VolumeCheckerSource& operator=(const VolumeCheckerSource&) = delete;

  // Restricts the source to `size` bytes from `offset` on; false when they are not all there.
  bool narrow(std::uint64_t offset, std::uint64_t size);

  std::uint64_t size() const { return _windowSize; }
  // Fills `out` from byte `offset`; false when a byte lies outside or cannot be read.
  bool read(std::uint64_t offset, std::span<std::uint8_t> out) const;
  // The first byte at or after `offset` that may be something else than a hole.
  std::uint64_t holeEnd(std::uint64_t offset) const;
  bool isHole(std::uint64_t offset, std::uint64_t size) const {
    return holeEnd(offset) >= offset + size;
  }

 private:
  VolumeCheckerSource(int descriptor, std::uint64_t size);
  void _findHoles();

  int _descriptor = -1;
  Bytes _buffer;
  std::uint64_t _windowOffset = 0;
  std::uint64_t _windowSize = 0;
  // Holes of the whole file as [first, second), rising.
  std::vector<std::pair<std::uint64_t, std::uint64_t>> _holes;
};

// The bytes of one fork, found through its extents. Extents must lie inside the volume.
class VolumeCheckerForkReader {
 public:
  VolumeCheckerForkReader(const VolumeCheckerSource& source, std::uint32_t blockSize,
                          const std::vector<Extent>& extents);

  // Bytes covered by the extents.
  std::uint64_t mappedSize() const { return _mappedSize; }
  // False when a byte lies outside the extents or cannot be read.
  bool read(std::uint64_t offset, std::span<std::uint8_t> out) const;
  // True when all the bytes are known to be unwritten parts of a sparse file.
  bool isHole(std::uint64_t offset, std::uint64_t size) const;

 private:
  struct Piece {
    std::uint64_t forkOffset, volumeOffset, size;
  };
  // Calls `visit(volumeOffset, size)` for each contiguous part of the range until it says false.
  template <typename Visit>
  bool _eachPart(std::uint64_t offset, std::uint64_t size, Visit visit) const;

  const VolumeCheckerSource& _source;
  std::vector<Piece> _pieces;
  std::uint64_t _mappedSize = 0;
};

}  // namespace volumecheck
