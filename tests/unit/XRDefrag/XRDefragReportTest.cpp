#include "XRDefragReport.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::string_view_literals;

/// A report on a file in memory.
class XRDefragReportTest : public testing::Test {
 protected:
  XRDefragReportTest()
      : _file(::memfd_create("report", MFD_CLOEXEC)), stream(::fdopen(::dup(_file), "w")) {}
  ~XRDefragReportTest() override {
    std::fclose(stream);
    ::close(_file);
  }

  /// What has left the process.
  std::string written() const {
    std::string text(static_cast<size_t>(::lseek(_file, 0, SEEK_END)), '\0');
    EXPECT_EQ(::pread(_file, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    return text;
  }

 private:
  int _file;

 protected:
  std::FILE* stream;
};

}  // namespace

TEST_F(XRDefragReportTest, APrintedLineLeavesWithTheNextFlushedOne) {
  XRDefragReport report(stream);
  report.print("READY\n");
  EXPECT_EQ(written(), "");
  report.printAndFlush("SCAN,START\n");
  EXPECT_EQ(written(), "READY\nSCAN,START\n");
}

TEST_F(XRDefragReportTest, LinesOfDifferentThreadsNeverMix) {
  XRDefragReport report(stream);
  constexpr int kLines = 500;
  {
    std::vector<std::jthread> threads;
    for (char letter = 'a'; letter < 'e'; ++letter) {
      threads.emplace_back([&report, letter] {
        std::string line(100, letter);
        line.push_back('\n');
        for (int count = 0; count < kLines; ++count) {
          count % 3 == 0 ? report.printAndFlush(line) : report.print(line);
        }
      });
    }
  }
  report.printAndFlush("");
  const std::string text = written();
  ASSERT_EQ(text.size(), 4U * kLines * 101);
  for (size_t start = 0; start < text.size(); start += 101) {
    std::string line(100, text[start]);
    line.push_back('\n');
    ASSERT_EQ(text.substr(start, 101), line);
  }
}

TEST(XRDefragReport, AReaderThatIsGoneIsNoReasonToStop) {
  const auto previous = std::signal(SIGPIPE, SIG_IGN);
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  ::close(ends[0]);
  std::FILE* stream = ::fdopen(ends[1], "w");
  XRDefragReport report(stream);
  const std::string line(1000, 'x');
  for (int count = 0; count < 1000; ++count) {
    report.print(line);
    report.printAndFlush("y\n");
  }
  std::fclose(stream);
  std::signal(SIGPIPE, previous);
}

TEST(OutputSafeString, BackslashesCommasAndNulsAreEscaped) {
  EXPECT_EQ(outputSafeString("a,b\\d"), R"(a\,b\\d)");
  EXPECT_EQ(outputSafeString("a\0b"sv), R"(a\xC0\x80b)");
  EXPECT_EQ(outputSafeString("\\,\0"sv), R"(\\\,\xC0\x80)");
}

TEST(OutputSafeString, EverythingElseStaysAsItIs) {
  EXPECT_EQ(outputSafeString(""), "");
  EXPECT_EQ(outputSafeString("plain \xC3\xA4\n\t\"'"), "plain \xC3\xA4\n\t\"'");
}
