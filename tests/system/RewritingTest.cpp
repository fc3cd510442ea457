// The built program rewrites volumes in files and on loop devices; Debian's readers and the checker
// then have to find every byte where it was. XRDEFRAG_SYSTEM_SEEDS=n asks for n random volumes,
// XRDEFRAG_REAL_VOLUMES=folder for volumes that nobody here made, XRDEFRAG_KILLS=n for n kills.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <thread>

#include "support/OutsideReaders.hpp"
#include "support/RandomVolume.hpp"
#include "support/SeededRandom.hpp"
#include "support/VolumeBuilder.hpp"
#include "support/VolumeChecker.hpp"
#include "support/VolumePresets.hpp"
#include "support/doubles/LoopDevice.hpp"
#include "support/doubles/TestRandom.hpp"
#include "system/ProgramRunner.hpp"
#include "system/RewritingFixture.hpp"

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;
using volumecheck::CheckResult;

class Rewriting : public RewritingFixture {
 protected:
  enum class Judges { CheckerAlone, OutsidersToo };

  /// Holds a volume against what was read of it before.
  static void expectNothingLost(const fs::path& volume, const CheckResult& before,
                                Judges judges = Judges::OutsidersToo) {
    const CheckResult after = volumecheck::checkVolumeFile(volume);
    ASSERT_TRUE(after.readable) << after.report();
    EXPECT_EQ(joined(compareVolumes(before.truth, after.truth)), "");
    EXPECT_LE(after.findings.size(), before.findings.size()) << after.report();
    if (judges == Judges::CheckerAlone) {
      return;
    }
    outsidereaders::AgreeOptions options;
    options.askPartclone = false;
    EXPECT_EQ(joined(outsideReadersAgree(volume, after.truth, options)), "");
  }

  /// Rewrites copies of a volume both ways.
  void rewriteBothWays(const fs::path& volume) {
    const CheckResult before = volumecheck::checkVolumeFile(volume);
    for (const char* command : {"DEFRAG -q", "COMPACT"}) {
      SCOPED_TRACE(command);
      const fs::path copy = path("copy.hfs");
      fs::copy_file(volume, copy, fs::copy_options::overwrite_existing);
      const Lines lines = run(copy, command);
      EXPECT_FALSE(lines.empty());
      expectNothingLost(copy, before);
      if (command[0] == 'D' && joined(lines).find("ERROR") == std::string::npos) {
        const Lines info = run(copy, "FRAGINFO");
        ASSERT_GE(info.size(), 3U);
        _lastFragInfo = info[info.size() - 2];
      }
    }
  }

  std::string _lastFragInfo;
};

TEST_F(Rewriting, OutsideReadersFindEveryByteOfRandomVolumes) {
  const uint64_t first = numberFromEnvironment("XRDEFRAG_TEST_SEED", 1000);
  const uint64_t count = numberFromEnvironment("XRDEFRAG_SYSTEM_SEEDS", 30);
  constexpr uint32_t kFills[] = {5, 30, 55, 75, 88, 95, 98};
  for (uint64_t seed = first; seed < first + count; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    support::RandomVolumeOptions options;
    options.mostBytes = 8 << 20;
    options.mostFiles = 60;
    options.fillPercent = kFills[seed % std::size(kFills)];
    options.hfsx = seed % 4 == 3;
    _options = options.hfsx ? Lines{seed % 8 == 3 ? "-x" : "--hfsx"} : Lines{};
    if (support::tryBuildVolume(support::randomVolume(seed, options), path("volume.hfs"))) {
      rewriteBothWays(path("volume.hfs"));
    }
    ASSERT_FALSE(HasFailure());
  }
}

