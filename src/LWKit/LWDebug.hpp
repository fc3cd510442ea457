#pragma once

#include <cstddef>
#include <span>
#include <string_view>

#include "LWKit/LWFormat.hpp"

/// How much a diagnostic matters; a message is written when its level is at or below the threshold
/// that the environment variable LWDebugLevel sets (warnings and worse by default).
enum class LWDebugLevel : int { Panic = 1, Error, Warning, Info, Debug, MoreDebug };

/// Flags of LWHexDump().
enum LWHexDumpFlags : unsigned {
  kLWHexDumpOmitHeader = 1,
  kLWHexDumpCollapseZeros = 2,
  kLWHexDumpOffsets = 4,
};

/// Whether a message of this level would be written: ask before computing anything costly.
bool LWDebugEnabled(LWDebugLevel level);

/// Appends text to the calling thread's line of diagnostics; every newline in it ends a line, which
/// goes to standard error in one call with its time stamp, program, process and level.
void LWDebugWrite(LWDebugLevel level, std::string_view text);

/// Formats and writes a diagnostic message. Costs one comparison when the level is not enabled.
template <typename... Arguments>
void LWDebugLog(LWDebugLevel level, std::string_view format, const Arguments&... arguments) {
  if (LWDebugEnabled(level)) {
    LWDebugWrite(level, LWFormat(format, arguments...));
  }
}

/// Dumps bytes, sixteen a line, as hexadecimal and characters.
void LWHexDump(LWDebugLevel level, std::span<const std::byte> bytes,
               unsigned flags = kLWHexDumpCollapseZeros);

/// Logs the calling thread's stack, outermost frame first, leaving out the innermost frames.
void LWBacktrace(LWDebugLevel level, unsigned omittedFrames = 0);

/// Logs the message and a backtrace at panic level, then stops the process. For broken invariants
/// of the program itself; nothing that a user or a volume supplies may lead here.
[[noreturn]] void LWPanicWithMessage(std::string_view message);

/// LWPanicWithMessage() with a formatted message.
template <typename... Arguments>
[[noreturn]] void LWPanic(std::string_view format, const Arguments&... arguments) {
  LWPanicWithMessage(LWFormat(format, arguments...));
}

/// Stops the process unless an invariant of the program holds, in every build.
#define LW_ASSERT(condition)                                                     \
  do {                                                                           \
    if (!(condition)) [[unlikely]] {                                             \
      LWPanic("assertion failed: %s (%s:%d)\n", #condition, __FILE__, __LINE__); \
    }                                                                            \
  } while (false)
