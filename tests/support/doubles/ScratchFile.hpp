#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

namespace doubles {

/// A file in a directory of its own that goes away with it.
class ScratchFile {
 public:
  /// A file of zeros.
  explicit ScratchFile(uint64_t sizeBytes);
  /// A file with the given bytes.
  explicit ScratchFile(std::span<const std::byte> bytes);
  ScratchFile(const ScratchFile&) = delete;
  ScratchFile& operator=(const ScratchFile&) = delete;
  ~ScratchFile();

  std::string path() const { return _directory / "file"; }
  /// The directory that the file is alone in.
  const std::filesystem::path& directory() const { return _directory; }
  std::vector<std::byte> contents() const;

  /// Makes a file system that every kernel mounts; false without the tool for it.
  [[nodiscard]] bool makeForeignFileSystem() const;

 private:
  std::filesystem::path _directory;
};

}  // namespace doubles
