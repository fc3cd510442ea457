// How the program takes its input apart: lines in any pieces, of any length, of any bytes.

#include <algorithm>
#include <chrono>
#include <thread>

#include "system/ProtocolSuite.hpp"

namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;

class Input : public ProtocolSuite {};

std::string unknown(const std::string& word) {
  return "ERROR," + word + " is not a recognized command.";
}

}  // namespace

TEST_F(Input, ACommandIsTheFirstWordWithoutRegardToCase) {
  EXPECT_EQ(transcript({volume}, "  fragInfo   x\n\tFRAGINFO\tx \n"),
            (Lines{"READY", "FRAGINFO,START", "FRAGINFO,ERROR,Unknown option: x", "FRAGINFO,DONE",
                   "FRAGINFO,START", "FRAGINFO,ERROR,Unknown option: x", "FRAGINFO,DONE"}));
}

TEST_F(Input, AnUnknownCommandIsNamedAsItWasTyped) {
  EXPECT_EQ(
      transcript({volume}, "  sCaNs --frag-only\na,b\\c d\nSCAN,x\n--help\nr\xC3\xA9sum\xC3\xA9\n"),
      (Lines{"READY", unknown("sCaNs"), unknown("a\\,b\\\\c"), unknown("SCAN\\,x"),
             unknown("--help"), unknown("r\xC3\xA9sum\xC3\xA9")}));
}

TEST_F(Input, LinesWithoutAWordSayNothing) {
  EXPECT_EQ(transcript({volume}, "\n  \n\t\t \n\nx\n\n"), (Lines{"READY", unknown("x")}));
}

TEST_F(Input, ACarriageReturnBelongsToItsLine) {
  EXPECT_EQ(transcript({volume}, "QUIT\r\n\r\n"),
            (Lines{"READY", unknown("QUIT\r"), unknown("\r")}));
}

TEST_F(Input, ANulBelongsToItsWordAndIsEscaped) {
  EXPECT_EQ(transcript({volume}, "SCAN\0\n\0\nMAP a\0b\n"s),
            (Lines{"READY", unknown("SCAN\\xC0\\x80"), unknown("\\xC0\\x80"), "MAP,START",
                   "MAP,ERROR,Unknown option: a\\xC0\\x80b", "MAP,DONE"}));
}

TEST_F(Input, ALineThatIsNotUTF8IsLikeAnEmptyOne) {
  EXPECT_EQ(
      transcript({volume},
                 "SCAN \xFF\nQUIT \xC3\n\xC0\x80\n\xED\xA0\x80\n\xF4\x90\x80\x80\nSCAN\x80\nx\n"),
      (Lines{"READY", unknown("x")}));
}

TEST_F(Input, ALastLineWithoutItsNewlineIsNoCommand) {
  EXPECT_EQ(transcript({volume}, "x\nQUIT"), (Lines{"READY", unknown("x")}));
  EXPECT_EQ(transcript({volume}, "x"), Lines{"READY"});
}

TEST_F(Input, LinesOfEveryLengthAroundTheSizeOfARead) {
  std::string input;
  Lines expected = {"READY"};
  for (const size_t length : {1, 4094, 4095, 4096, 4097, 8191, 8192, 8193, 1, 12288}) {
    const std::string word(length, 'x');
    input += word + "\n";
    expected.push_back(unknown(word));
  }
  EXPECT_TRUE(transcript({volume}, input) == expected);
}

TEST_F(Input, HowTheBytesArriveMakesNoDifference) {
  const std::string input = "x\n\n  y z\nMAP --cnid 2\nb\xC3\xA4r\n\xFF\nBITMAP\n";
  const Lines expected = transcript({volume}, input);
  EXPECT_EQ(expected.size(), 10U);
  for (const size_t piece : {1, 2, 3, 7}) {
    ProgramRunner program({volume});
    for (size_t at = 0; at < input.size(); at += piece) {
      program.write(input.substr(at, piece));
      std::this_thread::sleep_for(1ms);
    }
    program.closeInput();
    EXPECT_EQ(program.readAll(), expected);
    EXPECT_EQ(program.waitForExit(), 0);
  }
}

TEST_F(Input, NothingAfterQuitIsAnswered) {
  EXPECT_EQ(transcript({volume}, "x\nquit now\ny\nSCAN\n"), (Lines{"READY", unknown("x")}));
}

TEST_F(Input, AReportIsFinishedBeforeTheNextLineIsHeeded) {
  const Lines alone = transcript({volume}, "SCAN\n");
  ASSERT_GT(alone.size(), 100U);
  EXPECT_EQ(alone[1], "SCAN,START");
  EXPECT_EQ(alone.back(), "SCAN,DONE");
  EXPECT_EQ(transcript({volume}, "SCAN\nQUIT\n"), alone);
  Lines twice = alone;
  twice.insert(twice.end(), alone.begin() + 1, alone.end());
  EXPECT_EQ(transcript({volume}, "SCAN\nscan\n"), twice);
}

TEST_F(Input, TheEndOfTheInputEndsABackgroundTaskAndWaitsForItsLastLine) {
  const std::string path = scratchVolume();
  const Lines lines = transcript({path}, "DEFRAG -q\n");
  ASSERT_GE(lines.size(), 3U);
  EXPECT_EQ(lines[1], "DEFRAG,START");
  EXPECT_EQ(lines.back(), "DEFRAG,DONE");
  expectIntact(path);
}

TEST_F(Input, AnotherCommandMayComeWhileABackgroundTaskRuns) {
  const std::string path = scratchVolume();
  ProgramRunner program({path});
  program.write("COMPACT\nMAP -i 2\nx\n");
  Lines lines = program.readUntil(unknown("x"));
  EXPECT_EQ(lines.back(), unknown("x"));
  EXPECT_NE(std::ranges::find(lines, "MAP,DONE"), lines.end());
  program.closeInput();
  const Lines rest = program.readAll();
  EXPECT_EQ(program.waitForExit(), 0);
  lines.insert(lines.end(), rest.begin(), rest.end());
  EXPECT_EQ(std::ranges::count(lines, "COMPACT,DONE"), 1);
  expectIntact(path);
}

TEST_F(Input, ATerminalIsAsGoodAsAPipe) {
  ProgramSetup setup;
  setup.arguments = {volume};
  setup.input = ProgramSetup::Input::Terminal;
  ProgramRunner program(setup);
  EXPECT_EQ(program.readLine(), "READY");
  program.write("MAP\n");
  EXPECT_EQ(program.readUntil("MAP,DONE"),
            (Lines{"MAP,START", "MAP,ERROR,No options specified.", "MAP,DONE"}));
  program.write("\x04");  // the terminal's end of file
  EXPECT_EQ(program.waitForExit(), 0);
}
