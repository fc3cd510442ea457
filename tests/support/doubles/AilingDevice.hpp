#pragma once

#include <cerrno>
#include <functional>
#include <memory>
#include <optional>
#include <set>

#include "Platform/PlatformDevice.hpp"

namespace doubles {

/// A device with an illness of the kind that lasts: bad sectors, or from a certain call on it is
/// smaller than it was, read-only, or gone. It can also tell when a call comes.
class AilingDevice final : public PlatformDevice {
 public:
  enum class Illness {
    Shrunk,    // transfers beyond the half of its size fail
    ReadOnly,  // writes and syncs fail
    Gone,      // everything fails
  };

  explicit AilingDevice(std::shared_ptr<PlatformDevice> device) : _device(std::move(device)) {}

  /// The sector at a byte offset can no longer be read, nor written when `forWrites`.
  void spoilSector(uint64_t offset, bool forWrites) {
    _badSectors.insert(offset / blockSize());
    _badForWrites = forWrites;
  }
  /// Falls ill at the n-th call from now.
  void fallIll(Illness illness, uint64_t call) {
    at(call, [this, illness] { _illness = illness; });
  }
  /// Does something before the n-th call from now, in place of anything else that was planned.
  void at(uint64_t call, std::function<void()> action) {
    _due = _calls + call;
    _action = std::move(action);
  }
  /// Recovers from everything and forgets what was planned.
  void heal() {
    _badSectors.clear();
    _illness.reset();
    _action = nullptr;
    _firstFailure.reset();
  }
  /// Calls so far.
  uint64_t calls() const { return _calls; }
  /// Calls that it has failed, and the first of them since it recovered last.
  uint64_t failures() const { return _failures; }
  std::optional<uint64_t> firstFailure() const { return _firstFailure; }

  std::expected<size_t, int> readAt(std::span<std::byte> bytes, uint64_t offset) override {
    count();
    if (touchesBadSector(offset, bytes.size()) || _illness == Illness::Gone ||
        (_illness == Illness::Shrunk && isBeyond(offset, bytes.size()))) {
      return fail(EIO);
    }
    return _device->readAt(bytes, offset);
  }
  std::expected<size_t, int> writeAt(std::span<const std::byte> bytes, uint64_t offset) override {
    count();
    if (_illness == Illness::ReadOnly) {
      return fail(EROFS);
    }
    if ((_badForWrites && touchesBadSector(offset, bytes.size())) || _illness == Illness::Gone ||
        (_illness == Illness::Shrunk && isBeyond(offset, bytes.size()))) {
      return fail(EIO);
    }
    return _device->writeAt(bytes, offset);
  }
  std::expected<void, int> sync() override {
    count();
    if (_illness && _illness != Illness::Shrunk) {
      return fail(EIO);
    }
    return _device->sync();
  }
  uint32_t blockSize() const override { return _device->blockSize(); }
  uint64_t blockCount() const override { return _device->blockCount(); }

 private:
  void count() {
    if (_action && _calls == _due) {
      const auto action = std::exchange(_action, nullptr);
      action();
    }
    ++_calls;
  }
  std::unexpected<int> fail(int error) {
    ++_failures;
    _firstFailure = _firstFailure.value_or(_calls - 1);
    return std::unexpected(error);
  }
  bool touchesBadSector(uint64_t offset, size_t size) const {
    const auto bad = _badSectors.lower_bound(offset / blockSize());
    return bad != _badSectors.end() && size > 0 && *bad <= (offset + size - 1) / blockSize();
  }
  bool isBeyond(uint64_t offset, size_t size) const {
    return offset + size > blockCount() / 2 * blockSize();
  }

  std::shared_ptr<PlatformDevice> _device;
  std::set<uint64_t> _badSectors;  // sector numbers
  bool _badForWrites = false;
  std::optional<Illness> _illness;
  uint64_t _calls = 0;
  uint64_t _failures = 0;
  std::optional<uint64_t> _firstFailure;
  uint64_t _due = 0;
  std::function<void()> _action;
};

}  // namespace doubles
