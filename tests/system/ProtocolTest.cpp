#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <iterator>
#include <thread>

#include "system/ProtocolSuite.hpp"

namespace {

using namespace std::chrono_literals;

/// Long enough for the program to have said what it had to say.
constexpr auto kSilence = 300ms;

class ProtocolTest : public ProtocolSuite {};

bool contains(const Lines& lines, std::string_view line) {
  return std::ranges::find(lines, line) != lines.end();
}

}  // namespace

TEST_F(ProtocolTest, WithoutRootTheProgramSaysNothingAndExitsWith13) {
  if (::geteuid() != 0) {
    GTEST_SKIP() << "only root can become nobody";
  }
  ProgramSetup setup;
  setup.arguments = {volume};
  setup.user = ProgramSetup::User::Nobody;
  ProgramRunner program(setup);
  EXPECT_EQ(program.readAll(), Lines{});
  EXPECT_EQ(program.waitForExit(), 13);
  EXPECT_EQ(program.diagnostics(), "");
}

TEST_F(ProtocolTest, TheCommandLineIsAnsweredAsItDeserves) {
  const auto errorOf = [](Lines arguments) { return transcript(std::move(arguments), ""); };
  EXPECT_EQ(errorOf({"--help"}), Lines{});
  EXPECT_EQ(errorOf({"-h", "nonsense"}), Lines{});
  EXPECT_EQ(errorOf({}), Lines{"ERROR,No device specified."});
  EXPECT_EQ(errorOf({"-L"}), Lines{"ERROR,No device specified."});
  EXPECT_EQ(errorOf({volume, "-i"}), Lines{"ERROR,Option -i requires an argument."});
  EXPECT_EQ(errorOf({"-i", "0", volume}),
            Lines{"ERROR,Option -i requires a positive time interval."});
  EXPECT_EQ(errorOf({"--interval", "abc"}),
            Lines{"ERROR,Option --interval requires a positive time interval."});
  EXPECT_EQ(errorOf({"-s"}), Lines{"ERROR,Option -s requires an argument."});
  EXPECT_EQ(errorOf({"-s", "a,b"}), Lines{"ERROR,Strings file a\\,b is invalid."});
  for (const char* device : {"/nowhere", "/dev/null", "/", ""}) {
    const Lines lines = errorOf({device});
    ASSERT_EQ(lines.size(), 1U) << device;
    EXPECT_TRUE(lines.front().starts_with("ERROR,")) << lines.front();
  }
}

TEST_F(ProtocolTest, AnHFSXVolumeIsTakenOnlyWhenItIsAskedFor) {
  for (const bool binaryNames : {false, true}) {
    support::VolumeDescription description;
    description.hfsx = true;
    description.binaryNames = binaryNames;
    description.root().addFile("Name", support::fork(100));
    const std::string path = folder / "hfsx.hfs";
    support::buildVolume(description, path);
    EXPECT_EQ(transcript({path}, "SCAN\n"), Lines{"ERROR,HFSX version 5 is not supported."});
    for (const char* option : {"-x", "--hfsx"}) {
      const Lines lines = transcript({option, path}, "MAP -p /nAME\n");
      ASSERT_EQ(lines.size(), 4u);
      EXPECT_EQ(lines[0], "READY");
      EXPECT_EQ(lines[1], "MAP,START");
      EXPECT_TRUE(lines[2].starts_with(binaryNames ? "MAP,ERROR,Lookup failed for path /nAME."
                                                   : "MAP,FILE,2,16,/Name,"))
          << lines[2];
      EXPECT_EQ(lines[3], "MAP,DONE");
    }
  }
}

TEST_F(ProtocolTest, QuitAsAnOptionChecksTheDeviceOnly) {
  EXPECT_EQ(transcript({"-q", "-L", volume}, "SCAN\n"), Lines{});
  EXPECT_EQ(transcript({"--quit", writeFile("empty", std::string(1 << 20, '\0'))}, ""),
            Lines{"ERROR,Unsupported volume format."});
}

TEST_F(ProtocolTest, ReadyLeavesWithTheFirstLineThatIsFlushed) {
  ProgramRunner program({volume});
  EXPECT_EQ(program.readLine(kSilence), std::nullopt);
  program.writeLine("nothing");
  EXPECT_EQ(program.readLine(), "READY");
  EXPECT_EQ(program.readLine(), "ERROR,nothing is not a recognized command.");
  program.writeLine("QUIT");
  EXPECT_EQ(program.waitForExit(), 0);
}

TEST_F(ProtocolTest, ReadyLeavesAtTheEndAtTheLatest) {
  EXPECT_EQ(transcript({volume}, ""), Lines{"READY"});
}

