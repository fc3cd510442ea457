#include "HFSPlus/HFSPlusBTreeNode.hpp"

#include <algorithm>
#include <cstring>
#include <new>

#include "LWKit/LWDebug.hpp"

namespace {

constexpr uint32_t kFirstRecordOffset = sizeof(BTNodeDescriptor);
constexpr size_t kForwardLinkOffset = offsetof(BTNodeDescriptor, fLink);
constexpr size_t kBackwardLinkOffset = offsetof(BTNodeDescriptor, bLink);
constexpr size_t kKindOffset = offsetof(BTNodeDescriptor, kind);
constexpr size_t kHeightOffset = offsetof(BTNodeDescriptor, height);
constexpr size_t kRecordCountOffset = offsetof(BTNodeDescriptor, numRecords);

std::unexpected<XRDefragError> internalError(uint32_t check) {
  return std::unexpected(XRDefragError::internal("HFSPlus/HFSPlusBTreeNode", check));
}

}  // namespace

std::unique_ptr<HFSPlusBTreeNode> HFSPlusBTreeNode::create(HFSPlusBTreeNodeOwner& btree,
                                                           uint32_t size,
                                                           HFSPlusBTreeNodeImages::Image image) {
  if (!image) {
    return nullptr;
  }
  return std::unique_ptr<HFSPlusBTreeNode>(new (std::nothrow)
                                               HFSPlusBTreeNode(btree, size, std::move(image)));
}

uint32_t HFSPlusBTreeNode::freeSpace() const {
  const uint32_t count = recordCount();
  const uint32_t begin = offsetAt(count);
  // The image of a node not in use has no free-space offset: nothing can be put there.
  return begin < kFirstRecordOffset ? 0 : _size - 2 * count - 2 - begin;
}

void HFSPlusBTreeNode::setFLink(uint32_t index) {
  writeBigEndian(&_data[kForwardLinkOffset], index);
  _dirty = true;
}

void HFSPlusBTreeNode::setBLink(uint32_t index) {
  writeBigEndian(&_data[kBackwardLinkOffset], index);
  _dirty = true;
}

void HFSPlusBTreeNode::setKind(int8_t kind) {
  _data[kKindOffset] = static_cast<std::byte>(kind);
  _dirty = true;
}

void HFSPlusBTreeNode::setHeight(uint8_t height) {
  _data[kHeightOffset] = static_cast<std::byte>(height);
  _dirty = true;
}

std::span<const std::byte> HFSPlusBTreeNode::recordDataAtIndex(uint32_t index) const {
  LW_ASSERT(index < recordCount());
  const uint32_t begin = offsetAt(index);
  return {&_data[begin], offsetAt(index + 1) - begin};
}

std::span<std::byte> HFSPlusBTreeNode::mutableRecordDataAtIndex(uint32_t index) {
  LW_ASSERT(index < recordCount());
  const uint32_t begin = offsetAt(index);
  _dirty = true;
  return {&_data[begin], offsetAt(index + 1) - begin};
}

uint16_t HFSPlusBTreeNode::recordSizeAtIndex(uint32_t index) const {
  return static_cast<uint16_t>(recordDataAtIndex(index).size());
}

Result<> HFSPlusBTreeNode::insertRecordData(std::span<const std::byte> record, uint32_t index) {
  const uint32_t count = recordCount();
  if (index > count) {
    return internalError(356);
  }
  if (!hasRoomForRecord(record.size())) {
    return internalError(357);
  }
  const uint32_t begin = offsetAt(index);
  const uint32_t end = offsetAt(count);
  std::memmove(&_data[begin + record.size()], &_data[begin], end - begin);
  std::ranges::copy(record, &_data[begin]);
  for (uint32_t entry = count + 1; entry > index; --entry) {
    writeBigEndian(offsetEntry(entry), static_cast<uint16_t>(offsetAt(entry - 1) + record.size()));
  }
  writeBigEndian(&_data[kRecordCountOffset], static_cast<uint16_t>(count + 1));
  _dirty = true;
  return kind() == kBTLeafNode ? _btree.incrementLeafRecordCount() : Result<>{};
}

Result<> HFSPlusBTreeNode::deleteRecordAtIndex(uint32_t index) {
  const uint32_t size = recordSizeAtIndex(index);
  const uint32_t count = recordCount();
  const uint32_t begin = offsetAt(index);
  const uint32_t end = offsetAt(count);
  std::memmove(&_data[begin], &_data[begin + size], end - begin - size);
  writeBigEndian(&_data[kRecordCountOffset], static_cast<uint16_t>(count - 1));
  _dirty = true;
  return kind() == kBTLeafNode ? _btree.decrementLeafRecordCount() : Result<>{};
}

Result<> HFSPlusBTreeNode::setRecordData(std::span<const std::byte> record, uint32_t index) {
  if (index >= recordCount()) {
    return internalError(323);
  }
  const std::span<const std::byte> current = recordDataAtIndex(index);
  if (record.size() != current.size()) {
    return internalError(324);
  }
  const size_t compared = current.size() < 2 ? SIZE_MAX : readBigEndian<uint16_t>(current.data());
  if (compared > current.size() ||
      !std::ranges::equal(record.first(compared), current.first(compared))) {
    return internalError(330);
  }
  std::ranges::copy(record, mutableRecordDataAtIndex(index).begin());
  return {};
}

void HFSPlusBTreeNode::setupNewNode(int8_t kind) {
  clear();
  setKind(kind);
  if (kind == kBTIndexNode) {
    setHeight(2);
  } else if (kind == kBTLeafNode) {
    setHeight(1);
  }
  writeBigEndian(offsetEntry(0), static_cast<uint16_t>(kFirstRecordOffset));
}

void HFSPlusBTreeNode::clear() {
  std::fill_n(_data.get(), _size, std::byte{0});
  _dirty = true;
}

Result<> HFSPlusBTreeNode::flush() {
  if (!_dirty) {
    return {};
  }
  _dirty = false;
  Result<> written = _btree.writeNode(_index, image());
  if (!written) {
    LWDebugLog(LWDebugLevel::Warning, "%@\n", written.error().description());
  }
  return written;
}

bool HFSPlusBTreeNode::hasSoundOffsets() const {
  const uint32_t count = recordCount();
  const uint32_t tableSize = 2 * (count + 1);
  if (kFirstRecordOffset + tableSize > _size) {
    return false;
  }
  uint32_t previous = offsetAt(0);
  if (count == 0 && previous == 0) {
    return true;
  }
  if (previous < kFirstRecordOffset) {
    return false;
  }
  for (uint32_t entry = 1; entry <= count; ++entry) {
    const uint32_t offset = offsetAt(entry);
    if (offset <= previous) {
      return false;
    }
    previous = offset;
  }
  return previous <= _size - tableSize;
}
