#include "support/VolumeBuilder.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <tuple>

#include "support/VolumeHeader.hpp"
#include "support/VolumePlan.hpp"

namespace support {

namespace {

constexpr size_t kContentsChunk = 1 << 20;
constexpr size_t kBitmapChunk = 1 << 16;

// Writes at offsets of a fork, wherever its extents lie.
class ForkWriter {
 public:
  ForkWriter(const VolumeGeometry& geometry, const BuiltFork& fork, VolumeImage& image)
      : _geometry(geometry), _fork(fork), _image(image) {
    uint64_t end = 0;
    for (const BlockExtent& extent : fork.extents)
      _ends.push_back(end += uint64_t{extent.count} * geometry.blockSize);
  }

  void write(uint64_t offset, std::span<const std::byte> bytes) {
    while (!bytes.empty()) {
      const auto found = std::ranges::upper_bound(_ends, offset);
      if (found == _ends.end())
        return;
      const auto index = static_cast<size_t>(found - _ends.begin());
      const BlockExtent& extent = _fork.extents[index];
      const uint64_t left = *found - offset;
      const uint64_t place = (uint64_t{extent.start} + extent.count) * _geometry.blockSize - left;
      const size_t count = std::min<uint64_t>(left, bytes.size());
      _image.write(_geometry.volumeStart + place, bytes.first(count));
      offset += count;
      bytes = bytes.subspan(count);
    }
  }

 private:
  const VolumeGeometry& _geometry;
  const BuiltFork& _fork;
  VolumeImage& _image;
  std::vector<uint64_t> _ends;
};

// Writes a planned volume and tells the truth about it.
class VolumeWriter {
 public:
  VolumeWriter(VolumePlan& plan, VolumeImage& image)
      : _plan(plan), _description(plan.description()), _geometry(plan.geometry()), _image(image) {}

  BuiltVolume write() {
    if (_description.wrapper)
      writeWrapper(_description, _geometry, _image);
    describe();
    writeContents();
    writeBitmap();
    writeTree(VolumePlan::extentsFile, _plan.extents());
    writeTree(VolumePlan::catalogFile, _plan.catalog());
    writeTree(VolumePlan::attributesFile, _plan.attributes());
    writeHeader();
    finishTruth();
    return std::move(_truth);
  }

 private:
  void describe() {
    _truth.seed = _description.seed;
    _truth.blockSize = _geometry.blockSize;
    _truth.totalBlocks = _geometry.totalBlocks;
    _truth.volumeStart = _geometry.volumeStart;
    _truth.volumeSize = _geometry.volumeSize;
    _truth.imageSize = _geometry.imageSize;
    for (const CatalogItem& item : _plan.items()) {
      if (item.id != kRootFolderID)
        _truth.items.push_back({item.id, item.parentID, item.folder != nullptr, *item.name});
    }
    std::ranges::sort(_truth.items, {}, &BuiltItem::id);
  }

  void writeContents() {
    Bytes chunk;
    for (size_t i = VolumePlan::startupFile; i < _plan.forks().size(); ++i) {
      const BuiltFork& fork = _plan.forks()[i];
      if (fork.unwritten || fork.fileID == kBadBlocksFileID)
        continue;
      const uint64_t length = fork.literal
                                  ? std::min<uint64_t>(fork.literal->size(), fork.logicalSize)
                                  : fork.logicalSize;
      ForkWriter writer(_geometry, fork, _image);
      for (uint64_t offset = 0; offset < length; offset += chunk.size()) {
        chunk.resize(std::min<uint64_t>(kContentsChunk, length - offset));
        _truth.readFork(fork, offset, chunk);
        writer.write(offset, chunk);
      }
    }
  }

  // The used blocks as runs that neither touch nor overlap.
  std::vector<BlockExtent> usedRuns() const {
    std::vector<BlockExtent> used = _description.markedWithoutOwner;
    used.push_back({0, _geometry.frontBlocks()});
    used.push_back({_geometry.totalBlocks - _geometry.backBlocks(), _geometry.backBlocks()});
    for (const BuiltFork& fork : _plan.forks())
      used.insert(used.end(), fork.extents.begin(), fork.extents.end());
    std::ranges::sort(used, {}, &BlockExtent::start);
    std::vector<BlockExtent> runs;
    for (const BlockExtent& extent : used) {
      if (!runs.empty() && runs.back().start + runs.back().count >= extent.start) {
        const uint32_t end =
            std::max(runs.back().start + runs.back().count, extent.start + extent.count);
        runs.back().count = end - runs.back().start;
      } else if (extent.count > 0) {
        runs.push_back(extent);
      }
    }
    for (const BlockExtent& clear : _description.unmarked)
      runs = without(runs, clear);
    return runs;
  }

  static std::vector<BlockExtent> without(const std::vector<BlockExtent>& runs, BlockExtent clear) {
    std::vector<BlockExtent> left;
    for (const BlockExtent& run : runs) {
      const uint32_t end = run.start + run.count;
      const uint32_t clearEnd = clear.start + clear.count;
      if (const uint32_t upTo = std::min(end, clear.start); run.start < upTo)
        left.push_back({run.start, upTo - run.start});
      if (const uint32_t from = std::max(run.start, clearEnd); from < end)
        left.push_back({from, end - from});
    }
    return left;
  }

