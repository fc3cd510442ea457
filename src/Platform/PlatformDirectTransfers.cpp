#include "Platform/PlatformDirectTransfers.hpp"

// The kernel's own declaration of statx: the C library's lags behind and the two exclude each
// other.
#include <fcntl.h>
#include <linux/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {
constexpr uint32_t kSafeAlignment = 4096;
constexpr int kEmptyPath = 0x1000;  // AT_EMPTY_PATH
}  // namespace

std::optional<PlatformDirectAlignment> PlatformDirectTransferAlignment(int descriptor) {
  struct statx status = {};
  const long result = ::syscall(SYS_statx, descriptor, "", kEmptyPath, STATX_DIOALIGN, &status);
  if (result != 0 || (status.stx_mask & STATX_DIOALIGN) == 0) {
    return PlatformDirectAlignment{.memory = kSafeAlignment, .offset = kSafeAlignment};
  }
  if (status.stx_dio_mem_align == 0 || status.stx_dio_offset_align == 0) {
    return std::nullopt;
  }
  return PlatformDirectAlignment{.memory = status.stx_dio_mem_align,
                                 .offset = status.stx_dio_offset_align};
}
