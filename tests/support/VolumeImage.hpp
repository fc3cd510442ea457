#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <string>

#include "support/ByteWriter.hpp"

namespace support {

/// Where a volume is built: a file, sparse wherever nothing or only zeros are written, or memory.
/// Writes that follow one another are gathered. After the first failed write nothing is written any
/// more, and close() tells what went wrong.
class VolumeImage {
 public:
  /// A file of `size` bytes, replaced if it exists.
  VolumeImage(const std::filesystem::path& path, uint64_t size);
  /// A buffer of `size` bytes.
  explicit VolumeImage(uint64_t size);
  ~VolumeImage();
  VolumeImage(const VolumeImage&) = delete;
  VolumeImage& operator=(const VolumeImage&) = delete;

  /// Writes at a byte offset of the image. Bytes outside the image are a failure.
  void write(uint64_t offset, std::span<const std::byte> bytes);

  /// Writes what is gathered. Empty when everything was written, otherwise the reason; a file that
  /// could not be written in full is then removed, so that it takes no room and passes for nothing.
  [[nodiscard]] std::string close();

  /// The bytes of an image in memory; to be taken after close().
  Bytes takeMemory() { return std::move(_memory); }

 private:
  void flush();
  void writeThrough(uint64_t offset, std::span<const std::byte> bytes);
  void fail(const std::string& what);

  int _file = -1;
  std::filesystem::path _path;
  uint64_t _size;
  Bytes _memory;
  Bytes _pending;
  uint64_t _pendingOffset = 0;
  std::string _failure;
};

}  // namespace support
