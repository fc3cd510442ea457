#include "support/doubles/RecordingDevice.hpp"

namespace doubles {

void RecordingDevice::recordTransfer(Call call, std::span<const std::byte> bytes, uint64_t offset,
                                     bool isOnce) {
  Record record{
      .call = call, .offset = offset, .size = bytes.size(), .bytes = {}, .isOnce = isOnce};
  if (call == Call::Write) {
    record.bytes.assign(bytes.begin(), bytes.end());
  }
  _records.push_back(std::move(record));
}

std::expected<size_t, int> RecordingDevice::readAt(std::span<std::byte> bytes, uint64_t offset) {
  recordTransfer(Call::Read, bytes, offset, false);
  return _device->readAt(bytes, offset);
}

std::expected<size_t, int> RecordingDevice::writeAt(std::span<const std::byte> bytes,
                                                    uint64_t offset) {
  recordTransfer(Call::Write, bytes, offset, false);
  return _device->writeAt(bytes, offset);
}

std::expected<size_t, int> RecordingDevice::readOnceAt(std::span<std::byte> bytes,
                                                       uint64_t offset) {
  recordTransfer(Call::Read, bytes, offset, true);
  return _device->readOnceAt(bytes, offset);
}

std::expected<size_t, int> RecordingDevice::writeOnceAt(std::span<const std::byte> bytes,
                                                        uint64_t offset) {
  recordTransfer(Call::Write, bytes, offset, true);
  return _device->writeOnceAt(bytes, offset);
}

std::expected<void, int> RecordingDevice::sync() {
  recordTransfer(Call::Sync, {}, 0, false);
  return _device->sync();
}

std::vector<RecordingDevice::Record> RecordingDevice::changes() const {
  std::vector<Record> changes;
  for (const Record& record : _records) {
    if (record.call != Call::Read) {
      changes.push_back(record);
    }
  }
  return changes;
}

}  // namespace doubles
