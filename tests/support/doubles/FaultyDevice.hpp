#pragma once

#include <array>
#include <cerrno>
#include <memory>
#include <optional>

#include "Platform/PlatformDevice.hpp"

namespace doubles {

/// Passes calls on to a device until a planned fault: the n-th read, write or sync goes wrong.
class FaultyDevice final : public PlatformDevice {
 public:
  enum class Call { Read, Write, Sync };

  enum class How {
    Fail,   // this call fails and does nothing; later ones work
    Break,  // this call and every later one of its kind fail
    Tear,   // this write gets only a part through and fails; later ones work
    Short,  // this transfer gets only a part through and says so
    Stop,   // from this call on nothing gets through: the power is gone
  };

  struct Fault {
    Call call;
    uint64_t ordinal;  // which call of its kind, from 0
    How how = How::Fail;
    int error = EIO;
    size_t part = 0;  // bytes that get through of a torn or short transfer
  };

  explicit FaultyDevice(std::shared_ptr<PlatformDevice> device) : _device(std::move(device)) {}

  /// Plans a fault, in place of any other; calls are counted from now.
  void plan(const Fault& fault);
  /// Everything works again.
  void repair();

  /// Calls of a kind since plan() or repair().
  uint64_t count(Call call) const { return _counts[static_cast<size_t>(call)]; }

  std::expected<size_t, int> readAt(std::span<std::byte> bytes, uint64_t offset) override;
  std::expected<size_t, int> writeAt(std::span<const std::byte> bytes, uint64_t offset) override;
  std::expected<void, int> sync() override;
  uint32_t blockSize() const override { return _device->blockSize(); }
  uint64_t blockCount() const override { return _device->blockCount(); }

 private:
  /// Counts a call; the fault if it is to go wrong.
  std::optional<Fault> meet(Call call);

  std::shared_ptr<PlatformDevice> _device;
  std::optional<Fault> _fault;
  bool _stopped = false;
  std::array<uint64_t, 3> _counts{};
};

}  // namespace doubles
