#pragma once

#include <string>
#include <string_view>

#include "base/Outcome.hpp"

namespace view {

/// The bytes of a file of at most `bytesMax` bytes; fails with ExitStatus::FileTrouble.
Outcome<std::string> readFile(const std::string& path, size_t bytesMax);

/// Puts a file where `path` says, by way of a new file next to it that is renamed when it is
/// complete. What is no regular file (/dev/stdout, a pipe) is written to as it is.
Outcome<> writeFile(const std::string& path, std::string_view bytes);

}  // namespace view
