#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// A block device's number.
struct PlatformDeviceNumber {
  uint32_t major = 0;
  uint32_t minor = 0;
  friend auto operator<=>(const PlatformDeviceNumber&, const PlatformDeviceNumber&) = default;
};

/// How block devices lie upon each other and upon files, as the kernel's device tree tells it. What
/// cannot be found out is left out.
namespace PlatformStorage {

/// A way to reach bytes.
struct Place {
  std::string path;
  bool isBlockDevice;
};

/// The number of the block device at a path; nothing for a file of another kind.
[[nodiscard]] std::optional<PlatformDeviceNumber> deviceNumberOf(const std::string& path);

/// The other places that show the same bytes as the device or image file at a path, by way of loop
/// devices: their backing file, and every loop device over it.
[[nodiscard]] std::vector<Place> placesOfSameBytes(const std::string& path);

/// Every block device that has bytes in common with the device or image file at a path, as far as
/// loop devices, partitions and stacked devices go; the device itself included.
[[nodiscard]] std::vector<PlatformDeviceNumber> devicesSharingBytes(const std::string& path);

}  // namespace PlatformStorage
