#pragma once

#include <cstddef>
#include <expected>
#include <string>

namespace PlatformFile {

/// All bytes of a file of any kind that can be read. EFBIG when there are more than `limit`,
/// otherwise the errno value that opening or reading it gave.
std::expected<std::string, int> readAll(const std::string& path, size_t limit);

}  // namespace PlatformFile
