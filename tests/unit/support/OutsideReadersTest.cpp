#include "support/OutsideReaders.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "support/VolumeBuilder.hpp"
#include "support/VolumeChecker.hpp"
#include "unit/support/SampleVolumes.hpp"

using namespace outsidereaders;
using volumecheck::CheckResult;
using volumecheck::checkVolumeFile;

namespace {

// The readers come from Debian packages that a build alone does not need.
class OutsideReaders : public testing::Test {
 protected:
  void SetUp() override {
    for (const char* program : {"fls", "7zz", "fshfsinfo", "partclone.hfsp"}) {
      if (runProgram({"which", program}).status != 0) {
        GTEST_SKIP() << program << " is not installed";
      }
    }
  }
  void TearDown() override { std::filesystem::remove(_path); }

  const std::string _path = testing::TempDir() + "outside-readers-" + std::to_string(::getpid());
};

std::string joined(const std::vector<std::string>& sentences) {
  std::string text;
  for (const std::string& sentence : sentences) {
    text += sentence + "\n";
  }
  return text;
}

TEST_F(OutsideReaders, AgreeWithTheCheckerOnVolumesOfOtherSystems) {
  if (realVolumes().empty()) {
    GTEST_SKIP() << "XRDEFRAG_REAL_VOLUMES names no directory with volumes";
  }
  for (const std::string& path : realVolumes()) {
    const CheckResult result = checkVolumeFile(path);
    EXPECT_EQ(joined(outsideReadersAgree(path, result.truth)), "") << path;
  }
}

TEST_F(OutsideReaders, AgreeWithTheCheckerOnABuiltVolume) {
  support::VolumeDescription description;
  auto& folder = description.root().addFolder("folder");
  for (int i = 0; i < 20; ++i) {
    folder.addFile("file " + std::to_string(i), support::fork(1000u * static_cast<unsigned>(i), 3),
                   support::fork(i % 3 == 0 ? 700 : 0));
  }
  description.root().addFile("overflowing", support::fork(100000, 20));
  description.root().addFile("a/b", support::fork(100));
  description.root().addHardLink("link", description.addInode(support::fork(5000)));
  support::buildVolume(description, _path);
  const CheckResult result = checkVolumeFile(_path);
  EXPECT_TRUE(result.findings.empty()) << result.report();
  for (const ReadMode mode : {ReadMode::Quick, ReadMode::EveryFork}) {
    AgreeOptions options;
    options.mode = mode;
    EXPECT_EQ(joined(outsideReadersAgree(_path, result.truth, options)), "");
  }
}

TEST_F(OutsideReaders, AgreeOnAVolumeInsideAWrapper) {
  support::VolumeDescription description;
  description.wrapper = true;
  description.root().addFile("file", support::fork(100000, 12), support::fork(600));
  support::buildVolume(description, _path);
  const CheckResult result = checkVolumeFile(_path);
  EXPECT_EQ(joined(outsideReadersAgree(_path, result.truth)), "");
}

TEST_F(OutsideReaders, AreNotAskedForWhatTheyCannotDo) {
  using support::VolumeDescription;
  const std::pair<const char*, void (*)(VolumeDescription&)> limits[] = {
      {"an attribute fork of many extents",
       [](VolumeDescription& v) {
         v.root().addFile("a", support::fork(9)).addForkAttribute("x", support::fork(90000, 12));
       }},
      {"spare blocks",
       [](VolumeDescription& v) { v.root().addFile("a", support::fork(9)).data.spareBlocks = 3; }},
      {"stray overflow records",
       [](VolumeDescription& v) { v.root().addFile("a", support::fork(9)).data.strayRecords = 1; }},
      {"overflow records in several leaves",
       [](VolumeDescription& v) {
         v.extentsTree.nodeSize = 512;
         v.root().addFile("a", support::fork(400000, 90), support::fork(50000, 10));
       }},
      {"nodes in two pieces",
       [](VolumeDescription& v) {
         v.blockSize = 1024;
         v.catalog.totalNodes = 20;
         v.catalog.fragments = 9;
         v.catalog.nodesMayStraddle = true;
       }},
      {"a bitmap of many extents",
       [](VolumeDescription& v) {
         v.blockSize = 512;
         v.size = 40 << 20;
         v.allocationFragments = 12;
       }},
      {"no attributes file", [](VolumeDescription& v) { v.hasAttributesFile = false; }},
      {"a bad block file in the catalog", [](VolumeDescription& v) {
         v.size = 8 << 20;
         v.addBadBlocks({{1000, 1}}, support::BadBlocksPlace::catalog);
       }}};
  for (const auto& [what, describe] : limits) {
    VolumeDescription description;
    describe(description);
    description.root().addFile("other", support::fork(20000, 3), support::fork(600));
    support::buildVolume(description, _path);
    const CheckResult result = checkVolumeFile(_path);
    EXPECT_TRUE(result.findingsExcept({volumecheck::FindingKind::OverflowBeyondTotal}).empty())
        << what << ":\n"
        << result.report();
    EXPECT_EQ(joined(outsideReadersAgree(_path, result.truth)), "") << what;
  }
}

TEST_F(OutsideReaders, ContradictAReadingThatIsWrong) {
  support::VolumeDescription description;
  description.root().addFile("file", support::fork(100000, 12), support::fork(600));
  support::buildVolume(description, _path);
  CheckResult result = checkVolumeFile(_path);
  for (volumecheck::Fork& fork : result.truth.forks) {
    if (fork.path == "/file") {
      fork.hash.low ^= 1;
      std::swap(fork.extents.front(), fork.extents.back());
    }
  }
  // Both forks by 7-Zip and by icat, the data fork by fls.
  AgreeOptions options;
  options.mode = ReadMode::EveryFork;
  EXPECT_EQ(outsideReadersAgree(_path, result.truth, options).size(), 5u)
      << joined(outsideReadersAgree(_path, result.truth, options));
  result.truth.header.fileCount += 1;
  result.truth.freeRuns.pop_back();
  EXPECT_EQ(outsideReadersAgree(_path, result.truth, options).size(), 7u);
}

TEST_F(OutsideReaders, TellTheBlocksOfAFork) {
  support::VolumeDescription description;
  auto& file = description.root().addFile("file", support::fork(5 * 4096, 3));
  const support::BuiltVolume built = support::buildVolume(description, _path);
  const auto blocks = istat(_path, file.id);
  ASSERT_TRUE(blocks.value) << blocks.whyNot;
  std::vector<std::uint32_t> expected;
  for (const auto& extent : built.fork(file.id, support::kDataFork)->extents) {
    for (std::uint32_t i = 0; i < extent.count; ++i) {
      expected.push_back(extent.start + i);
    }
  }
  EXPECT_EQ(blocks.value->data, expected);
  EXPECT_TRUE(blocks.value->resource.empty());
}

TEST_F(OutsideReaders, LetSevenZipTestAVolume) {
  support::VolumeDescription description;
  description.root().addFile("file", support::fork(5 * 4096, 3));
  support::buildVolume(description, _path);
  EXPECT_EQ(sevenZipTest(_path).value, true);
  std::filesystem::resize_file(_path, 4096);
  EXPECT_EQ(sevenZipTest(_path).value, false);
}

TEST_F(OutsideReaders, SayWhyTheyCannotRead) {
  const std::string missing = "/nowhere/at/all";
  EXPECT_NE(fls(missing).whyNot, "");
  EXPECT_NE(icat(missing, 16, ForkType::Data).whyNot, "");
  EXPECT_NE(istat(missing, 16).whyNot, "");
  EXPECT_NE(fsstat(missing).whyNot, "");
  EXPECT_NE(sevenZip(missing).whyNot, "");
  EXPECT_NE(fshfsinfo(missing).whyNot, "");
  EXPECT_NE(partclone(missing, 4096).whyNot, "");
}

TEST(RunProgram, TellsOutputErrorsAndStatusApart) {
  const ProcessResult result = runProgram({"sh", "-c", "echo out; echo err >&2; exit 3"});
  EXPECT_TRUE(result.started);
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.output, "out\n");
  EXPECT_EQ(result.errors, "err\n");
  EXPECT_FALSE(result.succeeded());
}

TEST(RunProgram, NoticesThatAProgramIsMissing) {
  EXPECT_FALSE(runProgram({"no-such-program-anywhere"}).started);
}

TEST(RunProgram, EndsAProgramThatTakesTooLong) {
  const ProcessResult result = runProgram({"sleep", "60"}, {}, 1);
  EXPECT_TRUE(result.timedOut);
}

}  // namespace
