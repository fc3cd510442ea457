#pragma once

#include <cstdint>
#include <optional>

/// What transfers past the page cache demand of an open file, in bytes.
struct PlatformDirectAlignment {
  uint32_t memory;  // of the buffer's address
  uint32_t offset;  // of the file offset and the size
};

/// The alignment that a file's direct transfers need, or nothing when it has none. A kernel that
/// does not tell is taken to need the page size, which every device meets.
[[nodiscard]] std::optional<PlatformDirectAlignment> PlatformDirectTransferAlignment(
    int descriptor);
