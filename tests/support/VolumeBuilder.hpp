#pragma once

#include <expected>
#include <filesystem>
#include <string>

#include "support/BuiltVolume.hpp"
#include "support/VolumeDescription.hpp"

namespace support {

/// Builds the described volume in a file, which is replaced; sparse where nothing is written. The
/// error says why the description cannot be built.
[[nodiscard]] std::expected<BuiltVolume, std::string> tryBuildVolume(
    const VolumeDescription& description, const std::filesystem::path& path);

/// The same in memory: the volume is BuiltVolume::image.
[[nodiscard]] std::expected<BuiltVolume, std::string> tryBuildVolume(
    const VolumeDescription& description);

/// For descriptions that are known to work: prints the reason and aborts when one does not.
BuiltVolume buildVolume(const VolumeDescription& description, const std::filesystem::path& path);
BuiltVolume buildVolume(const VolumeDescription& description);

}  // namespace support
