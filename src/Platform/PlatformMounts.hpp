#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/PlatformStorage.hpp"

/// Which devices the system has mounted.
namespace PlatformMounts {

/// One mounted file system.
struct Mount {
  PlatformDeviceNumber device;
  std::string source;  // as it was mounted, usually a device path
};

/// Reads the text of /proc/self/mountinfo; lines that make no sense are left out.
[[nodiscard]] std::vector<Mount> parse(std::string_view mountInfo);

/// Everything mounted now, as this process sees it.
[[nodiscard]] std::vector<Mount> current();

/// Whether one of the mounts has this resolved device path as its source. A raw node's path,
/// "/dev/r…", also stands for the block node's, without the "r".
[[nodiscard]] bool containsSource(const std::vector<Mount>& mounts, std::string_view path);

/// Whether one of the mounts is on this device.
[[nodiscard]] bool containsDevice(const std::vector<Mount>& mounts, PlatformDeviceNumber device);

/// Whether the bytes of the device or image file at a path belong to a mounted file system: its own
/// or one on a loop device, a partition or any other device stacked over or under it. A path that
/// does not resolve is not mounted.
[[nodiscard]] bool isMounted(const std::string& path);

}  // namespace PlatformMounts
