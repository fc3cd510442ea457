#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <utility>

#include "XRDefragError.hpp"

class HFSPlusAllocation;

/// A piece of the allocation file in memory. Lives in its file's cache and is used through a
/// HFSPlusAllocationChunkHold.
class HFSPlusAllocationChunk {
 public:
  /// Reads a chunk. Fails with "Allocation chunk %1$lu is out of range.", "Out of memory." or the
  /// read's error.
  [[nodiscard]] static Result<std::unique_ptr<HFSPlusAllocationChunk>> open(
      HFSPlusAllocation& allocation, uint32_t index);

  uint32_t index() const { return _index; }
  /// Bytes.
  uint32_t size() const { return _size; }
  /// The bitmap as on disk: the most significant bit of a byte is its first block, set means used.
  std::span<const std::byte> data() const { return {_data.get(), _size}; }
  /// The same for changing; whoever changes a bit marks the chunk dirty.
  std::span<std::byte> mutableData() { return {_data.get(), _size}; }

  bool dirty() const { return _dirty; }
  void setDirty(bool dirty) { _dirty = dirty; }

  /// Writes the chunk to its file if it is dirty, and takes it as clean from then on whatever the
  /// outcome, which is also logged.
  [[nodiscard]] Result<> flush();

  /// Gives one hold back.
  void cachedChunkRelease();

 private:
  HFSPlusAllocationChunk(HFSPlusAllocation& allocation, uint32_t index, uint32_t size,
                         std::unique_ptr<std::byte[]> data)
      : _allocation(allocation), _index(index), _size(size), _data(std::move(data)) {}

  HFSPlusAllocation& _allocation;
  uint32_t _index;
  uint32_t _size;
  std::unique_ptr<std::byte[]> _data;
  bool _dirty = false;
};

/// Keeps a chunk in its cache; gives it back on destruction.
class HFSPlusAllocationChunkHold {
 public:
  HFSPlusAllocationChunkHold() = default;
  /// Takes over a hold that the cache has counted already.
  explicit HFSPlusAllocationChunkHold(HFSPlusAllocationChunk& chunk) : _chunk(&chunk) {}
  HFSPlusAllocationChunkHold(HFSPlusAllocationChunkHold&& other) noexcept
      : _chunk(std::exchange(other._chunk, nullptr)) {}
  HFSPlusAllocationChunkHold& operator=(HFSPlusAllocationChunkHold&& other) noexcept {
    if (this != &other) {
      release();
      _chunk = std::exchange(other._chunk, nullptr);
    }
    return *this;
  }
  ~HFSPlusAllocationChunkHold() { release(); }

  explicit operator bool() const { return _chunk != nullptr; }
  HFSPlusAllocationChunk& operator*() const { return *_chunk; }
  HFSPlusAllocationChunk* operator->() const { return _chunk; }

  /// Gives the chunk back now.
  void release() {
    if (HFSPlusAllocationChunk* chunk = std::exchange(_chunk, nullptr)) {
      chunk->cachedChunkRelease();
    }
  }

 private:
  HFSPlusAllocationChunk* _chunk = nullptr;
};
