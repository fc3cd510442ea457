#include "VolumePlaces.hpp"

#include <algorithm>
#include <initializer_list>

#include "HFSPlus/HFSPlusByteOrder.hpp"
#include "HFSPlus/HFSPlusFlushRecord.hpp"
#include "HFSPlus/HFSPlusRunLocator.hpp"
#include "support/VolumeFormat.hpp"

namespace fuzz {

namespace {

using support::BuiltFork;
using support::BuiltVolume;

constexpr size_t kMostPlacesOfFile = 4096;

class Collector {
 public:
  Collector(const FuzzImage& image, const BuiltVolume& built) : _device(image), _built(built) {}

  VolumePlaces collect() {
    addHeader();
    addReserved();
    addWrapper();
    for (const BuiltFork& fork : _built.forks) {
      addFork(fork);
    }
    return std::move(_places);
  }

 private:
  void add(PlaceKind kind, uint64_t offset, uint32_t size) {
    _places[static_cast<size_t>(kind)].push_back({offset, size});
  }
  /// Fields that follow one another.
  uint64_t addAll(PlaceKind kind, uint64_t offset, std::initializer_list<uint32_t> sizes) {
    for (const uint32_t size : sizes) {
      add(kind, offset, size);
      offset += size;
    }
    return offset;
  }
  /// Extent descriptors, each as a whole and in its parts.
  void addExtents(PlaceKind kind, uint64_t offset) {
    for (size_t i = 0; i < support::kExtentsInRecord; ++i, offset += 8) {
      add(kind, offset, 8);
      add(kind, offset, 4);
      add(kind, offset + 4, 4);
    }
  }
  void addForkData(PlaceKind kind, uint64_t offset) {
    add(kind, offset, support::kForkDataSize);
    addAll(kind, offset, {8, 4, 4});
    addExtents(kind, offset + 16);
  }

  template <typename T>
  T number(uint64_t offset) const {
    return readBigEndian<T>(_device.peek(offset, sizeof(T)).data());
  }

  void addHeader();
  void addReserved();
  void addRunRecord(uint64_t locator);
  void addWrapper();
  void addFork(const BuiltFork& fork);
  void addBytes(PlaceKind kind, const BuiltFork& fork);
  void addTree(const BuiltFork& fork);
  void addNode(const BuiltFork& fork, uint64_t node);
  void addRecord(const BuiltFork& fork, int8_t kind, uint64_t record, uint32_t size);
  void addCatalogRecord(uint64_t data, uint32_t size);
  void addAttributeRecord(uint64_t data, uint32_t size);
  uint64_t deviceOffset(const BuiltFork& fork, uint64_t forkOffset) const;

