#include "support/PlacementOrder.hpp"

#include <algorithm>
#include <set>

namespace volumecheck {

namespace {

constexpr const char* kPlaylistPath = "/private/var/db/BootCache.playlist";
constexpr std::uint32_t kPlaylistMagic = 0xA1B2C3D6;
constexpr std::uint64_t kPlaylistHeaderSize = 12;
constexpr std::uint64_t kPlaylistEntrySize = 20;
constexpr std::uint64_t kPlaylistSizeMax = 1 << 20;

struct Range {
  std::uint64_t start = 0;
  std::uint64_t end = 0;
  std::uint32_t batch = 0;
  PlacedFork owner = {};
};

// The playlist's bytes; none when there is no such file, or none of a sensible size.
std::vector<std::uint8_t> playlistBytes(VolumeCheckerSource& source, const VolumeTruth& truth) {
  const CatalogItem* item = truth.findItem(kPlaylistPath);
  const Fork* fork = item != nullptr && item->type == RecordType::File
                         ? truth.findFork(item->cnid, ForkType::Data)
                         : nullptr;
  if (fork == nullptr || fork->logicalSize < kPlaylistHeaderSize ||
      fork->logicalSize > kPlaylistSizeMax ||
      !source.narrow(truth.volumeOffset, truth.volumeSize)) {
    return {};
  }
  std::vector<std::uint8_t> bytes(fork->logicalSize);
  const VolumeCheckerForkReader reader(source, truth.header.blockSize, fork->extents);
  return reader.read(0, bytes) ? bytes : std::vector<std::uint8_t>();
}

// The ranges by start block; of those with one start the one listed last comes first.
std::vector<Range> rangesOf(const std::vector<std::uint8_t>& playlist, const VolumeTruth& truth,
                            std::uint32_t firstDataBlock) {
  const bool bigEndianFile = u32At(playlist, 0) == kPlaylistMagic;
  const auto numberAt = [&](std::size_t offset, std::size_t width) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < width; ++i) {
      value = value << 8 | playlist.at(offset + (bigEndianFile ? i : width - 1 - i));
    }
    return value;
  };
  if (playlist.empty() || numberAt(0, 4) != kPlaylistMagic) {
    return {};
  }
  const std::uint64_t count = numberAt(4, 4);
  if (count > (playlist.size() - kPlaylistHeaderSize) / kPlaylistEntrySize) {
    return {};
  }
  const std::uint64_t blockSize = truth.header.blockSize;
  std::vector<Range> ranges;
  for (std::uint64_t i = count; i > 0; --i) {
    const std::size_t entry = kPlaylistHeaderSize + (i - 1) * kPlaylistEntrySize;
    const std::uint64_t offset = numberAt(entry, 8);
    const std::uint64_t volumeEnd = truth.header.totalBlocks * blockSize;
    if (offset >= volumeEnd || offset / blockSize < firstDataBlock) {
      continue;
    }
    const std::uint64_t end = offset + std::min(numberAt(entry + 8, 8), volumeEnd - offset);
    const Range range{offset / blockSize, (end + blockSize - 1) / blockSize,
                      static_cast<std::uint32_t>(numberAt(entry + 16, 4))};
    if (range.end > range.start) {
      ranges.push_back(range);
    }
  }
  std::ranges::stable_sort(ranges, {}, &Range::start);
  return ranges;
}

// The catalog's items in the order in which a scan meets them: node by node where the catalog file
// is well filled, along the chain of leaves where it is not.
std::vector<CatalogItem> itemsInScanOrder(const VolumeTruth& truth) {
  std::vector<CatalogItem> items = truth.items;
  const std::uint32_t usedNodes = truth.catalogTree.totalNodes - truth.catalogTree.freeNodes;
  if (truth.catalogTree.totalNodes <= 5 * usedNodes) {
    std::ranges::stable_sort(items, {}, &CatalogItem::leafNode);
  }
  return items;
}

// A fork's extent takes the first range that does not end before it, if it begins in that one.
void claim(std::vector<Range>& ranges, const Fork& fork) {
  for (const Extent& extent : fork.extents) {
    for (Range& range : ranges) {
      if (range.end > extent.startBlock) {
        if (range.start <= extent.startBlock) {
          range.owner = {fork.cnid, fork.type};
        }
        break;
      }
    }
  }
}

void appendNew(std::vector<PlacedFork>& order, std::set<PlacedFork>& known, PlacedFork fork) {
  if (known.insert(fork).second) {
    order.push_back(fork);
  }
}

