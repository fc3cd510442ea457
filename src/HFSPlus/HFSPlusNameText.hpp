#pragma once

#include <cstddef>
#include <span>
#include <string>

// Names as text. `units` are big-endian UTF-16 units as they lie on disk. A "/" in a name is
// legal on disk and shown as ":", since "/" separates the components of a path; a surrogate without
// its other half becomes U+FFFD.

/// The name in UTF-8.
[[nodiscard]] std::string HFSPlusNameString(std::span<const std::byte> units);

/// Writes the name in UTF-8, escaped for a report line: the same bytes as
/// outputSafeString(HFSPlusNameString(units)), in one pass; answers where it ends.
[[nodiscard]] char* HFSPlusPutOutputSafeName(char* out, std::span<const std::byte> units);

/// Bytes that this takes at most.
[[nodiscard]] size_t HFSPlusOutputSafeNameMaxBytes(std::span<const std::byte> units);
