#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/VolumeBuilder.hpp"
#include "support/VolumeChecker.hpp"
#include "support/VolumeGeometry.hpp"
#include "support/VolumePresets.hpp"

using namespace support;

namespace {

// A file that goes away with the test.
class TemporaryFile {
 public:
  TemporaryFile() {
    const int file = mkstemp(_path.data());
    if (file >= 0)
      ::close(file);
  }
  ~TemporaryFile() { std::filesystem::remove(_path); }
  const std::string& path() const { return _path; }

  uint64_t bytesOnDisk() const {
    struct stat status = {};
    return stat(_path.c_str(), &status) == 0 ? static_cast<uint64_t>(status.st_blocks) * 512 : 0;
  }

 private:
  std::string _path = testing::TempDir() + "volumeXXXXXX";
};

VolumeGeometry geometryOf(uint32_t blockSize, uint64_t size) {
  VolumeDescription description;
  description.blockSize = blockSize;
  return VolumeGeometry::of(description, size);
}

constexpr uint64_t kGiB = uint64_t{1} << 30;

}  // namespace

TEST(HugeVolume, SmallVolumesHaveNoMetadataZone) {
  EXPECT_EQ(geometryOf(4096, 10 * kGiB - 4096).metadataZoneBlocks(), 0u);
  EXPECT_GT(geometryOf(4096, 10 * kGiB).metadataZoneBlocks(), 0u);
}

TEST(HugeVolume, ATwoTebibyteVolumeKeepsItsSpecialFilesInTheZoneAndItsFilesBehind) {
  const TemporaryFile file;
  const BuiltVolume volume = buildVolume(zonedVolume(1, 2048 * kGiB), file.path());
  EXPECT_LT(file.bytesOnDisk(), 128u << 20);
  const uint32_t zone = geometryOf(4096, 2048 * kGiB).metadataZoneBlocks();
  size_t behind = 0;
  for (const BuiltFork& fork : volume.forks) {
    const bool special = fork.fileID < kFirstUserID;
    for (const BlockExtent& extent : fork.extents) {
      behind += extent.start >= zone;
      EXPECT_TRUE(!special || extent.start + extent.count <= zone) << fork.fileID;
      EXPECT_TRUE(extent.start >= zone || extent.start + extent.count <= zone) << fork.fileID;
    }
  }
  EXPECT_GT(behind, 300u);
  EXPECT_EQ(volumecheck::checkVolumeFile(file.path()).report(), "");
}

TEST(HugeVolume, AnEightTebibyteVolumeTakesLittleRoom) {
  const TemporaryFile file;
  const auto volume =
      tryBuildVolume(zonedVolume(1, 8192 * kGiB), std::filesystem::path(file.path()));
  ASSERT_TRUE(volume) << volume.error();
  EXPECT_EQ(volume->totalBlocks, uint32_t{1} << 31);
  EXPECT_LT(file.bytesOnDisk(), 128u << 20);
}
