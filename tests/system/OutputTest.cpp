// How answers leave the program: in order, whole, when they should, and to readers of every kind.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <chrono>
#include <csignal>
#include <thread>

#include "system/ProtocolSuite.hpp"

namespace {

using namespace std::chrono_literals;

/// Long enough for the program to have said what it had to say.
constexpr auto kSilence = 200ms;

class Output : public ProtocolSuite {
 protected:
  static std::string contents(const fs::path& path) {
    std::ifstream stream(path);
    return std::string(std::istreambuf_iterator<char>(stream), {});
  }

  /// A volume with so many files that a scan of them takes a while and fills any pipe.
  static std::string manyFiles() {
    const fs::path path = folder / "many.hfs";
    support::PlainVolume options;
    options.files = 30000;
    options.fileSize = 4096;
    options.fragments = 1;
    options.unwritten = true;
    support::buildVolume(support::plainVolume(options), path);
    return path;
  }
};

Lines progressLines(const Lines& lines, std::string_view task) {
  Lines result;
  for (const std::string& line : lines) {
    if (line.starts_with(std::string(task) + ",PROGRESS,")) {
      result.push_back(line);
    }
  }
  return result;
}

}  // namespace

TEST_F(Output, ReadyWaitsForTheFirstFlushedLine) {
  ProgramRunner program({volume});
  EXPECT_EQ(program.readLine(kSilence), std::nullopt);
  program.write("\n  \n\xFF\n");
  EXPECT_EQ(program.readLine(kSilence), std::nullopt);
  program.writeLine("MAP -i 2");
  EXPECT_EQ(program.readLine(), "READY");
  EXPECT_EQ(program.readLine(), "MAP,START");
  EXPECT_EQ(program.readLine(), "MAP,DIR,1,2,");
  EXPECT_EQ(program.readLine(), "MAP,DONE");
  program.writeLine("QUIT");
  EXPECT_EQ(program.waitForExit(), 0);
}

TEST_F(Output, ReadyLeavesAtTheEndAtTheLatest) {
  ProgramRunner program({volume});
  EXPECT_EQ(program.readLine(kSilence), std::nullopt);
  program.sendSignal(SIGTERM);
  EXPECT_EQ(program.readAll(), Lines{"READY"});
  EXPECT_EQ(program.waitForExit(), 0);
}

TEST_F(Output, LinesStandInOrderWithTheDebugLogOnTheSameDescriptor) {
  ProgramSetup setup;
  setup.arguments = {volume};
  setup.environment = {{"LWDebugLevel", "debug"}};
  setup.outputIsDiagnosticsToo = true;
  ProgramRunner program(setup);
  program.write("FRAGINFO\nMAP\nQUIT\n");
  const Lines lines = program.readAll();
  EXPECT_EQ(program.waitForExit(), 0);
  const auto place = [&](std::string_view text) {
    return std::ranges::find_if(lines, [&](auto& line) { return line.find(text) != line.npos; }) -
           lines.begin();
  };
  EXPECT_LT(place("FRAGINFO,START"), place("FRAGINFO,DEBUG,Starting at block"));
  EXPECT_LT(place("FRAGINFO,DEBUG,Starting at block"), place("FRAGINFO,DONE"));
  EXPECT_LT(place("FRAGINFO,DONE"), place("FRAGINFO,DEBUG,Elapsed time"));
  EXPECT_LT(place("FRAGINFO,DEBUG,Elapsed time"), place("MAP,START"));
  EXPECT_LT(place("MAP,DONE"), place("MAP,DEBUG,Elapsed time"));
  EXPECT_LT(place("MAP,DEBUG,Elapsed time"), static_cast<std::ptrdiff_t>(lines.size()));
}

TEST_F(Output, AFileGetsTheSameLinesAsAPipe) {
  const std::string input = "SCAN -f\nMAP -i 2 -i 1\nBITMAP 4\nx\n";
  ProgramSetup setup;
  setup.arguments = {volume};
  setup.output = ProgramSetup::Output::File;
  setup.outputFile = folder / "answers";
  ProgramRunner program(setup);
  program.write(input);
  program.closeInput();
  EXPECT_EQ(program.waitForExit(), 0);
  std::string expected;
  for (const std::string& line : transcript({volume}, input)) {
    expected += line + "\n";
  }
  EXPECT_TRUE(contents(setup.outputFile) == expected);
}

