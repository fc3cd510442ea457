#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "HFSPlus/HFSPlusBTreeNodeImages.hpp"
#include "HFSPlus/HFSPlusByteOrder.hpp"
#include "HFSPlus/HFSPlusFormat.hpp"
#include "XRDefragError.hpp"

/// What a node needs of the tree that it belongs to.
class HFSPlusBTreeNodeOwner {
 public:
  /// Takes a node's image for the next flush of the volume.
  [[nodiscard]] virtual Result<> writeNode(uint32_t index, std::span<const std::byte> image) = 0;
  /// Counts a leaf record more, or one less.
  [[nodiscard]] virtual Result<> incrementLeafRecordCount() = 0;
  [[nodiscard]] virtual Result<> decrementLeafRecordCount() = 0;

 protected:
  ~HFSPlusBTreeNodeOwner() = default;
};

/// The image of one node, exactly as it lies on disk: a descriptor of 14 bytes, the records upward
/// from there, and at the node's end, growing downward, the 16-bit offset of each record and of the
/// free space behind the last one. Accessors swap the field they touch.
///
/// An image that comes from disk passes hasSoundOffsets() before anybody sees the node, and every
/// edit keeps that true; so record numbers below recordCount() always lead to bytes inside the
/// image, and asking for any other is a programming error. Nodes live in their tree's node cache.
class HFSPlusBTreeNode {
 public:
  /// A node with an image of `size` bytes; nothing without one, or when memory is short.
  [[nodiscard]] static std::unique_ptr<HFSPlusBTreeNode> create(
      HFSPlusBTreeNodeOwner& btree, uint32_t size, HFSPlusBTreeNodeImages::Image image);
  HFSPlusBTreeNode(const HFSPlusBTreeNode&) = delete;
  HFSPlusBTreeNode& operator=(const HFSPlusBTreeNode&) = delete;

  /// Node number within the tree.
  uint32_t index() const { return _index; }
  /// Bytes of the image.
  uint32_t size() const { return _size; }
  std::span<const std::byte> image() const { return {_data.get(), _size}; }

  uint32_t fLink() const { return readBigEndian<uint32_t>(&_data[0]); }
  uint32_t bLink() const { return readBigEndian<uint32_t>(&_data[4]); }
  int8_t kind() const { return static_cast<int8_t>(_data[8]); }
  uint8_t height() const { return static_cast<uint8_t>(_data[9]); }
  uint16_t recordCount() const { return readBigEndian<uint16_t>(&_data[10]); }
  /// Bytes between the last record and the offset table.
  uint32_t freeSpace() const;

  // Each marks the node dirty.
  void setFLink(uint32_t index);
  void setBLink(uint32_t index);
  void setKind(int8_t kind);
  void setHeight(uint8_t height);

  /// Whether the image differs from what was read or last flushed.
  bool dirty() const { return _dirty; }
  void setDirty(bool dirty) { _dirty = dirty; }

  /// The record's bytes in the image, valid until the node is edited or given back.
  std::span<const std::byte> recordDataAtIndex(uint32_t index) const;
  /// The same for changing it in place: marks the node dirty.
  std::span<std::byte> mutableRecordDataAtIndex(uint32_t index);
  uint16_t recordSizeAtIndex(uint32_t index) const;

  /// The first record of which the predicate, asked with the record's bytes, is true;
  /// recordCount() if there is none. It must be false for the records before and true behind.
  template <typename Predicate>
  uint32_t firstRecordWhere(Predicate&& predicate) const;

  /// Whether insertRecordData() takes a record of `size` bytes. A record that would fill the free
  /// space to the last byte is not taken.
  bool hasRoomForRecord(size_t size) const { return size + 2 < freeSpace(); }

  /// Inserts a record before the record at `index`, or behind the last one. Internal errors 356 (no
  /// such place) and 357 (no room); a leaf's record count that overflows.
  [[nodiscard]] Result<> insertRecordData(std::span<const std::byte> record, uint32_t index);

  /// Removes a record, which must exist. The offset table is left as it is, which is right when
  /// the record is the last one or all records have one size. Fails with a leaf's record count
  /// below zero.
  [[nodiscard]] Result<> deleteRecordAtIndex(uint32_t index);

  /// Overwrites a record with one of the same size and the same leading key bytes. Internal errors
  /// 323 (no such record), 324 (another size), 330 (another key).
  [[nodiscard]] Result<> setRecordData(std::span<const std::byte> record, uint32_t index);

  /// Makes this an empty node: all zeros but the kind, a height of 2 for an index node and 1 for a
  /// leaf, and the free-space offset.
  void setupNewNode(int8_t kind);

  /// Makes the image all zeros, as that of a node not in use.
  void clear();

  /// Hands the image to the tree if it is dirty; clean afterwards in any case. A failure is logged.
  [[nodiscard]] Result<> flush();

  /// Whether the offset table lies inside the image and every record between descriptor and table,
  /// none empty, in table order. An image of a node not in use (all offsets 0) counts as sound.
  bool hasSoundOffsets() const;

 private:
  friend class HFSPlusBTreeNodeCache;
  friend class HFSPlusBTreeFile;

  HFSPlusBTreeNode(HFSPlusBTreeNodeOwner& btree, uint32_t size, HFSPlusBTreeNodeImages::Image data)
      : _btree(btree), _size(size), _data(std::move(data)) {}

  std::byte* offsetEntry(uint32_t entry) { return &_data[_size - 2 * (entry + 1)]; }
  uint16_t offsetAt(uint32_t entry) const {
    return readBigEndian<uint16_t>(&_data[_size - 2 * (entry + 1)]);
  }

  // Belong to the node cache.
  HFSPlusBTreeNode* _cachePrevLink = nullptr;
  HFSPlusBTreeNode* _cacheNextLink = nullptr;
  HFSPlusBTreeNode* _cacheChainLink = nullptr;
  uint32_t _cacheRetainCount = 0;

  HFSPlusBTreeNodeOwner& _btree;
  uint32_t _index = 0;
  uint32_t _size;
  HFSPlusBTreeNodeImages::Image _data;
  bool _dirty = false;
};

template <typename Predicate>
uint32_t HFSPlusBTreeNode::firstRecordWhere(Predicate&& predicate) const {
  uint32_t low = 0;
  uint32_t high = recordCount();
  while (low < high) {
    const uint32_t middle = (low + high) / 2;
    if (predicate(recordDataAtIndex(middle))) {
      high = middle;
    } else {
      low = middle + 1;
    }
  }
  return low;
}
