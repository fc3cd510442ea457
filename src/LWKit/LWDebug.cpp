#include "LWKit/LWDebug.hpp"

#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

#include "LWKit/LWStringUtilities.hpp"
#include "Platform/PlatformOutput.hpp"
#include "Platform/PlatformProcess.hpp"
#include "Platform/PlatformStack.hpp"

namespace {

LWDebugLevel thresholdFromEnvironment() {
  constexpr std::array<std::string_view, 6> kNames = {"PANIC", "ERR",   "WARN",
                                                      "INFO",  "DEBUG", "DEBUG_MORE"};
  const char* value = std::getenv("LWDebugLevel");
  const auto found = std::ranges::find(kNames, LWUppercaseASCII(value == nullptr ? "" : value));
  return found == kNames.end() ? LWDebugLevel::Warning
                               : static_cast<LWDebugLevel>(found - kNames.begin() + 1);
}

std::string_view tagOf(LWDebugLevel level) {
  switch (level) {
    case LWDebugLevel::Panic:
      return "PANIC: ";
    case LWDebugLevel::Error:
      return "ERROR: ";
    case LWDebugLevel::Warning:
      return "WARNING: ";
    case LWDebugLevel::Info:
    case LWDebugLevel::Debug:
    case LWDebugLevel::MoreDebug:
      break;
  }
  return "";
}

/// Leaked on purpose: threads may log until the very end.
const std::string& processPrefix() {
  static const auto& prefix = *new std::string(
      LWFormat("%s[%u]: ", PlatformProcess::programName(), PlatformProcess::processID()));
  return prefix;
}

std::string linePrefix(LWDebugLevel level) {
  timeval now{};
  ::gettimeofday(&now, nullptr);
  tm local{};
  ::localtime_r(&now.tv_sec, &local);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%F %T", &local);
  return LWFormat("%s.%03u %s%s", static_cast<const char*>(stamp),
                  static_cast<unsigned>(now.tv_usec / 1000), processPrefix(), tagOf(level));
}

/// A thread's line in progress. The thread's end ends it.
class DebugLine {
 public:
  ~DebugLine() { finish(); }

  void write(LWDebugLevel level, std::string_view text) {
    if (_level && *_level != level) {
      finish();
    }
    while (!text.empty()) {
      if (!_level) {
        _level = level;
        _bytes = linePrefix(level);
      }
      const size_t newline = text.find('\n');
      _bytes += text.substr(0, newline);
      if (newline == std::string_view::npos) {
        return;
      }
      finish();
      text.remove_prefix(newline + 1);
    }
  }

  void finish() {
    if (_level) {
      _bytes += '\n';
      PlatformOutput(STDERR_FILENO).write(_bytes);
      _bytes.clear();
      _level.reset();
    }
  }

 private:
  std::optional<LWDebugLevel> _level;  // none at the start of a line
  std::string _bytes;
};

constexpr size_t kDumpLineBytes = 16;

std::string hexPairs(std::span<const std::byte> bytes) {
  std::string text;
  for (size_t index = 0; index < bytes.size(); ++index) {
    if (index == kDumpLineBytes / 2) {
      text += "  ";
    } else if (index != 0 && index % 2 == 0) {
      text += ' ';
    }
    text += LWFormat("%02X", std::to_integer<unsigned>(bytes[index]));
  }
  return text;
}

std::string printableText(std::span<const std::byte> bytes) {
  std::string text;
  for (const std::byte byte : bytes) {
    const auto code = std::to_integer<unsigned char>(byte);
    text += code >= 0x20 && code <= 0x7E ? static_cast<char>(code) : '.';
  }
  return text;
}

}  // namespace

bool LWDebugEnabled(LWDebugLevel level) {
  static const LWDebugLevel threshold = thresholdFromEnvironment();
  return level <= threshold;
}

void LWDebugWrite(LWDebugLevel level, std::string_view text) {
  if (LWDebugEnabled(level)) {
    static thread_local DebugLine line;
    line.write(level, text);
  }
}

void LWHexDump(LWDebugLevel level, std::span<const std::byte> bytes, unsigned flags) {
  if (!LWDebugEnabled(level)) {
    return;
  }
  if ((flags & kLWHexDumpOmitHeader) == 0) {
    LWDebugLog(level, "Displaying %u bytes from %p\n", bytes.size(),
               static_cast<const void*>(bytes.data()));
  }
  const uintptr_t origin =
      (flags & kLWHexDumpOffsets) != 0 ? 0 : reinterpret_cast<uintptr_t>(bytes.data());
  const int hexWidth = static_cast<int>(hexPairs(std::array<std::byte, kDumpLineBytes>{}).size());
  bool skipped = false;
  for (size_t offset = 0; offset < bytes.size(); offset += kDumpLineBytes) {
    const auto line = bytes.subspan(offset, std::min(kDumpLineBytes, bytes.size() - offset));
    if ((flags & kLWHexDumpCollapseZeros) != 0 && line.size() == kDumpLineBytes &&
        std::ranges::all_of(line, [](std::byte byte) { return byte == std::byte{0}; })) {
      skipped = true;
      continue;
    }
    if (skipped) {
      LWDebugWrite(level, "*\n");
      skipped = false;
    }
    const std::string hex = hexPairs(line);
    LWDebugLog(level, "%08X:  %s%*s'%s'\n", origin + offset, hex,
               hexWidth + 2 - static_cast<int>(hex.size()), "", printableText(line));
  }
}

[[gnu::noinline]] void LWBacktrace(LWDebugLevel level, unsigned omittedFrames) {
  if (!LWDebugEnabled(level)) {
    return;
  }
  const auto frames = PlatformStack::framesFrom(__builtin_frame_address(0));
  LWDebugLog(level, "   Frame     %*sCaller\n", 8, "");
  for (size_t index = frames.size(); index-- > omittedFrames;) {
    const auto [frameAddress, returnAddress] = frames[index];
    const PlatformSymbol symbol = PlatformStack::symbolAt(returnAddress);
    if (symbol.name.empty()) {
      LWDebugLog(level, "  %016lX  %016lX  (unknown)\n", frameAddress, returnAddress);
    } else {
      LWDebugLog(level, "  %016lX  %016lX  %s+%lX\n", frameAddress, returnAddress, symbol.name,
                 symbol.offset);
    }
  }
}

void LWPanicWithMessage(std::string_view message) {
  LWDebugWrite(LWDebugLevel::Panic, message);
  if (!message.ends_with('\n')) {
    LWDebugWrite(LWDebugLevel::Panic, "\n");
  }
  LWBacktrace(LWDebugLevel::Panic, 1);
  std::abort();
}