TEST_F(Output, AFullDiskLosesLinesAndNothingElse) {
  const std::string path = scratchVolume();
  ProgramSetup setup;
  setup.arguments = {path};
  setup.output = ProgramSetup::Output::File;
  setup.outputFile = "/dev/full";
  ProgramRunner program(setup);
  program.write("SCAN\nDEFRAG\nMAP -i 2\nx\n");
  program.closeInput();
  EXPECT_EQ(program.waitForExit(), 0);
  EXPECT_EQ(program.diagnostics(), "");
  expectIntact(path);
}

TEST_F(Output, AReaderThatIsGoneIsNoReasonToStop) {
  ProgramRunner program({manyFiles()});
  program.writeLine("SCAN");
  EXPECT_EQ(program.readLine(), "READY");
  program.closeOutput();
  program.write("FRAGINFO\nx\n");
  std::this_thread::sleep_for(kSilence);
  EXPECT_TRUE(program.isRunning());
  program.closeInput();
  EXPECT_EQ(program.waitForExit(), 0);
  EXPECT_EQ(program.diagnostics(), "");
}

TEST_F(Output, APipeThatDoesNotWaitLosesNothing) {
  const std::string path = manyFiles();
  const Lines expected = transcript({"-i", "1000", path}, "SCAN\n");
  ASSERT_GT(expected.size(), 30000U);
  ProgramSetup setup;
  setup.arguments = {"-i", "1000", path};
  setup.output = ProgramSetup::Output::PipeThatDoesNotWait;
  ProgramRunner program(setup);
  program.writeLine("SCAN");
  std::this_thread::sleep_for(kSilence);  // by now the pipe is full
  program.closeInput();
  EXPECT_TRUE(program.readAll() == expected);
  EXPECT_EQ(program.waitForExit(), 0);
}

TEST_F(Output, AScanForAReaderThatDoesNotReadEndsWhenItIsTold) {
  const std::string path = manyFiles();
  for (const int number : {SIGTERM, SIGINT, SIGQUIT}) {
    ProgramRunner program({"-i", "0.001", path});
    program.writeLine("SCAN");
    EXPECT_EQ(program.readLine(), "READY");
    std::this_thread::sleep_for(kSilence);
    program.sendSignal(number);
    EXPECT_TRUE(program.waitUntilClosed(path))
        << "the device is held for a reader who is not there";
    const Lines lines = program.readAll();
    EXPECT_EQ(program.waitForExit(), 0);
    EXPECT_EQ(lines.back(), "SCAN,DONE");
    EXPECT_LT(lines.size(), 30000U) << "the pipe holds more than the scan";
    EXPECT_EQ(lines.front(), "SCAN,START");
    EXPECT_EQ(
        std::ranges::count_if(lines, [](auto& line) { return line.find("ERROR") != line.npos; }),
        0);
  }
}

TEST_F(Output, ARunForAReaderThatDoesNotReadEndsWhenItIsTold) {
  for (const char* ending : {"QUIT", "signal", "end of input"}) {
    SCOPED_TRACE(ending);
    const std::string path = scratchVolume();
    ProgramSetup setup;
    setup.arguments = {"-i", "0.0001", path};
    setup.outputPipeBytes = 4096;
    ProgramRunner program(setup);
    program.write("DEFRAG\nCOMPACT\nDEFRAG\n");
    EXPECT_EQ(program.readLine(), "READY");
    std::this_thread::sleep_for(kSilence);
    if (ending == std::string_view("QUIT")) {
      program.writeLine("QUIT");
    } else if (ending == std::string_view("signal")) {
      program.sendSignal(SIGTERM);
    } else {
      program.closeInput();
    }
    ASSERT_TRUE(program.waitUntilClosed(path)) << "the run waits for a reader who is not there";
    expectIntact(path);
    const Lines lines = program.readAll();
    EXPECT_EQ(program.waitForExit(), 0);
    for (const std::string task : {"DEFRAG", "COMPACT"}) {
      EXPECT_EQ(std::ranges::count(lines, task + ",START"),
                std::ranges::count(lines, task + ",DONE"));
    }
    EXPECT_NE(std::ranges::find(lines, "DEFRAG,DONE"), lines.end());
  }
}