TEST_F(Rewriting, OutsideReadersFindEveryByteOfRealVolumes) {
  const char* folder = std::getenv("XRDEFRAG_REAL_VOLUMES");
  if (folder == nullptr) {
    GTEST_SKIP() << "XRDEFRAG_REAL_VOLUMES names no folder of volumes.";
  }
  for (const auto& entry : fs::directory_iterator(folder)) {
    if (entry.path().extension() == ".hfs") {
      SCOPED_TRACE(entry.path());
      rewriteBothWays(entry.path());
      EXPECT_TRUE(_lastFragInfo.starts_with("FRAGINFO,0,")) << _lastFragInfo;
    }
  }
}

TEST_F(Rewriting, ALoopDeviceIsRewrittenLikeAFile) {
  support::RandomVolumeOptions options;
  options.fillPercent = 60;
  const fs::path volume = path("volume.hfs");
  support::buildVolume(support::randomVolume(7, options), volume);
  const CheckResult before = volumecheck::checkVolumeFile(volume);
  {
    const doubles::LoopDevice loop(volume);
    if (!loop.works()) {
      GTEST_SKIP() << "There are no loop devices to be had.";
    }
    EXPECT_EQ(run(loop.path(), "DEFRAG -q").back(), "DEFRAG,DONE");
    EXPECT_EQ(run(loop.path(), "COMPACT -q").back(), "COMPACT,DONE");
  }
  expectNothingLost(volume, before);
}

