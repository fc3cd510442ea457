#include "support/VolumeChecker.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>

#include "support/VolumeBuilder.hpp"
#include "support/VolumeSurgeon.hpp"
#include "unit/support/SampleVolumes.hpp"

using namespace volumecheck;

namespace {

std::vector<std::uint8_t> bytesOf(const support::BuiltVolume& built) {
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(built.image.data());
  return {bytes, bytes + built.image.size()};
}

class TemporaryFile {
 public:
  TemporaryFile() : _path(testing::TempDir() + "volume-checker-" + std::to_string(::getpid())) {}
  ~TemporaryFile() { std::filesystem::remove(_path); }
  const std::string& path() const { return _path; }

 private:
  std::string _path;
};

TEST(VolumeChecker, FindsNothingOnVolumesOfOtherSystems) {
  const std::vector<std::string> paths = realVolumes();
  if (paths.empty()) {
    GTEST_SKIP() << "XRDEFRAG_REAL_VOLUMES names no directory with volumes";
  }
  for (const std::string& path : paths) {
    const CheckResult result = checkVolumeFile(path);
    EXPECT_TRUE(result.readable) << path;
    // Records that have outlived a shortened fork are common in the wild and harmless.
    EXPECT_TRUE(result.findingsExcept({FindingKind::OverflowBeyondTotal}).empty())
        << path << ":\n"
        << result.report();
  }
}

TEST(VolumeChecker, ReadsAFileAndItsBytesInMemoryAlike) {
  const TemporaryFile file;
  const std::vector<std::uint8_t> bytes = sampleVolume();
  std::ofstream(file.path(), std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
  const CheckResult fromFile = checkVolumeFile(file.path());
  const CheckResult fromBytes = checkVolumeBytes(bytes);
  EXPECT_TRUE(fromFile.findings.empty()) << fromFile.report();
  EXPECT_EQ(compareVolumes(fromFile.truth, fromBytes.truth), std::vector<std::string>{});
  ASSERT_EQ(fromFile.truth.forks.size(), fromBytes.truth.forks.size());
  for (std::size_t i = 0; i < fromFile.truth.forks.size(); ++i) {
    EXPECT_EQ(fromFile.truth.forks[i].extents, fromBytes.truth.forks[i].extents);
    EXPECT_TRUE(fromFile.truth.forks[i].hashed);
    EXPECT_EQ(fromFile.truth.forks[i].hash, fromBytes.truth.forks[i].hash);
  }
}

TEST(VolumeChecker, SaysWhyAMissingFileCannotBeRead) {
  const CheckResult result = checkVolumeFile("/nowhere/at/all");
  EXPECT_FALSE(result.readable);
  EXPECT_TRUE(result.has(FindingKind::NotAVolume));
}

TEST(VolumeChecker, TellsEveryForkOfTheVolume) {
  const CheckResult result = checkVolumeBytes(sampleVolume());
  const VolumeTruth& truth = result.truth;
  const CatalogItem* item = truth.findItem("/pieces 1");
  ASSERT_NE(item, nullptr);
  const Fork* data = truth.findFork(item->cnid, ForkType::Data);
  const Fork* resource = truth.findFork(item->cnid, ForkType::Resource);
  ASSERT_NE(data, nullptr);
  ASSERT_NE(resource, nullptr);
  EXPECT_EQ(data->path, "/pieces 1");
  EXPECT_EQ(data->totalBlocks, 60u);
  EXPECT_EQ(data->extents.size(), 60u);
  EXPECT_EQ(data->overflowRecords, 7u);  // 52 extents beyond the first eight
  EXPECT_GE(data->overflowLeafNodes, 2u);
  EXPECT_EQ(resource->extents.size(), 12u);
  EXPECT_EQ(truth.badBlocks, (std::vector<Extent>{{3000, 2}, {3010, 1}}));
  EXPECT_TRUE(truth.journal.present);
  EXPECT_TRUE(truth.journal.empty);
  EXPECT_EQ(truth.clearBits, truth.header.freeBlocks);
  const CatalogItem* link = truth.findItem("/folder/link b");
  ASSERT_NE(link, nullptr);
  EXPECT_EQ(link->linkTarget, truth.findItem("/link a")->linkTarget);
  const Fork* attribute = truth.findFork(truth.findItem("/tagged")->cnid, ForkType::Attribute);
  ASSERT_NE(attribute, nullptr);
  EXPECT_EQ(attribute->attributeName, "large");
  EXPECT_EQ(attribute->extents.size(), 20u);
}

TEST(VolumeChecker, FindsAVolumeInsideAWrapper) {
  support::VolumeDescription description;
  description.wrapper = true;
  description.root().addFile("file", support::fork(100000, 12));
  const std::vector<std::uint8_t> bytes = bytesOf(support::buildVolume(description));
  const CheckResult result = checkVolumeBytes(bytes);
  EXPECT_TRUE(result.findings.empty()) << result.report();
  EXPECT_GT(result.truth.volumeOffset, 0u);
  EXPECT_LT(result.truth.volumeSize, bytes.size());
}

TEST(VolumeChecker, OrdersNamesByTheirUnitsOnlyOnVolumesThatAskForIt) {
  for (const bool binary : {false, true}) {
    support::VolumeDescription description;
    description.hfsx = true;
    description.binaryNames = binary;
    for (const char* name : {"a", "B", "c", "D", "e", "F"}) {
      description.root().addFile(name, support::fork(10));
    }
    const CheckResult result = checkVolumeBytes(bytesOf(support::buildVolume(description)));
    EXPECT_TRUE(result.findings.empty()) << result.report();
    EXPECT_TRUE(result.truth.hfsx);
    EXPECT_EQ(result.truth.caseSensitive, binary);
  }
}

TEST(VolumeChecker, TakesTheLastBlockForOwnedAlsoWhenTheAlternateHeaderLiesBehindIt) {
  support::VolumeDescription description;
  description.size = (6 << 20) + 1536;
  const CheckResult result = checkVolumeBytes(bytesOf(support::buildVolume(description)));
  EXPECT_TRUE(result.findings.empty()) << result.report();
  EXPECT_EQ(result.truth.header.totalBlocks, (6u << 20) / 4096);
}

TEST(VolumeChecker, SkipsHashesWhenToldTo) {
  CheckOptions options;
  options.hashForks = false;
  for (const Fork& fork : checkVolumeBytes(sampleVolume(), options).truth.forks) {
    EXPECT_FALSE(fork.hashed);
  }
}

TEST(VolumeChecker, ReadsAHugeSparseVolumeWithoutReadingItsHoles) {
  const TemporaryFile file;
  support::VolumeDescription description;
  description.size = std::uint64_t{2} << 40;
  support::ForkDescription huge = support::fork(std::uint64_t{1} << 40);
  huge.unwritten = true;
  description.root().addFile("huge", huge);
  description.root().addFile("small", support::fork(5000));
  support::buildVolume(description, file.path());
  const CheckResult result = checkVolumeFile(file.path());
  EXPECT_TRUE(result.findings.empty()) << result.report();
  const Fork* fork = result.truth.findFork(result.truth.findItem("/huge")->cnid, ForkType::Data);
  ASSERT_NE(fork, nullptr);
  EXPECT_TRUE(fork->hashed);
}

TEST(VolumeChecker, SurvivesAnyFlippedBytes) {
  const std::vector<std::uint8_t> sound = sampleVolume();
  const CheckResult reference = checkVolumeBytes(sound);
  // Where the rules live: both headers, the bitmap and the trees.
  std::vector<std::size_t> places;
  for (std::size_t i = 0; i < 512; ++i) {
    places.push_back(1024 + i);
  }
  for (const std::uint32_t cnid : {kExtentsFileID, kCatalogFileID, kAttributesFileID}) {
    for (const Extent& extent : reference.truth.findFork(cnid, ForkType::Data)->extents) {
      for (std::size_t i = 0; i < extent.blockCount * std::size_t{512}; ++i) {
        places.push_back(extent.startBlock * std::size_t{512} + i);
      }
    }
  }
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  for (int round = 0; round < 400; ++round) {
    std::vector<std::uint8_t> volume = sound;
    for (unsigned i = 0; i <= random() % 12; ++i) {
      const std::size_t at = places[random() % places.size()];
      volume[at] = random() % 3 == 0 ? 0xFF : static_cast<std::uint8_t>(random());
    }
    const CheckResult result = checkVolumeBytes(volume);
    EXPECT_TRUE(result.readable || !result.findings.empty());
  }
}

TEST(VolumeChecker, SurvivesAVolumeCutOffAnywhere) {
  const std::vector<std::uint8_t> sound = sampleVolume();
  for (std::size_t size = 0; size < sound.size(); size += 9973) {
    EXPECT_FALSE(checkVolumeBytes(Bytes(sound).first(size)).findings.empty());
  }
}

TEST(VolumeChecker, KeepsItsListOfFindingsShort) {
  VolumeSurgeon volume(sampleVolume());
  const Extent bitmap = volume.truth().findFork(kAllocationFileID, ForkType::Data)->extents[0];
  for (std::size_t i = 0; i < volume.truth().header.totalBlocks / 8; i += 1) {
    volume.bytes()[bitmap.startBlock * std::size_t{512} + i] ^= 0x55;
  }
  EXPECT_LT(volume.check().findings.size(), 300u);
}

TEST(CompareVolumes, TellsPlacementFromContent) {
  VolumeSurgeon volume(sampleVolume());
  const CheckResult before = volume.check();
  // Move the first piece of a file to a free block.
  const auto record = volume.catalogRecord("/four");
  const std::size_t extent = record.data + 88 + 16;
  const auto from = static_cast<std::uint32_t>(volume.get(extent, 4));
  const std::uint32_t to = volume.firstFreeBlock();
  std::copy_n(volume.bytes().begin() + from * 512, 512, volume.bytes().begin() + to * 512);
  volume.set(extent, 4, to);
  volume.setBitmap(from, false);
  volume.setBitmap(to, true);
  const CheckResult moved = volume.check();
  EXPECT_TRUE(moved.findings.empty()) << moved.report();
  EXPECT_EQ(compareVolumes(before.truth, moved.truth), std::vector<std::string>{});

  volume.bytes()[to * std::size_t{512} + 7] ^= 1;
  EXPECT_EQ(compareVolumes(before.truth, volume.check().truth).size(), 1u);
}

TEST(CompareVolumes, SeesEveryOtherChangeInTheCatalogAndTheHeader) {
  const std::vector<std::uint8_t> sound = sampleVolume();
  const CheckResult before = checkVolumeBytes(sound);
  const std::pair<const char*, void (*)(VolumeSurgeon&)> changes[] = {
      {"a date", [](VolumeSurgeon& v) { v.add(v.catalogRecord("/four").data + 12, 4, 1); }},
      {"a clump size", [](VolumeSurgeon& v) { v.add(v.catalogRecord("/four").data + 96, 4, 1); }},
      {"a name", [](VolumeSurgeon& v) { v.add(v.catalogRecord("/four").key + 8, 2, 1); }},
      {"an ID", [](VolumeSurgeon& v) { v.set(v.catalogRecord("/four").data + 8, 4, 4000); }},
      {"the clean mark", [](VolumeSurgeon& v) { v.addHeader(4, 4, -0x100); }},
      {"the next ID", [](VolumeSurgeon& v) { v.addHeader(64, 4, 1); }},
      {"an attribute", [](VolumeSurgeon& v) {
         const auto record = v.find(kAttributesFileID, 1, [](Bytes, Bytes) { return true; });
         v.add(record.data + 17, 1, 1);
       }}};
  for (const auto& [what, change] : changes) {
    VolumeSurgeon volume(sound);
    change(volume);
    EXPECT_FALSE(compareVolumes(before.truth, volume.check().truth).empty()) << what;
  }
}

TEST(CompareVolumes, IgnoresTheWriteCount) {
  VolumeSurgeon volume(sampleVolume());
  const CheckResult before = volume.check();
  volume.add(1024 + 68, 4, 1);
  EXPECT_EQ(compareVolumes(before.truth, volume.check().truth), std::vector<std::string>{});
}

}  // namespace