TEST_F(Output, AFrontEndThatReadsNoAnswersIsAskedToStopAsking) {
  ProgramRunner program({volume});
  const std::string line = "x" + std::string(999, 'y') + "\n";
  std::atomic<size_t> written = 0;
  std::jthread writer([&] {
    for (int count = 0; count < 4000; ++count) {
      program.write(line);
      ++written;
    }
  });
  size_t before = 0;
  do {
    before = written;
    std::this_thread::sleep_for(kSilence);
  } while (written != before);
  EXPECT_LT(written, 2000U);
  size_t answers = 0;
  while (answers < 4001 && program.readLine()) {
    ++answers;
  }
  EXPECT_EQ(answers, 4001U);
  writer.join();
  program.closeInput();
  EXPECT_EQ(program.waitForExit(), 0);
}

TEST_F(Output, NoProgressIsPrintedWithinTheInterval) {
  EXPECT_EQ(progressLines(transcript({"-i", "1000", volume}, "SCAN\n"), "SCAN"), Lines{});
  const std::string path = scratchVolume();
  ProgramRunner program({"--interval", "1000", path});
  program.writeLine("DEFRAG -q");
  EXPECT_EQ(program.readUntil("DEFRAG,DONE"), (Lines{"READY", "DEFRAG,START", "DEFRAG,DONE"}));
  program.writeLine("QUIT");
  EXPECT_EQ(program.waitForExit(), 0);
}

TEST_F(Output, ProgressGrowsAndStandsBetweenStartAndDone) {
  const std::string path = manyFiles();
  const Lines lines = transcript({"-i", "0.000001", path}, "SCAN\nFRAGINFO\nSCAN --frag-only\n");
  const auto done = std::ranges::find(lines, "SCAN,DONE");
  ASSERT_NE(done, lines.end());
  const Lines progress = progressLines(Lines(lines.begin(), done), "SCAN");
  ASSERT_FALSE(progress.empty());
  int last = -1;
  for (const std::string& line : progress) {
    int percent = -1;
    const std::string_view number = std::string_view(line).substr(line.rfind(',') + 1);
    const auto [end, error] = std::from_chars(number.begin(), number.end(), percent);
    EXPECT_TRUE(error == std::errc() && end == number.end()) << line;
    EXPECT_GT(percent, last) << line;
    EXPECT_LE(percent, 100) << line;
    last = percent;
  }
  EXPECT_EQ(lines[1], "SCAN,START");
  EXPECT_EQ(progressLines(lines, "FRAGINFO"), Lines{});
  EXPECT_EQ(lines.back(), "SCAN,DONE");
}

TEST_F(Output, ProgressComesInTheMiddleOfAQuietRun) {
  const std::string path = scratchVolume();
  ProgramRunner program({"-i", "0.0001", path});
  program.writeLine("DEFRAG --quiet");
  const Lines lines = program.readUntil("DEFRAG,DONE");
  program.writeLine("QUIT");
  EXPECT_EQ(program.waitForExit(), 0);
  EXPECT_FALSE(progressLines(lines, "DEFRAG").empty());
  for (const std::string& line : lines) {
    EXPECT_LE(std::ranges::count(line, ','), 2) << line;
  }
}

TEST_F(Output, SignalsThatWereIgnoredOrBlockedAtTheStartAreHeardAllTheSame) {
  for (const int number : {SIGINT, SIGQUIT, SIGTERM}) {
    ProgramSetup setup;
    setup.arguments = {volume};
    setup.ignoredSignals = {SIGINT, SIGQUIT, SIGTERM, SIGHUP};
    setup.blockedSignals = {number};
    ProgramRunner program(setup);
    program.writeLine("x");
    EXPECT_EQ(program.readUntil("ERROR,x is not a recognized command.").size(), 2U);
    program.sendSignal(number);
    EXPECT_EQ(program.waitForExit(), 0);
  }
}

TEST_F(Output, HangUpsAreIgnoredHoweverMany) {
  ProgramRunner program({volume});
  program.writeLine("x");
  program.readUntil("ERROR,x is not a recognized command.");
  for (int count = 0; count < 100; ++count) {
    program.sendSignal(SIGHUP);
  }
  program.writeLine("FRAGINFO");
  EXPECT_EQ(program.readUntil("FRAGINFO,DONE").size(), 3U);
  program.writeLine("QUIT");
  EXPECT_EQ(program.waitForExit(), 0);
}