  void writeBitmap() {
    ForkWriter writer(_geometry, _plan.forks()[VolumePlan::allocation], _image);
    Bytes chunk(kBitmapChunk);
    uint64_t chunkIndex = 0;
    uint64_t used = 0;
    const uint64_t bitmapSize = _geometry.bitmapSize();
    const auto flush = [&] {
      const uint64_t offset = chunkIndex * kBitmapChunk;
      writer.write(offset,
                   std::span(chunk).first(std::min<uint64_t>(kBitmapChunk, bitmapSize - offset)));
      std::ranges::fill(chunk, std::byte{0});
    };
    for (const BlockExtent& run : usedRuns()) {
      used += run.count;
      const uint64_t end = uint64_t{run.start} + run.count;
      for (uint64_t block = run.start; block < end;) {
        if (block / 8 / kBitmapChunk != chunkIndex) {
          flush();
          chunkIndex = block / 8 / kBitmapChunk;
        }
        std::byte& byte = chunk[block / 8 % kBitmapChunk];
        const bool whole = block % 8 == 0 && end - block >= 8;
        byte |= whole ? std::byte{0xFF} : std::byte{0x80} >> (block % 8);
        block += whole ? 8 : 1;
      }
    }
    flush();
    _truth.freeBlocks = static_cast<uint32_t>(_geometry.totalBlocks - used);
  }

  void writeTree(VolumePlan::Special special, const PlannedTree& tree) {
    if (!tree.writer)
      return;
    ForkWriter writer(_geometry, _plan.forks()[special], _image);
    const uint64_t nodeSize = tree.writer->nodeSize();
    tree.writer->write(tree.totalNodes, [&](uint32_t node, std::span<const std::byte> bytes) {
      writer.write(node * nodeSize, bytes);
    });
  }

  void writeHeader() {
    VolumeHeader header;
    for (const BuiltItem& item : _truth.items) {
      header.fileCount += !item.isFolder;
      header.folderCount += item.isFolder;
      header.nextCatalogID = std::max(header.nextCatalogID, item.id + 1);
    }
    header.nextCatalogID = std::max(header.nextCatalogID, _description.nextID());
    header.freeBlocks = _truth.freeBlocks;
    header.nextAllocation = _geometry.frontBlocks();
    const auto& forks = _plan.forks();
    if (_description.journalInfoFile != nullptr) {
      for (const BuiltFork& fork : forks) {
        if (fork.fileID == _description.journalInfoFile->id)
          header.journalInfoBlock = fork.extents[0].start;
      }
    }
    header.allocation = forks[VolumePlan::allocation];
    header.extents = forks[VolumePlan::extentsFile];
    header.catalog = forks[VolumePlan::catalogFile];
    header.attributes = forks[VolumePlan::attributesFile];
    header.startup = forks[VolumePlan::startupFile];
    header.write(_description, _geometry, _image);
  }

  void finishTruth() {
    _truth.forks = std::move(_plan.forks());
    std::erase_if(_truth.forks, [](const BuiltFork& fork) { return fork.totalBlocks == 0; });
    std::ranges::sort(_truth.forks, {}, [](const BuiltFork& fork) {
      return std::tuple(fork.fileID, fork.isAttribute, fork.forkType);
    });
  }

  VolumePlan& _plan;
  const VolumeDescription& _description;
  const VolumeGeometry& _geometry;
  VolumeImage& _image;
  BuiltVolume _truth;
};

std::expected<BuiltVolume, std::string> build(const VolumeDescription& description,
                                              const std::filesystem::path* path) {
  VolumePlan plan(description);
  if (std::string failure = plan.make(); !failure.empty())
    return std::unexpected(failure);
  const uint64_t size = plan.geometry().imageSize;
  auto image = path != nullptr ? std::make_unique<VolumeImage>(*path, size)
                               : std::make_unique<VolumeImage>(size);
  BuiltVolume built = VolumeWriter(plan, *image).write();
  if (std::string failure = image->close(); !failure.empty())
    return std::unexpected(failure);
  built.image = image->takeMemory();
  return built;
}

BuiltVolume expectBuilt(std::expected<BuiltVolume, std::string> built) {
  if (built)
    return std::move(*built);
  std::fprintf(stderr, "volume builder: %s\n", built.error().c_str());
  std::abort();
}

}  // namespace

std::expected<BuiltVolume, std::string> tryBuildVolume(const VolumeDescription& description,
                                                       const std::filesystem::path& path) {
  return build(description, &path);
}

std::expected<BuiltVolume, std::string> tryBuildVolume(const VolumeDescription& description) {
  return build(description, nullptr);
}

BuiltVolume buildVolume(const VolumeDescription& description, const std::filesystem::path& path) {
  return expectBuilt(tryBuildVolume(description, path));
}

BuiltVolume buildVolume(const VolumeDescription& description) {
  return expectBuilt(tryBuildVolume(description));
}

}  // namespace support
