#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "HFSPlus/HFSPlusVolume.hpp"
#include "support/doubles/FaultyDevice.hpp"
#include "support/doubles/MemoryDevice.hpp"
#include "support/doubles/RecordingDevice.hpp"

namespace doubles {

/// The message of a failed result; empty for success.
template <typename T>
std::string messageOf(const Result<T>& result) {
  return result ? std::string() : result.error().description();
}

/// Edits the volume header of an image, and its alternate in the same way. The volume takes up the
/// whole image, or `size` bytes from `start`.
void editHeaders(std::span<std::byte> image, const std::function<void(HFSPlusVolumeHeader&)>& edit,
                 uint64_t start = 0, uint64_t size = 0);

/// An HFSPlusVolume on a device that remembers, over one that can fail, over memory.
struct TestVolume {
  enum class Mode { ReadWrite, ReadOnly, Mounted };

  explicit TestVolume(std::span<const std::byte> image, Mode mode = Mode::ReadWrite);
  /// On a device that holds a volume already.
  explicit TestVolume(std::shared_ptr<MemoryDevice> device, Mode mode = Mode::ReadWrite);

  Result<bool> probe();
  /// Opens the volume, or opens it anew.
  Result<> open(HFSXVolumes hfsxVolumes = HFSXVolumes::Refused);

  HFSPlusVolume& operator*() { return *volume; }
  HFSPlusVolume* operator->() { return volume.get(); }

  /// What lies on the device in place of the volume's header and alternate header.
  HFSPlusVolumeHeader headerOnDisk();
  HFSPlusVolumeHeader alternateOnDisk();

  std::shared_ptr<MemoryDevice> memory;
  std::shared_ptr<FaultyDevice> faulty;
  std::shared_ptr<RecordingDevice> recording;
  XRDefragVolume device;
  std::unique_ptr<HFSPlusVolume> volume;
};

}  // namespace doubles
