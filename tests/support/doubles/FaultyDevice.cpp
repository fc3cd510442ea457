#include "support/doubles/FaultyDevice.hpp"

#include <algorithm>

namespace doubles {

void FaultyDevice::plan(const Fault& fault) {
  repair();
  _fault = fault;
}

void FaultyDevice::repair() {
  _fault.reset();
  _stopped = false;
  _counts = {};
}

std::optional<FaultyDevice::Fault> FaultyDevice::meet(Call call) {
  const uint64_t ordinal = _counts[static_cast<size_t>(call)]++;
  if (!_fault) {
    return std::nullopt;
  }
  const bool due = _fault->call == call && (_fault->how == How::Break ? ordinal >= _fault->ordinal
                                                                      : ordinal == _fault->ordinal);
  _stopped = _stopped || (due && _fault->how == How::Stop);
  return due || _stopped ? _fault : std::nullopt;
}

std::expected<size_t, int> FaultyDevice::readAt(std::span<std::byte> bytes, uint64_t offset) {
  if (const auto fault = meet(Call::Read)) {
    if (fault->how == How::Short) {
      return _device->readAt(bytes.first(std::min(fault->part, bytes.size())), offset);
    }
    return std::unexpected(fault->error);
  }
  return _device->readAt(bytes, offset);
}

std::expected<size_t, int> FaultyDevice::writeAt(std::span<const std::byte> bytes,
                                                 uint64_t offset) {
  const auto fault = meet(Call::Write);
  if (!fault) {
    return _device->writeAt(bytes, offset);
  }
  if (fault->how == How::Short || fault->how == How::Tear) {
    const auto count = _device->writeAt(bytes.first(std::min(fault->part, bytes.size())), offset);
    if (fault->how == How::Short) {
      return count;
    }
  }
  return std::unexpected(fault->error);
}

std::expected<void, int> FaultyDevice::sync() {
  if (const auto fault = meet(Call::Sync)) {
    return std::unexpected(fault->error);
  }
  return _device->sync();
}

}  // namespace doubles
