#pragma once

#include <cstdint>

/// One transfer between a program and its device, as the recorder writes it down and the bare
/// copier carries it out again. In host byte order; a trace is nothing but these, one after the
/// other.
struct TransferRecord {
  enum Kind : uint8_t { Read, Write, Sync };

  uint64_t startNanoseconds;  // of the monotonic clock
  uint64_t endNanoseconds;
  uint64_t offset;  // bytes
  uint32_t size;    // bytes
  Kind kind;
  bool isDirect;    // past the page cache
  bool isFileData;  // to or from the copy buffer
  uint8_t reserved;
};
static_assert(sizeof(TransferRecord) == 32);
