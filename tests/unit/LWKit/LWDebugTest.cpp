#include "LWKit/LWDebug.hpp"

#include <gtest/gtest.h>
#include <regex.h>
#include <sys/types.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

/// What a call writes to standard error, line by line.
template <typename Call>
std::vector<std::string> linesOf(Call call) {
  testing::internal::CaptureStderr();
  call();
  std::istringstream stream(testing::internal::GetCapturedStderr());
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

/// Whether an extended regular expression describes the whole text.
bool matches(const std::string& text, const std::string& pattern) {
  regex_t compiled;
  EXPECT_EQ(::regcomp(&compiled, ("^(" + pattern + ")$").c_str(), REG_EXTENDED | REG_NOSUB), 0);
  const bool found = ::regexec(&compiled, text.c_str(), 0, nullptr, 0) == 0;
  ::regfree(&compiled);
  return found;
}

/// The lines without time stamp, program name and process ID, which all must have.
std::vector<std::string> messages(const std::vector<std::string>& lines) {
  const std::string stamp = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}[.][0-9]{3} ";
  const std::string process =
      std::string(program_invocation_short_name) + "[" + std::to_string(::getpid()) + "]: ";
  std::vector<std::string> result;
  for (const std::string& line : lines) {
    const size_t end = line.find(process);
    EXPECT_TRUE(end != std::string::npos && matches(line.substr(0, end), stamp)) << line;
    result.push_back(end == std::string::npos ? line : line.substr(end + process.size()));
  }
  return result;
}

using Lines = std::vector<std::string>;

}  // namespace

TEST(LWDebug, ALineCarriesTimeProgramProcessAndLevel) {
  EXPECT_EQ(messages(linesOf([] {
              LWDebugLog(LWDebugLevel::Warning, "node %u\n", 7U);
              LWDebugLog(LWDebugLevel::Error, "disk\n");
              LWDebugLog(LWDebugLevel::Panic, "end\n");
            })),
            (Lines{"WARNING: node 7", "ERROR: disk", "PANIC: end"}));
}

TEST(LWDebug, MessagesAboveTheThresholdAreNotWritten) {
  EXPECT_TRUE(linesOf([] {
                LWDebugLog(LWDebugLevel::Info, "a\n");
                LWDebugLog(LWDebugLevel::Debug, "b\n");
                LWDebugLog(LWDebugLevel::MoreDebug, "c\n");
              }).empty());
}

TEST(LWDebug, PiecesOfTheSameLevelMakeOneLine) {
  EXPECT_EQ(messages(linesOf([] {
              LWDebugLog(LWDebugLevel::Warning, "one ");
              LWDebugLog(LWDebugLevel::Warning, "two\nthree\n\n");
            })),
            (Lines{"WARNING: one two", "WARNING: three", "WARNING: "}));
}

TEST(LWDebug, AMessageOfAnotherLevelEndsALineInProgress) {
  EXPECT_EQ(messages(linesOf([] {
              LWDebugLog(LWDebugLevel::Warning, "half");
              LWDebugLog(LWDebugLevel::Error, "other\n");
            })),
            (Lines{"WARNING: half", "ERROR: other"}));
}

TEST(LWDebug, TheEndOfAThreadEndsItsLine) {
  EXPECT_EQ(messages(linesOf([] {
              std::jthread([] { LWDebugLog(LWDebugLevel::Error, "unfinished"); }).join();
            })),
            Lines{"ERROR: unfinished"});
}

TEST(LWDebug, LinesOfDifferentThreadsDoNotMix) {
  const auto lines = messages(linesOf([] {
    std::vector<std::jthread> threads;
    for (int number = 0; number < 4; ++number) {
      threads.emplace_back([number] {
        for (int count = 0; count < 200; ++count) {
          LWDebugLog(LWDebugLevel::Warning, "%d", number);
          LWDebugLog(LWDebugLevel::Warning, "%d\n", number);
        }
      });
    }
  }));
  EXPECT_EQ(lines.size(), 800U);
  for (const std::string& line : lines) {
    ASSERT_TRUE(matches(line, "WARNING: (00|11|22|33)")) << line;
  }
}

TEST(LWDebug, AHexDumpHasOffsetsBytesAndCharacters) {
  std::array<uint8_t, 20> bytes{};
  for (size_t index = 0; index < bytes.size(); ++index) {
    bytes[index] = static_cast<uint8_t>('A' + index);
  }
  bytes[1] = 0x1F;
  bytes[2] = 0x7F;
  EXPECT_EQ(messages(linesOf([&] {
              LWHexDump(LWDebugLevel::Error, std::as_bytes(std::span(bytes)),
                        kLWHexDumpOmitHeader | kLWHexDumpOffsets);
            })),
            (Lines{"ERROR: 00000000:  411F 7F44 4546 4748  494A 4B4C 4D4E 4F50  'A..DEFGHIJKLMNOP'",
                   "ERROR: 00000010:  5152 5354                                 'QRST'"}));
}

