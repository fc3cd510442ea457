#pragma once

#include <cstddef>
#include <memory>

/// Gives pages back to the system.
struct PlatformPagesRelease {
  size_t size = 0;  // bytes
  void operator()(std::byte* pages) const;
};

/// Memory straight from the system. Owned; empty when memory is short.
using PlatformPages = std::unique_ptr<std::byte[], PlatformPagesRelease>;

/// Memory for at least `size` bytes, all zero and aligned to pages, for buffers that are filled
/// right away. From half a large page on they come in large pages where the system has any: filling
/// those costs one page fault for two mebibytes, not five hundred.
[[nodiscard]] PlatformPages PlatformAllocatePages(size_t size);
