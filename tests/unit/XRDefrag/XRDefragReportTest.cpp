#include "XRDefragReport.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/doubles/TestRandom.hpp"

namespace {

using namespace std::chrono_literals;
using namespace std::string_view_literals;

/// A reader that reads only when it is let.
class Reader {
 public:
  XRDefragReport::Sink sink() {
    return [this](std::string_view lines) {
      std::unique_lock lock(_lock);
      _isCalled = true;
      _changed.notify_all();
      _changed.wait(lock, [this] { return _reads; });
      _text += lines;
    };
  }

  void stop() { setReads(false); }
  void goOn() { setReads(true); }

  /// Returns when somebody has tried to write.
  void waitUntilCalled() {
    std::unique_lock lock(_lock);
    _changed.wait(lock, [this] { return _isCalled; });
  }

  std::string text() {
    const std::lock_guard lock(_lock);
    return _text;
  }

 private:
  void setReads(bool reads) {
    const std::lock_guard lock(_lock);
    _reads = reads;
    _changed.notify_all();
  }

  std::mutex _lock;
  std::condition_variable _changed;
  bool _reads = true;
  bool _isCalled = false;
  std::string _text;
};

std::string lineOf(char letter, size_t length) {
  std::string line(length, letter);
  line.push_back('\n');
  return line;
}

/// Lines printed by four threads, each of them whole in the text.
void expectWholeLinesFromFourThreads(XRDefragReport& report,
                                     const std::function<std::string()>& text) {
  constexpr int kLines = 500;
  constexpr size_t kLength = 100;
  {
    std::vector<std::jthread> threads;
    for (char letter = 'a'; letter < 'e'; ++letter) {
      threads.emplace_back([&report, letter] {
        const std::string line = lineOf(letter, kLength);
        for (int count = 0; count < kLines; ++count) {
          count % 3 == 0 ? report.printAndFlush(line) : report.print(line);
        }
      });
    }
  }
  const std::string printed = text();
  ASSERT_EQ(printed.size(), 4U * kLines * (kLength + 1));
  for (size_t start = 0; start < printed.size(); start += kLength + 1) {
    ASSERT_EQ(printed.substr(start, kLength + 1), lineOf(printed[start], kLength));
  }
}

}  // namespace

TEST(XRDefragReport, APrintedLineLeavesWithTheNextFlushedOne) {
  Reader reader;
  XRDefragReport report(reader.sink());
  report.print("READY\n");
  EXPECT_EQ(reader.text(), "");
  report.printAndFlush("SCAN,START\n");
  EXPECT_EQ(reader.text(), "READY\nSCAN,START\n");
}

TEST(XRDefragReport, PrintedLinesLeaveAtTheEndAtTheLatest) {
  Reader reader;
  {
    XRDefragReport(reader.sink()).print("READY\n");
  }
  EXPECT_EQ(reader.text(), "READY\n");
  {
    XRDefragReport report(reader.sink());
    report.writeInBackground();
    report.print("READY\n");
  }
  EXPECT_EQ(reader.text(), "READY\nREADY\n");
}

TEST(XRDefragReport, ManyPrintedLinesDoNotWaitForAFlushedOne) {
  Reader reader;
  XRDefragReport report(reader.sink());
  report.print(lineOf('x', 300000));
  EXPECT_EQ(reader.text().size(), 300001U);
}

TEST(XRDefragReport, OnATerminalEveryLineLeavesAtOnce) {
  Reader reader;
  XRDefragReport report(reader.sink(), XRDefragReport::Buffering::ByLine);
  report.print("READY\n");
  EXPECT_EQ(reader.text(), "READY\n");
}

TEST(XRDefragReport, LinesOfDifferentThreadsNeverMix) {
  Reader reader;
  XRDefragReport report(reader.sink());
  expectWholeLinesFromFourThreads(report, [&] {
    report.printAndFlush("");
    return reader.text();
  });
}

TEST(XRDefragReport, LinesOfDifferentThreadsNeverMixInTheBackground) {
  Reader reader;
  auto report = std::make_unique<XRDefragReport>(reader.sink());
  report->writeInBackground();
  expectWholeLinesFromFourThreads(*report, [&] {
    report.reset();
    return reader.text();
  });
}

TEST(XRDefragReport, AReaderThatStopsDoesNotStopTheMainThread) {
  Reader reader;
  std::string expected;
  {
    XRDefragReport report(reader.sink());
    report.writeInBackground();
    reader.stop();
    for (int count = 0; count < 1000; ++count) {
      const std::string line = std::to_string(count) + lineOf('x', 1000);
      report.printAndFlush(line);
      expected += line;
    }
    EXPECT_EQ(reader.text(), "");
    reader.goOn();
  }
  EXPECT_TRUE(reader.text() == expected);
}

TEST(XRDefragReport, ATaskWaitsForAReaderUntilItIsToEnd) {
  Reader reader;
  std::atomic<size_t> printed = 0;
  {
    XRDefragReport report(reader.sink());
    report.writeInBackground();
    reader.stop();
    const std::string line = lineOf('x', 999);
    std::jthread task([&](const std::stop_token& stop) {
      while (!stop.stop_requested()) {
        report.print(line);
        printed += line.size();
      }
    });
    reader.waitUntilCalled();
    size_t before = 0;
    do {
      before = printed;
      std::this_thread::sleep_for(50ms);
    } while (before == 0 || printed != before);
    // What the sink holds, what waits for it, and what has not been sent to it.
    EXPECT_LE(printed, 5 * XRDefragReport::kBacklogBytes);
    task.request_stop();
    report.stopWaiting();
    task.join();
    reader.goOn();
  }
  EXPECT_EQ(reader.text().size(), printed);
}