TEST(LWDebug, ARunOfZeroLinesIsOneStar) {
  std::array<std::byte, 16 * 5 + 1> bytes{};
  bytes[0] = std::byte{1};
  bytes[16 * 4] = std::byte{2};
  const auto lines = messages(linesOf(
      [&] { LWHexDump(LWDebugLevel::Error, bytes, kLWHexDumpCollapseZeros | kLWHexDumpOffsets); }));
  ASSERT_EQ(lines.size(), 5U);
  EXPECT_TRUE(lines[0].starts_with("ERROR: Displaying 81 bytes from 0x")) << lines[0];
  EXPECT_TRUE(lines[1].starts_with("ERROR: 00000000:  0100 0000"));
  EXPECT_EQ(lines[2], "ERROR: *");
  EXPECT_TRUE(lines[3].starts_with("ERROR: 00000040:  0200 0000"));
  EXPECT_TRUE(lines[4].starts_with("ERROR: 00000050:  00  "));
}

TEST(LWDebug, ABacktraceListsTheFramesOutermostFirst) {
  const auto lines = messages(linesOf([] { LWBacktrace(LWDebugLevel::Error); }));
  ASSERT_GE(lines.size(), 3U);
  EXPECT_EQ(lines.front(), "ERROR:    Frame             Caller");
  const std::string frame = "ERROR:   [0-9A-F]{16}  [0-9A-F]{16}  ([(]unknown[)]|.+[+][0-9A-F]+)";
  for (size_t index = 1; index < lines.size(); ++index) {
    EXPECT_TRUE(matches(lines[index], frame)) << lines[index];
  }
  const auto withoutInnermost = messages(linesOf([] { LWBacktrace(LWDebugLevel::Error, 1); }));
  EXPECT_EQ(withoutInnermost.size() + 1, lines.size());
}

TEST(LWDebug, OmittingMoreFramesThanThereAreListsNone) {
  EXPECT_EQ(linesOf([] { LWBacktrace(LWDebugLevel::Error, 100'000); }).size(), 1U);
}

namespace {

/// Logs at every level in a process of its own, whose threshold the variable sets.
[[noreturn]] void logEverything(const char* level) {
  if (level == nullptr) {
    ::unsetenv("LWDebugLevel");
  } else {
    ::setenv("LWDebugLevel", level, 1);
  }
  for (int value = 1; value <= 6; ++value) {
    LWDebugLog(static_cast<LWDebugLevel>(value), "level %d;", value);
  }
  std::exit(0);
}

class LWDebugDeathTest : public testing::Test {
 protected:
  LWDebugDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

}  // namespace

TEST_F(LWDebugDeathTest, WarningsAndWorseAreWrittenUnlessTheVariableSaysOtherwise) {
  EXPECT_EXIT(logEverything(nullptr), testing::ExitedWithCode(0), "level 3;[^;]*$");
  EXPECT_EXIT(logEverything("loud"), testing::ExitedWithCode(0), "level 3;[^;]*$");
}

TEST_F(LWDebugDeathTest, TheVariableSetsTheThresholdWithoutRegardToCase) {
  EXPECT_EXIT(logEverything("panic"), testing::ExitedWithCode(0), "level 1;[^;]*$");
  EXPECT_EXIT(logEverything("Err"), testing::ExitedWithCode(0), "level 2;[^;]*$");
  EXPECT_EXIT(logEverything("WARN"), testing::ExitedWithCode(0), "level 3;[^;]*$");
  EXPECT_EXIT(logEverything("info"), testing::ExitedWithCode(0), "level 4;[^;]*$");
  EXPECT_EXIT(logEverything("DEBUG"), testing::ExitedWithCode(0), "level 5;[^;]*$");
  EXPECT_EXIT(logEverything("debug_more"), testing::ExitedWithCode(0), "level 6;[^;]*$");
}

TEST_F(LWDebugDeathTest, APanicSaysWhyAndWhereAndStopsTheProcess) {
  EXPECT_EXIT(LWPanic("broken at %d", 7), testing::KilledBySignal(SIGABRT),
              "PANIC: broken at 7\n.*PANIC:    Frame             Caller\n.*PANIC:   [0-9A-F]+");
}