TEST_F(ProtocolTest, CommandsAreAnsweredOneAfterTheOther) {
  const Lines lines = transcript({volume},
                                 "FRAGINFO\nbitmap 4\n\n  \t\nfoo\n Scan --frag-only\n"
                                 "QUIT\nSCAN\n");
  Lines frames;
  std::ranges::copy_if(lines, std::back_inserter(frames), [](const std::string& line) {
    return line.ends_with(",START") || line.ends_with(",DONE") || line.find("ERROR") != line.npos;
  });
  EXPECT_EQ(frames, (Lines{"FRAGINFO,START", "FRAGINFO,DONE", "BITMAP,START", "BITMAP,DONE",
                           "ERROR,foo is not a recognized command.", "SCAN,START", "SCAN,DONE"}));
  EXPECT_EQ(lines.front(), "READY");
}

TEST_F(ProtocolTest, HowTheInputArrivesMakesNoDifference) {
  const std::string input = "FRAGINFO\nfoo\xFF\nb\xC3\xA4r\nMAP -i 2\n";
  const Lines expected = transcript({volume}, input);
  ProgramRunner program({volume});
  for (const char byte : input) {
    program.write(std::string(1, byte));
    std::this_thread::sleep_for(1ms);
  }
  program.closeInput();
  EXPECT_EQ(program.readAll(), expected);
  EXPECT_EQ(program.waitForExit(), 0);
}

TEST_F(ProtocolTest, ALastLineWithoutNewlineIsNoCommand) {
  EXPECT_EQ(transcript({volume}, "foo\nSCAN"),
            (Lines{"READY", "ERROR,foo is not a recognized command."}));
}

TEST_F(ProtocolTest, ALineMayBeVeryLong) {
  const std::string word(3 << 20, 'x');
  ProgramRunner program({volume});
  std::jthread writer([&] {
    program.write(word);
    program.write(" y\n");
  });
  EXPECT_EQ(program.readLine(), "READY");
  const auto answer = program.readLine();
  EXPECT_TRUE(answer == "ERROR," + word + " is not a recognized command.");
  writer.join();
  program.closeInput();
  EXPECT_EQ(program.waitForExit(), 0);
}

TEST_F(ProtocolTest, InputMayBeAFileNothingOrMissing) {
  ProgramSetup setup;
  setup.arguments = {volume};
  setup.input = ProgramSetup::Input::File;
  setup.inputFile = writeFile("input", "FRAGINFO\nfoo\n");
  ProgramRunner fromFile(setup);
  const Lines lines = fromFile.readAll();
  EXPECT_EQ(fromFile.waitForExit(), 0);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back(), "ERROR,foo is not a recognized command.");
  EXPECT_TRUE(contains(lines, "FRAGINFO,DONE"));
  for (const auto input : {ProgramSetup::Input::Nothing, ProgramSetup::Input::Closed}) {
    setup.input = input;
    ProgramRunner program(setup);
    EXPECT_EQ(program.readAll(), Lines{"READY"});
    EXPECT_EQ(program.waitForExit(), 0);
  }
}

TEST_F(ProtocolTest, AHangUpIsIgnoredAndTheOtherSignalsEndTheTool) {
  for (const int number : {SIGINT, SIGQUIT, SIGTERM}) {
    ProgramRunner program({volume});
    program.writeLine("FRAGINFO");
    EXPECT_EQ(program.readUntil("FRAGINFO,DONE").back(), "FRAGINFO,DONE");
    program.sendSignal(SIGHUP);
    program.writeLine("foo");
    EXPECT_EQ(program.readLine(), "ERROR,foo is not a recognized command.");
    program.sendSignal(number);
    EXPECT_EQ(program.waitForExit(), 0);
    EXPECT_EQ(program.readAll(), Lines{});
  }
}

TEST_F(ProtocolTest, QuitEndsARewritingTaskFirst) {
  const std::string path = scratchVolume();
  ProgramRunner program({path});
  program.write("DEFRAG\nQUIT\nSCAN\n");
  const Lines lines = program.readAll();
  EXPECT_EQ(program.waitForExit(), 0);
  ASSERT_GE(lines.size(), 3U);
  EXPECT_EQ(lines[0], "READY");
  EXPECT_EQ(lines[1], "DEFRAG,START");
  EXPECT_EQ(lines.back(), "DEFRAG,DONE");
  EXPECT_FALSE(contains(lines, "SCAN,START"));
  expectIntact(path);
}