  FuzzDevice _device;
  const BuiltVolume& _built;
  uint32_t _nodeSize = 0;
  VolumePlaces _places;
};

void Collector::addHeader() {
  const uint64_t header = _built.volumeStart + support::kVolumeHeaderOffset;
  uint64_t at = addAll(PlaceKind::Header, header, {2, 2});
  for (int i = 0; i < 17; ++i, at += 4) {
    add(PlaceKind::Header, at, 4);
  }
  add(PlaceKind::Header, at, 8);
  for (at = header + 112; at < header + 512; at += support::kForkDataSize) {
    addForkData(PlaceKind::SpecialFork, at);
  }
}

void Collector::addReserved() {
  const uint64_t end = _built.volumeStart + _built.volumeSize;
  const uint64_t slots[] = {end - 512, _built.volumeStart};
  for (const uint64_t start : slots) {
    for (uint64_t slot = start; slot < start + 512; slot += HFSPlusRunLocator::kBytes) {
      if (number<uint64_t>(slot) == HFSPlusRunLocator::kMagic) {
        addAll(PlaceKind::Reserved, slot, {8, 8, 4, 4, 4, 4, 8, 8, 4, 4, 8});
        addRunRecord(slot);
      }
    }
  }
  if (_places[static_cast<size_t>(PlaceKind::Reserved)].empty()) {
    add(PlaceKind::Reserved, end - 512, HFSPlusRunLocator::kBytes);
    add(PlaceKind::Reserved, _built.volumeStart, HFSPlusRunLocator::kBytes);
  }
}

/// The first run of a record: the link to the next one, then the record's own bytes.
void Collector::addRunRecord(uint64_t locator) {
  constexpr uint64_t kLinkBytes = 8;
  const uint64_t run =
      _built.volumeStart + uint64_t{number<uint32_t>(locator + 20)} * _built.blockSize;
  const uint64_t record = run + kLinkBytes;
  if (number<uint64_t>(record) != HFSPlusFlushRecord::kMagic) {
    return;
  }
  addAll(PlaceKind::RunRecord, run, {4, 4});
  uint64_t at = addAll(PlaceKind::RunRecord, record, {8, 4, 4, 8, 2, 2, 4, 4, 4, 4, 4, 8, 8});
  const uint32_t ranges = std::min<uint32_t>(number<uint32_t>(record + 44), 64);
  for (uint32_t i = 0; i < ranges; ++i) {
    at = addAll(PlaceKind::RunRecord, at, {8, 8});
  }
  const uint64_t end = record + std::min<uint64_t>(number<uint64_t>(record + 48), 8192);
  for (; at + 4 <= end; at += 4) {
    add(PlaceKind::RunRecord, at, 4);
  }
}

void Collector::addWrapper() {
  if (_built.volumeStart != 0) {
    for (const auto& [offset, size] : std::initializer_list<std::pair<uint64_t, uint32_t>>{
             {0, 2}, {20, 4}, {28, 2}, {124, 2}, {126, 2}, {128, 2}}) {
      add(PlaceKind::Wrapper, support::kVolumeHeaderOffset + offset, size);
    }
  }
}

void Collector::addFork(const BuiltFork& fork) {
  const support::BuiltItem* item = _built.item(fork.fileID);
  if (fork.fileID == support::kAllocationFileID) {
    addBytes(PlaceKind::Bitmap, fork);
  } else if (fork.fileID == support::kExtentsFileID || fork.fileID == support::kCatalogFileID ||
             fork.fileID == support::kAttributesFileID) {
    addTree(fork);
  } else if (item != nullptr && !fork.isAttribute) {
    if (item->name == u".hotfiles.btree") {
      addTree(fork);
    }
    if (item->name == u".hotfiles.btree" || item->name == u".journal_info_block" ||
        item->name == u"BootCache.playlist") {
      addBytes(PlaceKind::Content, fork);
    }
  }
}

void Collector::addBytes(PlaceKind kind, const BuiltFork& fork) {
  const uint64_t bytes = std::min<uint64_t>(fork.logicalSize, kMostPlacesOfFile);
  for (uint64_t at = 0; at < bytes; at += 4) {
    add(kind, deviceOffset(fork, at), at % 8 == 0 ? 4 : 1);
  }
}

void Collector::addTree(const BuiltFork& fork) {
  const uint64_t header = deviceOffset(fork, 0);
  _nodeSize = number<uint16_t>(header + support::kNodeDescriptorSize + 18);
  uint64_t at = addAll(PlaceKind::TreeHeader, header + support::kNodeDescriptorSize,
                       {2, 4, 4, 4, 4, 2, 2, 4, 4, 2, 4, 1, 1, 4});
  for (at = header + support::kHeaderMapOffset; at < header + _nodeSize - 8; ++at) {
    if (at < header + support::kHeaderMapOffset + 32) {
      add(PlaceKind::TreeMap, at, 1);
    }
  }
  for (uint64_t node = 0; node + _nodeSize <= fork.logicalSize; node += _nodeSize) {
    addNode(fork, deviceOffset(fork, node));
  }
}

/// The fields of a node in use; of a node in pieces only what lies in the first piece is right.
void Collector::addNode(const BuiltFork& fork, uint64_t node) {
  const auto kind = number<int8_t>(node + 8);
  const uint32_t records = number<uint16_t>(node + 10);
  if (records == 0 || records > _nodeSize / 4) {
    return;
  }
  add(PlaceKind::Node, node, _nodeSize);
  addAll(PlaceKind::NodeDescriptor, node, {4, 4, 1, 1, 2, 2});
  if (kind == support::kMapNode) {
    add(PlaceKind::TreeMap, node + support::kNodeDescriptorSize, 4);
  }
  const uint64_t end = node + _nodeSize;
  for (uint32_t i = 0; i <= records; ++i) {
    add(PlaceKind::RecordOffset, end - 2 * (i + 1), 2);
  }
  if (kind != support::kLeafNode && kind != support::kIndexNode) {
    return;
  }
  for (uint32_t i = 0; i < records; ++i) {
    const uint32_t start = number<uint16_t>(end - 2 * (i + 1));
    const uint32_t next = number<uint16_t>(end - 2 * (i + 2));
    if (start < next && next <= _nodeSize) {
      addRecord(fork, kind, node + start, next - start);
    }
  }
}

void Collector::addRecord(const BuiltFork& fork, int8_t kind, uint64_t record, uint32_t size) {
  const uint32_t keyBytes = 2 + number<uint16_t>(record);
  if (keyBytes + 4 > size) {
    return;
  }
  add(PlaceKind::Key, record, 2);
  if (fork.fileID == support::kCatalogFileID) {
    addAll(PlaceKind::Key, record + 2, {4, 2, 2});
  } else if (fork.fileID == support::kAttributesFileID) {
    addAll(PlaceKind::Key, record + 2, {2, 4, 4, 2, 2});
  } else {
    addAll(PlaceKind::Key, record + 2, {1, 1, 4, 4});
  }
  const uint64_t data = record + keyBytes;
  if (kind == support::kIndexNode) {
    add(PlaceKind::Child, data, 4);
  } else if (fork.fileID == support::kCatalogFileID) {
    addCatalogRecord(data, size - keyBytes);
  } else if (fork.fileID == support::kExtentsFileID) {
    addExtents(PlaceKind::OverflowExtent, data);
  } else if (fork.fileID == support::kAttributesFileID) {
    addAttributeRecord(data, size - keyBytes);
  } else {
    add(PlaceKind::Content, data, 4);
  }
}

void Collector::addCatalogRecord(uint64_t data, uint32_t size) {
  const auto type = number<uint16_t>(data);
  if (type == support::kFileThreadRecord || type == support::kFolderThreadRecord) {
    addAll(PlaceKind::CatalogRecord, data, {2, 2, 4, 2, 2});
    return;
  }
  addAll(PlaceKind::CatalogRecord, data, {2, 2, 4, 4, 4, 4, 4, 4, 4});
  addAll(PlaceKind::CatalogRecord, data + 40, {2, 2, 4, 4, 4, 2});
  if (type == support::kFileRecord && size >= support::kFileRecordSize) {
    addForkData(PlaceKind::CatalogFork, data + 88);
    addForkData(PlaceKind::CatalogFork, data + 168);
  }
}

void Collector::addAttributeRecord(uint64_t data, uint32_t size) {
  const auto type = number<uint32_t>(data);
  addAll(PlaceKind::AttributeRecord, data, {4, 4});
  if (type == support::kForkAttribute && size >= 8 + support::kForkDataSize) {
    addForkData(PlaceKind::AttributeRecord, data + 8);
  } else if (type == support::kExtentsAttribute && size >= 72) {
    addExtents(PlaceKind::AttributeRecord, data + 8);
  }
}

uint64_t Collector::deviceOffset(const BuiltFork& fork, uint64_t forkOffset) const {
  uint64_t before = 0;
  for (const support::BlockExtent& extent : fork.extents) {
    const uint64_t bytes = uint64_t{extent.count} * _built.blockSize;
    if (forkOffset - before < bytes) {
      return _built.volumeStart + uint64_t{extent.start} * _built.blockSize + forkOffset - before;
    }
    before += bytes;
  }
  return 0;
}

}  // namespace

VolumePlaces volumePlaces(const FuzzImage& image, const BuiltVolume& built) {
  return Collector(image, built).collect();
}

}  // namespace fuzz
