#include "model/FileRanking.hpp"

#include <algorithm>
#include <tuple>
#include <utility>

namespace view {

bool FileRanking::isBetter(const FileEntry& left, const FileEntry& right) const {
  const auto key = [this](const FileEntry& file) {
    return _by == By::Pieces ? std::pair(file.pieces, file.blocks)
                             : std::pair(file.blocks, file.pieces);
  };
  if (key(left) != key(right)) {
    return key(left) > key(right);
  }
  return std::tie(left.path, left.id) < std::tie(right.path, right.id);
}

void FileRanking::offer(const FileEntry& file) {
  const auto better = [this](const FileEntry& left, const FileEntry& right) {
    return isBetter(left, right);
  };
  if (_heap.size() == _capacity) {
    if (_capacity == 0 || !isBetter(file, _heap.front())) {
      return;
    }
    std::ranges::pop_heap(_heap, better);
    _heap.back() = file;
  } else {
    _heap.push_back(file);
  }
  std::ranges::push_heap(_heap, better);
}

std::vector<FileEntry> FileRanking::take() {
  std::ranges::sort(_heap, [this](const FileEntry& left, const FileEntry& right) {
    return isBetter(left, right);
  });
  return std::exchange(_heap, {});
}

}  // namespace view