using Children = std::map<std::uint32_t, std::vector<const CatalogItem*>>;

void appendFolder(std::vector<PlacedFork>& order, const ForkIndex& forks,
                  const Children& childrenOf, std::uint32_t folderID) {
  const auto children = childrenOf.find(folderID);
  if (children == childrenOf.end()) {
    return;
  }
  for (const CatalogItem* item : children->second) {
    for (const ForkType type : {ForkType::Data, ForkType::Resource}) {
      const Fork* fork = item->type == RecordType::File ? forks.find(item->cnid, type) : nullptr;
      if (fork != nullptr && fork->logicalSize > 0) {
        order.push_back({item->cnid, type});
      }
    }
  }
  for (const CatalogItem* item : children->second) {
    if (item->type == RecordType::Folder) {
      appendFolder(order, forks, childrenOf, item->cnid);
    }
  }
}

}  // namespace

ForkIndex::ForkIndex(const VolumeTruth& truth) {
  for (const Fork& fork : truth.forks) {
    _forks.try_emplace({fork.cnid, fork.type}, &fork);
  }
}

const Fork* ForkIndex::find(std::uint32_t cnid, ForkType type) const {
  const auto fork = _forks.find({cnid, type});
  return fork == _forks.end() ? nullptr : fork->second;
}

std::vector<PlacedFork> bootOrder(VolumeCheckerSource& source, const VolumeTruth& truth,
                                  std::uint32_t firstDataBlock) {
  std::vector<Range> ranges = rangesOf(playlistBytes(source, truth), truth, firstDataBlock);
  const ForkIndex forks(truth);
  for (const CatalogItem& item : itemsInScanOrder(truth)) {
    for (const ForkType type : {ForkType::Data, ForkType::Resource}) {
      const Fork* fork = item.type == RecordType::File ? forks.find(item.cnid, type) : nullptr;
      if (fork != nullptr) {
        claim(ranges, *fork);
      }
    }
  }
  std::ranges::stable_sort(ranges, {}, &Range::batch);
  std::vector<PlacedFork> order;
  std::set<PlacedFork> known;
  for (const Range& range : ranges) {
    if (range.owner.cnid != 0) {
      appendNew(order, known, range.owner);
    }
  }
  return order;
}

std::vector<PlacedFork> applicationOrder(const VolumeTruth& truth) {
  std::vector<PlacedFork> order;
  const CatalogItem* top = truth.findItem("/Applications");
  if (top != nullptr && top->type == RecordType::Folder) {
    Children childrenOf;
    for (const CatalogItem& item : truth.items) {
      childrenOf[item.parentID].push_back(&item);
    }
    appendFolder(order, ForkIndex(truth), childrenOf, top->cnid);
  }
  return order;
}

std::vector<PlacedFork> bootAndApplicationOrder(VolumeCheckerSource& source,
                                                const VolumeTruth& truth,
                                                std::uint32_t firstDataBlock) {
  const ForkIndex index(truth);
  std::vector<PlacedFork> order;
  std::set<PlacedFork> known;
  for (const auto& forks : {bootOrder(source, truth, firstDataBlock), applicationOrder(truth)}) {
    for (const PlacedFork& fork : forks) {
      if (isMovable(*index.find(fork.cnid, fork.type))) {
        appendNew(order, known, fork);
      }
    }
  }
  return order;
}

bool isMovable(const Fork& fork, bool extentsFileMoves) {
  if (fork.cnid == kExtentsFileID) {
    return extentsFileMoves;
  }
  return fork.type != ForkType::Attribute && fork.cnid != kBadBlockFileID &&
         fork.cnid != kStartupFileID && fork.path != "/.journal" &&
         fork.path != "/.journal_info_block";
}

std::vector<bool> immovableBlocks(const VolumeTruth& truth, bool extentsFileMoves) {
  std::vector<bool> immovable(truth.header.totalBlocks, true);
  const auto clear = [&](const Extent& extent) {
    for (std::uint32_t i = 0; i < extent.blockCount; ++i) {
      immovable.at(extent.startBlock + i) = false;
    }
  };
  std::ranges::for_each(truth.freeRuns, clear);
  for (const Fork& fork : truth.forks) {
    if (isMovable(fork, extentsFileMoves)) {
      std::ranges::for_each(fork.extents, clear);
    }
  }
  return immovable;
}

}  // namespace volumecheck
