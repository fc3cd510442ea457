// Rewriting runs that are disturbed at random moments: by reports, by words that mean nothing, by a
// second rewriting command, by a reader who pauses or leaves, and in the end by QUIT, a signal, the
// end of the input, or several of these at once. Whatever happens, the protocol must be well formed
// and the volume clean. XRDEFRAG_DISTURBED_RUNS=n asks for n of them, XRDEFRAG_TEST_SEED=n for
// others.

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <map>
#include <memory>
#include <regex>
#include <thread>

#include "support/SeededRandom.hpp"
#include "support/doubles/TestRandom.hpp"
#include "system/ProtocolSuite.hpp"

namespace {

using support::SeededRandom;

/// What a line of each kind looks like, commas in free text being escaped.
const std::regex& lineShape() {
  static const std::string number = "[0-9]+";
  static const std::string text = R"((?:[^,\\]|\\,|\\\\|\\xC0\\x80)*)";
  static const std::string file =
      number + "," + number + "," + text + "(?:,-?[0-9]+){3}(?:,[0-9A-F]{8}){2}(?:,[0-9]+,[0-9]+)*";
  static const std::regex shape(
      "READY|ERROR," + text + "|(?:SCAN|FRAGINFO|MAP|BITMAP|DEFRAG|COMPACT),(?:START|DONE)" +
          "|(?:SCAN|MAP),FILE," + file + "|MAP,DIR," + number + "," + number + "," + text +
          "|(?:SCAN|FRAGINFO|MAP|BITMAP|DEFRAG|COMPACT),ERROR," + text +
          "|(?:SCAN|DEFRAG|COMPACT),PROGRESS," + number +
          "|FRAGINFO,[0-9]+,[0-9]+,[0-9]+|(?:DEFRAG|COMPACT),PROGRESS(?:,[0-9]+){5}" +
          "|BITMAP,(?:LENGTH|FIRSTUNUSEDBLOCK|LASTUSEDBLOCK),[0-9]+|BITMAP,DATA,(?:[0-9A-F]{2})+",
      std::regex::optimize);
  return shape;
}

/// The first thing wrong with all that a program printed; empty if nothing is.
std::string firstFault(const Lines& lines) {
  if (lines.empty() || lines.front() != "READY") {
    return "READY does not come first";
  }
  std::map<std::string, int> running;
  for (const std::string& line : lines) {
    if (!std::regex_match(line, lineShape())) {
      return "no line of ours: " + line;
    }
    const std::string name = line.substr(0, line.find(','));
    const bool ofTask = name != "READY" && name != "ERROR";
    if (line.ends_with(",START")) {
      ++running[name];
    } else if (ofTask && running[name] == 0) {
      return "outside its task: " + line;
    } else if (line.ends_with(",DONE")) {
      --running[name];
    }
    if (running["SCAN"] + running["FRAGINFO"] + running["MAP"] + running["BITMAP"] > 1) {
      return "a report within a report: " + line;
    }
  }
  for (const auto& [name, count] : running) {
    if (count != 0) {
      return name + " has no DONE";
    }
  }
  return "";
}

/// The same for output that its reader may have stopped reading anywhere.
bool isBeginningOfAnswers(const Lines& lines) {
  return std::ranges::all_of(
      lines, [](const std::string& line) { return std::regex_match(line, lineShape()); });
}

/// One program, its run, and everything that happens to it.
class DisturbedRun {
 public:
  DisturbedRun(const std::string& path, uint64_t seed)
      : _random(seed), _program(setup(path, _random)) {}

  void play() {
    _program.writeLine(rewritingCommand());
    // A signal that comes before the program has begun kills it, as it would any other.
    _lines.push_back(_program.readLine().value_or(""));
    const uint64_t disturbances = _random.below(12);
    for (uint64_t count = 0; count < disturbances && !_gone; ++count) {
      pause();
      disturb();
    }
    pause();
    end();
  }

  void expectAnOrderlyEnd() {
    const Lines lines = _program.readAll();
    _lines.insert(_lines.end(), lines.begin(), lines.end());
    EXPECT_EQ(_program.waitForExit(), 0);
    EXPECT_EQ(_program.diagnostics(), "");
    if (_gone) {
      EXPECT_TRUE(isBeginningOfAnswers(_lines));
    } else {
      EXPECT_EQ(firstFault(_lines), "");
    }
  }

 private:
  static ProgramSetup setup(const std::string& path, SeededRandom& random) {
    constexpr std::array kIntervals = {"0.000001", "0.001", "0.01", "1"};
    ProgramSetup setup;
    setup.arguments = {"-i", kIntervals[random.below(kIntervals.size())], path};
    setup.output =
        random.chance(20) ? ProgramSetup::Output::PipeThatDoesNotWait : ProgramSetup::Output::Pipe;
    setup.outputPipeBytes = random.chance(30) ? 4096 : 0;
    return setup;
  }

  std::string rewritingCommand() {
    constexpr std::array kCommands = {"DEFRAG", "COMPACT", "defrag -q", "Compact --quiet",
                                      "DEFRAG --profile app,boot"};
    return kCommands[_random.below(kCommands.size())];
  }