std::string bytesOf(const fs::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

/// Starts a run on a device and kills the program at some moment of it.
void killDuringRun(const std::string& device, const char* command, std::chrono::microseconds when) {
  ProgramRunner program({device});
  program.writeLine(command);
  program.readLine();
  std::this_thread::sleep_for(when);
  program.sendSignal(SIGKILL);
  program.waitForExit();
}

/// Starts the program and ends it, which is all that an interrupted volume needs.
void startAgain(const std::string& device) {
  ProgramRunner again({device, "-q"});
  EXPECT_EQ(again.readAll(), std::vector<std::string>());
  EXPECT_EQ(again.waitForExit(), 0);
}

TEST_F(Rewriting, AKilledRunIsBroughtToAnEndByStartingAgain) {
  support::RandomVolumeOptions options;
  options.mostBytes = 24 << 20;
  options.fillPercent = 80;
  const fs::path original = path("original.hfs");
  support::buildVolume(support::randomVolume(11, options), original);
  const CheckResult before = volumecheck::checkVolumeFile(original);
  support::SeededRandom random(numberFromEnvironment("XRDEFRAG_TEST_SEED", 1));
  const fs::path volume = path("volume.hfs");
  int interrupted = 0;
  int onLoopDevices = 0;
  uint64_t latest = 120'000;  // microseconds
  for (uint64_t kill = 0; kill < numberFromEnvironment("XRDEFRAG_KILLS", 24); ++kill) {
    SCOPED_TRACE("kill " + std::to_string(kill));
    fs::copy_file(original, volume, fs::copy_options::overwrite_existing);
    const char* command = kill % 2 == 0 ? "DEFRAG" : "COMPACT";
    const std::chrono::microseconds when(random.between(0, latest));
    std::optional<doubles::LoopDevice> loop;
    if (kill % 4 >= 2) {
      loop.emplace(volume);
    }
    const bool isOnLoop = loop && loop->works();
    const std::string device = isOnLoop ? loop->path() : volume.string();
    onLoopDevices += isOnLoop ? 1 : 0;
    killDuringRun(device, command, when);
    interrupted += volumecheck::checkVolumeFile(volume).findings.size() > before.findings.size();
    latest += interrupted == 0 ? latest / 4 : 0;  // runs are slower on this machine
    startAgain(device);
    loop.reset();
    expectNothingLost(volume, before, kill % 5 == 0 ? Judges::OutsidersToo : Judges::CheckerAlone);
    ASSERT_FALSE(HasFailure());
  }
  EXPECT_GT(interrupted, 0);
  RecordProperty("killed in mid-run", interrupted);
  RecordProperty("on loop devices", onLoopDevices);
}

// How soon a run ends is held against its work elsewhere; this is what the whole program takes, on
// however busy a machine.
TEST_F(Rewriting, ACancelledRunEndsWithinSecondsAndLosesNothing) {
  constexpr std::chrono::seconds kLongest(15);
  const fs::path original = path("original.hfs");
  support::PlainVolume plain;
  plain.size = 64 << 20;
  plain.fillPercent = 70;
  plain.files = 400;
  plain.fragments = 9;
  support::buildVolume(support::plainVolume(plain), original);
  const CheckResult before = volumecheck::checkVolumeFile(original);
  const fs::path volume = path("volume.hfs");
  int inMidRun = 0;
  for (const char* ending : {"QUIT", "SIGTERM", "end of input"}) {
    for (const char* command : {"DEFRAG", "COMPACT"}) {
      SCOPED_TRACE(std::string(command) + " ended by " + ending);
      fs::copy_file(original, volume, fs::copy_options::overwrite_existing);
      ProgramRunner program({volume});
      program.writeLine(command);
      program.readLine();
      while (program.readLine().value_or(",PROGRESS,").find(",PROGRESS,") == std::string::npos) {
      }
      const auto start = std::chrono::steady_clock::now();
      if (ending == std::string_view("QUIT")) {
        program.writeLine("QUIT");
      } else if (ending == std::string_view("SIGTERM")) {
        program.sendSignal(SIGTERM);
      } else {
        program.closeInput();
      }
      const Lines lines = program.readAll();
      EXPECT_EQ(program.waitForExit(), 0);
      EXPECT_LT(std::chrono::steady_clock::now() - start, kLongest);
      EXPECT_EQ(lines.back(), std::string(command) + ",DONE");
      expectNothingLost(volume, before, Judges::CheckerAlone);
      // What was left to be done takes more lines than what is done already.
      const size_t rest = run(volume, command).size();
      inMidRun += rest > run(volume, command).size() ? 1 : 0;
    }
  }
  EXPECT_GT(inMidRun, 0);
}

// Who may not write sees the volume that the interrupted run leaves once it is brought to an end.
TEST_F(Rewriting, ReportsOnAReadOnlyDeviceShowTheRecoveredVolume) {
  support::RandomVolumeOptions options;
  options.mostBytes = 24 << 20;
  options.fillPercent = 80;
  const fs::path original = path("original.hfs");
  support::buildVolume(support::randomVolume(11, options), original);
  const fs::path interrupted = path("interrupted.hfs");
  support::SeededRandom random(numberFromEnvironment("XRDEFRAG_TEST_SEED", 2));
  const size_t findingsBefore = volumecheck::checkVolumeFile(original).findings.size();
  // How long a run takes depends on the machine: one of later and later kills comes in its midst.
  constexpr uint64_t kLatestKill = 10'000'000;  // microseconds
  uint64_t latest = 40'000;
  do {
    fs::copy_file(original, interrupted, fs::copy_options::overwrite_existing);
    killDuringRun(interrupted, "DEFRAG", std::chrono::microseconds(random.between(5'000, latest)));
    latest = std::min(latest + latest / 4, kLatestKill);
  } while (volumecheck::checkVolumeFile(interrupted).findings.size() == findingsBefore);

  const fs::path recovered = path("recovered.hfs");
  const fs::path untouched = path("untouched.hfs");
  fs::copy_file(interrupted, recovered);
  fs::copy_file(interrupted, untouched);
  startAgain(recovered);
  const doubles::LoopDevice loop(interrupted, true);
  if (!loop.works()) {
    GTEST_SKIP() << "There are no loop devices to be had.";
  }
  for (const char* command : {"FRAGINFO", "SCAN -f", "MAP -i 4", "BITMAP 8"}) {
    EXPECT_EQ(run(loop.path(), command), run(recovered, command)) << command;
  }
  EXPECT_TRUE(joined(run(loop.path(), "DEFRAG")).contains("DEFRAG,ERROR,Volume is read-only.\n"));
  EXPECT_EQ(bytesOf(interrupted), bytesOf(untouched));
}

}  // namespace
