#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace view {

/// A file as lists show it.
struct FileEntry {
  uint64_t id = 0;
  std::string path;     // as the volume has it: any bytes at all
  uint64_t pieces = 0;  // extents of both forks
  uint64_t blocks = 0;
  bool fragmented = false;  // a fork of it lies in more than one extent
  int64_t modified = 0;     // seconds since 1970, UTC
  friend bool operator==(const FileEntry&, const FileEntry&) = default;
};

/// Keeps the best files of any number that pass by, in bounded memory.
class FileRanking {
 public:
  enum class By { Pieces, Blocks };

  FileRanking(By by, size_t capacity) : _by(by), _capacity(capacity) {}

  void offer(const FileEntry& file);

  /// The files kept, the best first; equals by path. Leaves the ranking empty.
  std::vector<FileEntry> take();

 private:
  bool isBetter(const FileEntry& left, const FileEntry& right) const;

  By _by;
  size_t _capacity;
  std::vector<FileEntry> _heap;  // the worst of those kept is at the front
};

}  // namespace view
