#include "support/BuiltVolume.hpp"

#include <algorithm>
#include <cstring>
#include <tuple>

#include "support/VolumeNames.hpp"

namespace support {

const BuiltFork* BuiltVolume::fork(uint32_t fileID, uint8_t forkType) const {
  const auto key = [](const BuiltFork& built) {
    return std::tuple(built.fileID, built.isAttribute, built.forkType);
  };
  const auto found = std::ranges::lower_bound(forks, std::tuple(fileID, false, forkType), {}, key);
  if (found == forks.end() || key(*found) != std::tuple(fileID, false, forkType))
    return nullptr;
  return &*found;
}

const BuiltItem* BuiltVolume::item(uint32_t id) const {
  const auto found = std::ranges::lower_bound(items, id, {}, &BuiltItem::id);
  return found == items.end() || found->id != id ? nullptr : &*found;
}

std::string BuiltVolume::path(uint32_t id) const {
  std::u16string path;
  for (const BuiltItem* at = item(id); at != nullptr; at = item(at->parentID)) {
    std::u16string part = u"/" + at->name;
    std::replace(part.begin() + 1, part.end(), u'/', u':');
    path.insert(0, part);
  }
  return utf8FromUnits(path);
}

std::optional<uint32_t> BuiltVolume::idOfPath(std::string_view wanted) const {
  for (const BuiltItem& candidate : items) {
    if (path(candidate.id) == wanted)
      return candidate.id;
  }
  return std::nullopt;
}

void BuiltVolume::readFork(const BuiltFork& builtFork, uint64_t offset,
                           std::span<std::byte> into) const {
  if (!builtFork.literal && !builtFork.unwritten) {
    stampFork(seed, builtFork.fileID, builtFork.forkType, offset, into);
    return;
  }
  std::ranges::fill(into, std::byte{0});
  if (!builtFork.literal || offset >= builtFork.literal->size())
    return;
  const size_t count = std::min<size_t>(into.size(), builtFork.literal->size() - offset);
  std::memcpy(into.data(), builtFork.literal->data() + offset, count);
}

}  // namespace support