TEST_F(ProtocolTest, SignalsInTheMiddleOfARunEndItWithTheVolumeIntact) {
  const std::string path = scratchVolume();
  ProgramRunner program({"-i", "0.001", path});
  program.writeLine("COMPACT");
  EXPECT_EQ(program.readUntil("COMPACT,START").back(), "COMPACT,START");
  EXPECT_TRUE(program.readLine().has_value());
  for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGTERM}) {
    program.sendSignal(number);
  }
  const Lines lines = program.readAll();
  EXPECT_EQ(program.waitForExit(), 0);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back(), "COMPACT,DONE");
  EXPECT_EQ(std::ranges::count(lines, "COMPACT,DONE"), 1);
  expectIntact(path);
}

TEST_F(ProtocolTest, AFrontEndThatGoesAwayKillsNoRun) {
  const std::string path = scratchVolume();
  ProgramRunner program({"-i", "0.001", path});
  program.writeLine("DEFRAG");
  EXPECT_EQ(program.readUntil("DEFRAG,START").back(), "DEFRAG,START");
  program.closeOutput();
  std::this_thread::sleep_for(kSilence);
  EXPECT_TRUE(program.isRunning());
  program.closeInput();
  EXPECT_EQ(program.waitForExit(), 0);
  expectIntact(path);
}

TEST_F(ProtocolTest, WithoutStandardOutputNothingIsWrittenToTheVolume) {
  const std::string path = scratchVolume();
  ProgramSetup setup;
  setup.arguments = {path};
  setup.output = ProgramSetup::Output::Closed;
  setup.environment = {{"LWDebugLevel", "debug_more"}};
  ProgramRunner program(setup);
  program.write("FRAGINFO\nfoo\nSCAN\nQUIT\n");
  EXPECT_EQ(program.waitForExit(), 0);
  expectIntact(path);
}

TEST_F(ProtocolTest, TheStringsFileTranslatesWhatFollowsIt) {
  const std::string strings = writeFile(
      "strings.plist",
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict>"
      "<key>%1$@ is not a recognized command.</key><string>Unbekannt: %1$@, %1$@ %2$@%n</string>"
      "<key>No device specified.</key><string>Kein Ger\xC3\xA4t.</string></dict></plist>");
  EXPECT_EQ(transcript({"-s", strings, volume}, "foo\n"),
            (Lines{"READY", "ERROR,Unbekannt: foo\\, foo %n"}));
  EXPECT_EQ(transcript({"--strings", strings}, ""), Lines{"ERROR,Kein Ger\xC3\xA4t."});
}

TEST_F(ProtocolTest, TheDebugLogTellsHowLongATaskTook) {
  ProgramSetup setup;
  setup.arguments = {volume};
  setup.environment = {{"LWDebugLevel", "DEBUG"}};
  ProgramRunner program(setup);
  program.write("FRAGINFO\nQUIT\n");
  program.readAll();
  EXPECT_EQ(program.waitForExit(), 0);
  const std::string log = program.diagnostics();
  const size_t line = log.find("FRAGINFO,DEBUG,Elapsed time ");
  ASSERT_NE(line, std::string::npos) << log;
  EXPECT_NE(log.find("s\n", line), std::string::npos);
}

TEST_F(ProtocolTest, AHundredRewritingCommandsTakeTheirTurnsAndQuitEndsThemAll) {
  const std::string path = scratchVolume();
  std::string input;
  for (int count = 0; count < 50; ++count) {
    input += "DEFRAG\nCOMPACT\n";
  }
  ProgramRunner program({path});
  program.write(input + "QUIT\n");
  const Lines lines = program.readAll();
  EXPECT_EQ(program.waitForExit(), 0);
  EXPECT_EQ(std::ranges::count(lines, "DEFRAG,DONE"), 50);
  EXPECT_EQ(std::ranges::count(lines, "COMPACT,DONE"), 50);
  expectIntact(path);
}

TEST_F(ProtocolTest, ARunWithoutMemoryForItsBufferEndsWithItsMessage) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "sanitizers take all the address space there is";
#endif
  const std::string path = scratchVolume();
  ProgramRunner program({path});
  program.writeLine("MAP -i 2");
  EXPECT_EQ(program.readUntil("MAP,DONE").size(), 4U);
  // Enough for a thread and its stack, not for the buffer that moves the blocks.
  const rlim_t used = std::stoull(program.processStatus("VmSize")) << 10;
  const rlimit limit = {used + (24U << 20), RLIM_INFINITY};
  ASSERT_EQ(::prlimit(program.processID(), RLIMIT_AS, &limit, nullptr), 0);
  program.writeLine("DEFRAG");
  EXPECT_EQ(program.readUntil("DEFRAG,DONE"),
            (Lines{"DEFRAG,START", "DEFRAG,ERROR,Out of memory.", "DEFRAG,DONE"}));
  program.writeLine("QUIT");
  EXPECT_EQ(program.waitForExit(), 0);
  expectIntact(path);
}
