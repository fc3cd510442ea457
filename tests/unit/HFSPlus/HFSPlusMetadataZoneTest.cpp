#include "HFSPlus/HFSPlusMetadataZone.hpp"

#include <gtest/gtest.h>

namespace {

constexpr uint64_t kGiB = uint64_t{1} << 30;

HFSPlusVolumeHeader headerOf(uint64_t volumeBytes, uint32_t blockSize, bool journaled = true) {
  HFSPlusVolumeHeader header{};
  header.attributes = journaled ? kHFSVolumeJournaledMask : 0;
  header.blockSize = blockSize;
  header.totalBlocks = static_cast<uint32_t>(volumeBytes / blockSize);
  return header;
}

}  // namespace

TEST(HFSPlusMetadataZone, SmallOrUnjournaledVolumesHaveNone) {
  EXPECT_EQ(HFSPlusMetadataBlockCount(headerOf(10 * kGiB - 4096, 4096)), 0U);
  EXPECT_EQ(HFSPlusMetadataBlockCount(headerOf(100 * kGiB, 4096, false)), 0U);
  EXPECT_EQ(HFSPlusMetadataZoneOf(headerOf(kGiB, 4096)).startBlock, 0U);
}

struct ZoneCase {
  uint64_t volumeBytes;
  uint32_t blockSize;
  uint32_t count;
};

class HFSPlusMetadataZoneTable : public testing::TestWithParam<ZoneCase> {};

TEST_P(HFSPlusMetadataZoneTable, HasTheCountThatTheSumsGive) {
  const ZoneCase& zone = GetParam();
  const HFSPlusVolumeHeader header = headerOf(zone.volumeBytes, zone.blockSize);
  EXPECT_EQ(HFSPlusMetadataBlockCount(header), zone.count);
  EXPECT_EQ(HFSPlusMetadataZoneOf(header).startBlock, 1U);
  EXPECT_EQ(HFSPlusMetadataZoneOf(header).endBlock, zone.count - 1);
}

INSTANTIATE_TEST_SUITE_P(
    Volumes, HFSPlusMetadataZoneTable,
    testing::Values(ZoneCase{.volumeBytes = 10737418240, .blockSize = 4096, .count = 65536},
                    ZoneCase{.volumeBytes = 10737418240, .blockSize = 512, .count = 339968},
                    ZoneCase{.volumeBytes = 10737418240, .blockSize = 1024, .count = 172032},
                    ZoneCase{.volumeBytes = 17179869184, .blockSize = 2048, .count = 131072},
                    ZoneCase{.volumeBytes = 10737418240, .blockSize = 65536, .count = 524288},
                    ZoneCase{.volumeBytes = 107374178304, .blockSize = 4096, .count = 393216},
                    ZoneCase{.volumeBytes = 107374182400, .blockSize = 4096, .count = 393216},
                    ZoneCase{.volumeBytes = 429496729600, .blockSize = 4096, .count = 425984},
                    ZoneCase{.volumeBytes = 268435456000, .blockSize = 8192, .count = 262144},
                    ZoneCase{.volumeBytes = 536870912000, .blockSize = 4096, .count = 425984},
                    ZoneCase{.volumeBytes = 2199023255552, .blockSize = 4096, .count = 491520},
                    ZoneCase{.volumeBytes = 2199023255552, .blockSize = 65536, .count = 524288},
                    ZoneCase{.volumeBytes = 17592186044416, .blockSize = 16384, .count = 262144}));

TEST(HFSPlusMetadataZone, GiantBlocksDoNotOverflow) {
  HFSPlusVolumeHeader header = headerOf(0, 512);
  header.blockSize = uint32_t{1} << 31;
  header.totalBlocks = UINT32_MAX;
  EXPECT_EQ(HFSPlusMetadataBlockCount(header), UINT32_MAX);
}
