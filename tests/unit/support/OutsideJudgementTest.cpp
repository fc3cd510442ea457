#include <gtest/gtest.h>
#include <unistd.h>

#include "support/OutsideReaders.hpp"
#include "support/RandomVolume.hpp"
#include "support/VolumeBuilder.hpp"
#include "support/VolumeChecker.hpp"
#include "support/VolumePresets.hpp"

using namespace support;

namespace {

// Builds the volume in a file and asks every outside reader about every name and byte in it.
std::string contradictions(const VolumeDescription& description) {
  std::string path = testing::TempDir() + "judgedXXXXXX";
  const int file = mkstemp(path.data());
  if (file >= 0)
    ::close(file);
  buildVolume(description, path);
  outsidereaders::AgreeOptions options;
  options.icatSample = 4;
  options.askPartclone = false;
  std::string lines;
  const volumecheck::CheckResult checked = volumecheck::checkVolumeFile(path);
  for (const std::string& line : outsidereaders::outsideReadersAgree(path, checked.truth, options))
    lines += line + "\n";
  std::filesystem::remove(path);
  return lines;
}

}  // namespace

TEST(OutsideJudgement, TheDemoVolumeIsRead) {
  EXPECT_EQ(contradictions(demoVolume(1)), "");
}

TEST(OutsideJudgement, NamesOfEveryKindAreRead) {
  EXPECT_EQ(contradictions(namesVolume(1)), "");
}

TEST(OutsideJudgement, SpecialFilesInPiecesAreRead) {
  PlainVolume options;
  options.files = 20;
  VolumeDescription description = plainVolume(options);
  description.catalog.fragments = 11;
  description.catalog.totalNodes = 32;
  description.attributesTree.fragments = 5;
  description.extentsTree.fragments = 4;
  description.startup = fork(90000, 3);
  EXPECT_EQ(contradictions(description), "");
}

TEST(OutsideJudgement, RandomVolumesAreRead) {
  RandomVolumeOptions options;
  options.mostBytes = 3 << 20;
  options.mostFiles = 60;
  for (uint64_t seed = 1; seed <= 20; ++seed) {
    options.hfsx = seed % 4 == 3;
    EXPECT_EQ(contradictions(randomVolume(seed, options)), "") << "seed " << seed;
  }
}
