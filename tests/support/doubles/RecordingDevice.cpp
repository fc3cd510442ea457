#include "support/doubles/RecordingDevice.hpp"

namespace doubles {

std::expected<size_t, int> RecordingDevice::readAt(std::span<std::byte> bytes, uint64_t offset) {
  _records.push_back({.call = Call::Read, .offset = offset, .size = bytes.size(), .bytes = {}});
  return _device->readAt(bytes, offset);
}

std::expected<size_t, int> RecordingDevice::writeAt(std::span<const std::byte> bytes,
                                                    uint64_t offset) {
  _records.push_back({.call = Call::Write,
                      .offset = offset,
                      .size = bytes.size(),
                      .bytes = {bytes.begin(), bytes.end()}});
  return _device->writeAt(bytes, offset);
}

std::expected<void, int> RecordingDevice::sync() {
  _records.push_back({.call = Call::Sync, .offset = 0, .size = 0, .bytes = {}});
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