  std::string reportingCommand() {
    constexpr std::array kCommands = {"SCAN",
                                      "scan -f",
                                      "SCAN --frag-only",
                                      "FRAGINFO",
                                      "MAP -i 2",
                                      "MAP -p /a",
                                      "MAP --cnid 0",
                                      "BITMAP 1",
                                      "MAP",
                                      "BITMAP -m 100",
                                      "FRAGINFO x",
                                      "SCAN x",
                                      "",
                                      "nonsense",
                                      "a,b\\c"};
    return kCommands[_random.below(kCommands.size())];
  }

  void pause() {
    const uint64_t most =
        std::array{uint64_t{0}, uint64_t{300}, uint64_t{3000}, uint64_t{20000}}[_random.below(4)];
    std::this_thread::sleep_for(std::chrono::microseconds(_random.below(most + 1)));
  }

  void disturb() {
    const uint64_t what = _random.below(100);
    if (what < 45) {
      _program.writeLine(reportingCommand());
    } else if (what < 60) {
      _program.writeLine(rewritingCommand());
    } else if (what < 80) {
      readALittle();
    } else if (what < 97) {
      _program.sendSignal(SIGHUP);
    } else {
      _program.closeOutput();
      _gone = true;
    }
  }

  void readALittle() {
    while (auto line = _program.readLine(std::chrono::milliseconds(1))) {
      _lines.push_back(*std::move(line));
      if (_random.chance(2)) {
        return;
      }
    }
  }

  /// Ends the program in one way, or in several one after the other.
  void end() {
    constexpr std::array kSignals = {SIGTERM, SIGINT, SIGQUIT};
    do {
      switch (_random.below(4)) {
        case 0:
          _program.writeLine("quit");
          break;
        case 1:
          _program.sendSignal(kSignals[_random.below(kSignals.size())]);
          break;
        case 2:
          // The rest of the input is still answered, then it ends.
          _program.writeLine(reportingCommand());
          break;
        default:
          break;
      }
    } while (_random.chance(40));
    _program.closeInput();
  }

  SeededRandom _random;
  ProgramRunner _program;
  Lines _lines;
  bool _gone = false;
};

class DisturbedRuns : public ProtocolSuite {};

}  // namespace

TEST_F(DisturbedRuns, AreWellFormedAndLeaveTheVolumeClean) {
  constexpr uint64_t kRunsPerVolume = 20;
  const uint64_t first = numberFromEnvironment("XRDEFRAG_TEST_SEED", 1);
  const uint64_t runs = numberFromEnvironment("XRDEFRAG_DISTURBED_RUNS", 60);
  const fs::path original = folder / "original.hfs";
  const std::string path = folder / "disturbed.hfs";
  volumecheck::CheckResult before;
  for (uint64_t run = 0; run < runs; ++run) {
    const uint64_t seed = first * 1'000'000 + run;
    SCOPED_TRACE("seed " + std::to_string(first) + ", run " + std::to_string(run));
    if (run % kRunsPerVolume == 0) {
      SeededRandom random(seed);
      support::PlainVolume options;
      options.seed = seed;
      options.blockSize = 512U << random.below(4);
      options.fillPercent = static_cast<uint32_t>(random.between(30, 95));
      options.files = static_cast<uint32_t>(random.between(20, 200));
      options.fragments = static_cast<uint32_t>(random.between(2, 12));
      options.fileSize = random.between(10'000, 40'000);
      support::buildVolume(support::plainVolume(options), original);
      before = volumecheck::checkVolumeFile(original);
    }
    fs::copy_file(original, path, fs::copy_options::overwrite_existing);
    {
      DisturbedRun disturbed(path, seed);
      disturbed.play();
      disturbed.expectAnOrderlyEnd();
    }
    const auto after = volumecheck::checkVolumeFile(path);
    EXPECT_TRUE(after.findings.empty()) << after.report();
    EXPECT_EQ(volumecheck::compareVolumes(before.truth, after.truth), Lines{});
    ASSERT_FALSE(HasFailure());
  }
}

TEST(TheShapeOfAnswers, FaultsAreFound) {
  EXPECT_EQ(firstFault({"READY", "MAP,START", "MAP,DIR,1,2,", "MAP,DONE"}), "");
  EXPECT_NE(firstFault({}), "");
  EXPECT_NE(firstFault({"MAP,START", "MAP,DONE"}), "");
  EXPECT_NE(firstFault({"READY", "MAP,START"}), "");
  EXPECT_NE(firstFault({"READY", "MAP,START", "MAP,DONE", "MAP,DIR,1,2,"}), "");
  EXPECT_NE(firstFault({"READY", "DEFRAG,START", "DEFRAG,DONE", "DEFRAG,PROGRESS,5"}), "");
  EXPECT_NE(firstFault({"READY", "MAP,START", "SCAN,START", "MAP,DONE", "SCAN,DONE"}), "");
  EXPECT_NE(firstFault({"READY", "MAP,STAMAP,START", "MAP,DONE"}), "");
  EXPECT_NE(firstFault({"READY", "BITMAP,START", "BITMAP,DATA,FFF", "BITMAP,DONE"}), "");
}
