#include "support/VolumeSurgeon.hpp"

#include <stdexcept>

#include "support/VolumeCheckerBytes.hpp"

using namespace volumecheck;

VolumeSurgeon::VolumeSurgeon(std::vector<std::uint8_t> volume) : _volume(std::move(volume)) {
  CheckResult result = checkVolumeBytes(_volume);
  if (!result.findings.empty()) {
    throw std::logic_error(result.report());
  }
  _truth = std::move(result.truth);
}

CheckResult VolumeSurgeon::check(const CheckOptions& options) const {
  return checkVolumeBytes(_volume, options);
}

std::uint64_t VolumeSurgeon::get(std::size_t offset, std::size_t width) const {
  return bigEndian(_volume, offset, width);
}

void VolumeSurgeon::set(std::size_t offset, std::size_t width, std::uint64_t value) {
  for (std::size_t i = 0; i < width; ++i) {
    _volume.at(offset + width - 1 - i) = static_cast<std::uint8_t>(value >> (8 * i));
  }
}

void VolumeSurgeon::add(std::size_t offset, std::size_t width, std::int64_t delta) {
  set(offset, width, get(offset, width) + static_cast<std::uint64_t>(delta));
}

void VolumeSurgeon::setHeader(std::size_t field, std::size_t width, std::uint64_t value) {
  set(1024 + field, width, value);
  set(alternateHeader() + field, width, value);
}

void VolumeSurgeon::addHeader(std::size_t field, std::size_t width, std::int64_t delta) {
  setHeader(field, width, get(1024 + field, width) + static_cast<std::uint64_t>(delta));
}

std::size_t VolumeSurgeon::forkByte(std::uint32_t cnid, std::uint64_t offset) const {
  const Fork* fork = _truth.findFork(cnid, ForkType::Data);
  if (fork == nullptr) {
    throw std::logic_error("no such fork");
  }
  const std::uint64_t blockSize = _truth.header.blockSize;
  for (const Extent& extent : fork->extents) {
    const std::uint64_t size = extent.blockCount * blockSize;
    if (offset < size) {
      return extent.startBlock * blockSize + offset;
    }
    offset -= size;
  }
  throw std::logic_error("the fork is shorter");
}

std::uint32_t VolumeSurgeon::nodeSize(std::uint32_t treeID) const {
  return static_cast<std::uint32_t>(get(treeHeader(treeID, 18), 2));
}

std::size_t VolumeSurgeon::node(std::uint32_t treeID, std::uint32_t index) const {
  return forkByte(treeID, std::uint64_t{index} * nodeSize(treeID));
}

std::size_t VolumeSurgeon::treeHeader(std::uint32_t treeID, std::size_t field) const {
  return forkByte(treeID, 14 + field);
}

std::size_t VolumeSurgeon::recordOffset(std::uint32_t treeID, std::uint32_t index,
                                        std::size_t record) const {
  return node(treeID, index) + nodeSize(treeID) - 2 * (record + 1);
}

VolumeSurgeon::Record VolumeSurgeon::find(std::uint32_t treeID, int height,
                                          const Choice& choice) const {
  const auto totalNodes = static_cast<std::uint32_t>(get(treeHeader(treeID, 22), 4));
  for (std::uint32_t index = 1; index < totalNodes; ++index) {
    const std::size_t at = node(treeID, index);
    const std::size_t count = get(at + 10, 2);
    const bool wanted = get(at + 8, 1) == (height == 1 ? 0xFF : 0x00) &&
                        get(at + 9, 1) == static_cast<std::uint64_t>(height);
    for (std::size_t i = 0; wanted && i < count; ++i) {
      const std::size_t first = at + get(recordOffset(treeID, index, i), 2);
      const std::size_t end = at + get(recordOffset(treeID, index, i + 1), 2);
      const std::size_t keySize = 2 + get(first, 2);
      const std::size_t data = first + keySize + keySize % 2;
      const Bytes all(_volume);
      if (choice(all.subspan(first, keySize), all.subspan(data, end - data))) {
        return {index, at, i, first, data};
      }
    }
  }
  throw std::logic_error("no such record");
}

VolumeSurgeon::Record VolumeSurgeon::leaf(std::uint32_t treeID) const {
  return find(treeID, 1, [](Bytes, Bytes) { return true; });
}

std::uint32_t VolumeSurgeon::cnid(const std::string& path) const {
  const CatalogItem* item = _truth.findItem(path);
  if (item == nullptr) {
    throw std::logic_error("no such path");
  }
  return item->cnid;
}

VolumeSurgeon::Record VolumeSurgeon::catalogRecord(const std::string& path) const {
  const std::uint32_t wanted = cnid(path);
  return find(kCatalogFileID, 1, [wanted](Bytes, Bytes data) {
    return u16At(data, 0) <= 2 && u32At(data, 8) == wanted;
  });
}

VolumeSurgeon::Record VolumeSurgeon::thread(const std::string& path) const {
  const std::uint32_t wanted = cnid(path);
  return find(kCatalogFileID, 1, [wanted](Bytes key, Bytes data) {
    return u16At(data, 0) >= 3 && u32At(key, 2) == wanted;
  });
}

void VolumeSurgeon::setBitmap(std::uint32_t block, bool value) {
  const std::size_t at = forkByte(kAllocationFileID, block / 8);
  const auto mask = static_cast<std::uint8_t>(0x80 >> (block % 8));
  _volume[at] = static_cast<std::uint8_t>(value ? _volume[at] | mask : _volume[at] & ~mask);
}

std::uint32_t VolumeSurgeon::freeNode(std::uint32_t treeID) const {
  const auto totalNodes = static_cast<std::uint32_t>(get(treeHeader(treeID, 22), 4));
  for (std::uint32_t index = 1; index < totalNodes; ++index) {
    if ((get(node(treeID, 0) + 248 + index / 8, 1) & (0x80U >> (index % 8))) == 0) {
      return index;
    }
  }
  throw std::logic_error("no free node");
}

void VolumeSurgeon::setMapBit(std::uint32_t treeID, std::uint32_t index, bool value) {
  const std::size_t at = node(treeID, 0) + 248 + index / 8;
  const auto mask = static_cast<std::uint8_t>(0x80 >> (index % 8));
  _volume[at] = static_cast<std::uint8_t>(value ? _volume[at] | mask : _volume[at] & ~mask);
}