TEST(XRDefragReport, LinesOfDifferentThreadsNeverMixWhereSomeLeaveAtOnce) {
  Reader reader;
  TestRandom random(7);
  auto report = std::make_unique<XRDefragReport>(
      reader.sink(), XRDefragReport::Buffering::UntilFlushed, [&](std::string_view lines) {
        const bool hasRoom = random() % 2 == 0;
        if (hasRoom) {
          reader.sink()(lines);
        }
        return hasRoom;
      });
  report->writeInBackground();
  expectWholeLinesFromFourThreads(*report, [&] {
    report.reset();
    return reader.text();
  });
}

TEST(XRDefragReport, FlushedLinesLeaveAtOnceWhereThereIsRoomAndNothingInFront) {
  Reader reader;
  std::string atOnce;
  bool hasRoom = true;
  {
    XRDefragReport report(reader.sink(), XRDefragReport::Buffering::UntilFlushed,
                          [&](std::string_view lines) {
                            atOnce += hasRoom ? lines : "";
                            return hasRoom;
                          });
    report.writeInBackground();
    report.print("READY\n");
    EXPECT_EQ(atOnce, "");
    report.printAndFlush("SCAN,START\n");
    EXPECT_EQ(atOnce, "READY\nSCAN,START\n");
    reader.stop();
    hasRoom = false;
    report.printAndFlush("SCAN,PROGRESS,50\n");
    reader.waitUntilCalled();
    hasRoom = true;
    report.printAndFlush("SCAN,DONE\n");  // not past the line that is being written
    reader.goOn();
  }
  EXPECT_EQ(atOnce, "READY\nSCAN,START\n");
  EXPECT_EQ(reader.text(), "SCAN,PROGRESS,50\nSCAN,DONE\n");
}

TEST(XRDefragReport, WhatATaskHasFlushedIsWritten) {
  Reader reader;
  XRDefragReport report(reader.sink());
  report.writeInBackground();
  std::jthread([&] {
    for (int count = 1; count <= 100; ++count) {
      report.print("a\n");
      report.printAndFlush("b\n");
      ASSERT_EQ(reader.text().size(), 4U * static_cast<size_t>(count));
    }
  }).join();
}

TEST(XRDefragReport, ATaskThatFlushesWaitsNoLongerOnceTheToolIsToEnd) {
  Reader reader;
  {
    XRDefragReport report(reader.sink());
    report.writeInBackground();
    reader.stop();
    std::atomic<bool> returned = false;
    std::jthread task([&] {
      report.printAndFlush("MAP,START\n");
      returned = true;
      report.printAndFlush("MAP,DONE\n");
    });
    reader.waitUntilCalled();
    std::this_thread::sleep_for(20ms);
    EXPECT_FALSE(returned);
    report.stopWaiting();
    task.join();
    EXPECT_EQ(reader.text(), "");
    reader.goOn();
  }
  EXPECT_EQ(reader.text(), "MAP,START\nMAP,DONE\n");
}

TEST(XRDefragReport, TellsWhenThereIsRoom) {
  Reader reader;
  std::atomic<int> calls = 0;
  const auto call = [&] { ++calls; };
  {
    XRDefragReport report(reader.sink());
    report.writeInBackground();
    report.whenThereIsRoom(call);
    EXPECT_EQ(calls, 1);
    reader.stop();
    report.printAndFlush("one\n");
    reader.waitUntilCalled();
    report.printAndFlush(lineOf('x', XRDefragReport::kBacklogBytes));
    report.whenThereIsRoom(call);
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(calls, 1);
    reader.goOn();
  }
  EXPECT_EQ(calls, 2);
}

TEST(XRDefragReport, TellsNobodyAboutRoomOnceTheToolIsToEnd) {
  Reader reader;
  std::atomic<int> calls = 0;
  {
    XRDefragReport report(reader.sink());
    report.writeInBackground();
    reader.stop();
    report.printAndFlush("one\n");
    reader.waitUntilCalled();
    report.printAndFlush(lineOf('x', XRDefragReport::kBacklogBytes));
    report.whenThereIsRoom([&] { ++calls; });
    report.stopWaiting();
    reader.goOn();
  }
  EXPECT_EQ(calls, 0);
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

namespace {

/// Splits a report line at the commas that separate its fields, and undoes the escapes in them.
std::vector<std::string> fieldsOf(std::string_view line) {
  std::vector<std::string> fields(1);
  for (size_t i = 0; i < line.size(); ++i) {
    if (line[i] == ',') {
      fields.emplace_back();
    } else if (line[i] != '\\') {
      fields.back() += line[i];
    } else if (line.substr(i + 1).starts_with("xC0\\x80")) {
      fields.back() += '\0';
      i += 7;
    } else {
      fields.back() += line.at(++i);
    }
  }
  return fields;
}

}  // namespace

TEST(OutputSafeString, AnyFieldsCanBeReadBackFromTheirLine) {
  const uint32_t seed = testSeed();
  SCOPED_TRACE(seedText(seed));
  TestRandom random(seed);
  constexpr std::string_view kAlphabet = "\\\\,,\0xC80 a\xC3\xA4"sv;
  for (int round = 0; round < 5000; ++round) {
    std::vector<std::string> fields(1 + random() % 4);
    std::string line;
    for (std::string& field : fields) {
      for (uint32_t length = random() % 12; length > 0; --length) {
        field += random() % 4 == 0 ? static_cast<char>(random())
                                   : kAlphabet[random() % kAlphabet.size()];
      }
      line += (&field == &fields.front() ? "" : ",") + outputSafeString(field);
    }
    ASSERT_EQ(fieldsOf(line), fields) << testing::PrintToString(line);
    ASSERT_EQ(line.find('\0'), std::string::npos);
  }
}
