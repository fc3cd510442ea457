#include "HFSPlus/HFSPlusRecordPlace.hpp"

#include <gtest/gtest.h>

#include <random>

#include "HFSPlus/HFSPlusByteOrder.hpp"
#include "support/doubles/MemoryDevice.hpp"

namespace {

using Bytes = std::vector<std::byte>;

constexpr uint32_t kBlockSize = 512;
constexpr HFSPlusVolumePlace kPlace{.startOffset = 1024, .sizeBytes = 256 * kBlockSize};

Bytes randomBytes(size_t size) {
  std::mt19937 random(static_cast<uint32_t>(size));
  Bytes bytes(size);
  for (std::byte& byte : bytes) {
    byte = static_cast<std::byte>(random());
  }
  return bytes;
}

class RecordPlace : public testing::Test {
 protected:
  std::optional<Bytes> read(HFSPlusExtentDescriptor first, uint64_t bytes) {
    auto result = HFSPlusRecordPlace::read(_device, kPlace, kBlockSize, first, bytes);
    EXPECT_TRUE(result);
    return result ? *result : std::nullopt;
  }
  void link(uint32_t block, HFSPlusExtentDescriptor next) {
    Bytes bytes(8);
    writeBigEndian(bytes.data(), uint32_t{next.startBlock});
    writeBigEndian(bytes.data() + 4, uint32_t{next.blockCount});
    ASSERT_TRUE(_device.write(bytes, kPlace.startOffset + uint64_t{block} * kBlockSize));
  }

  std::shared_ptr<doubles::MemoryDevice> _memory =
      std::make_shared<doubles::MemoryDevice>(kPlace.startOffset + kPlace.sizeBytes + 512);
  XRDefragVolume _device{"/nowhere/volume", _memory, false, true};
};

TEST_F(RecordPlace, ARunIsNoLongerThanTheRecordNeedsWithItsLink) {
  for (const auto& [bytes, blocks] : {std::pair{1, 1}, {504, 1}, {505, 2}, {1016, 2}, {1017, 3}}) {
    HFSPlusRecordPlace place(static_cast<uint64_t>(bytes), kBlockSize);
    EXPECT_EQ(place.blocksInOneRun(), static_cast<uint64_t>(blocks));
    EXPECT_TRUE(place.add(10, 100));
    EXPECT_EQ(place.runs(),
              (std::vector<HFSPlusExtentDescriptor>{{10, static_cast<uint32_t>(blocks)}}));
  }
}

TEST_F(RecordPlace, TakesRunsUntilTheRecordFits) {
  HFSPlusRecordPlace place(504 + 1016 + 1, kBlockSize);
  EXPECT_FALSE(place.add(40, 1));
  EXPECT_FALSE(place.add(7, 2));
  EXPECT_TRUE(place.add(90, 6));
  EXPECT_TRUE(place.add(120, 6));
  EXPECT_EQ(place.runs(), (std::vector<HFSPlusExtentDescriptor>{{40, 1}, {7, 2}, {90, 1}}));
  EXPECT_TRUE(place.touches(8 * kBlockSize, 1));
  EXPECT_TRUE(place.touches(90 * kBlockSize - 1, 2));
  EXPECT_FALSE(place.touches(91 * kBlockSize, 100));
  EXPECT_FALSE(place.touches(41 * kBlockSize, 49 * kBlockSize));
}

TEST_F(RecordPlace, ARecordComesBackFromHoweverManyRuns) {
  for (const size_t size : {size_t{1}, size_t{504}, size_t{505}, size_t{5000}, size_t{20000}}) {
    for (const uint32_t longest : {1U, 3U, 100U}) {
      const Bytes record = randomBytes(size);
      HFSPlusRecordPlace place(size, kBlockSize);
      uint32_t block = 200;
      for (uint32_t i = 0; !place.add(block, i % longest + 1); ++i) {
        block -= (i + 1) % longest + 2;
      }
      ASSERT_TRUE(place.write(_device, kPlace, record));
      EXPECT_EQ(read(place.runs().front(), size), record);
    }
  }
}

TEST_F(RecordPlace, ARecordOfSeveralTransfersComesBack) {
  constexpr uint32_t kLargeBlock = 4096;
  constexpr HFSPlusVolumePlace kLargePlace{.startOffset = 1024, .sizeBytes = 1024 * kLargeBlock};
  XRDefragVolume device(
      "/nowhere/volume",
      std::make_shared<doubles::MemoryDevice>(kLargePlace.startOffset + kLargePlace.sizeBytes),
      false, true);
  const Bytes record = randomBytes((size_t{5} << 19) + 77);
  HFSPlusRecordPlace place(record.size(), kLargeBlock);
  ASSERT_FALSE(place.add(700, 257));
  ASSERT_TRUE(place.add(3, 600));
  ASSERT_TRUE(place.write(device, kLargePlace, record));
  const auto read = HFSPlusRecordPlace::read(device, kLargePlace, kLargeBlock, place.runs().front(),
                                             record.size());
  ASSERT_TRUE(read && *read);
  EXPECT_TRUE(**read == record);
}

TEST_F(RecordPlace, NothingBesideItsRunsIsWritten) {
  HFSPlusRecordPlace place(900, kBlockSize);
  place.add(5, 1);
  place.add(3, 1);
  const Bytes record = randomBytes(900);
  ASSERT_TRUE(place.write(_device, kPlace, record));
  const Bytes all = _memory->image();
  for (size_t i = 0; i < all.size(); ++i) {
    const size_t block = i < kPlace.startOffset ? 0 : (i - kPlace.startOffset) / kBlockSize;
    ASSERT_TRUE(all[i] == std::byte{0} || block == 5 || block == 3) << i;
  }
}

TEST_F(RecordPlace, LinksThatLeadNowhereOrOutsideGiveNoRecord) {
  EXPECT_EQ(read({10, 0}, 100), std::nullopt);
  EXPECT_EQ(read({255, 2}, 100), std::nullopt);
  EXPECT_EQ(read({256, 1}, 100), std::nullopt);
  EXPECT_EQ(read({~uint32_t{0}, ~uint32_t{0}}, 100), std::nullopt);
  EXPECT_EQ(read({0, 200}, kPlace.sizeBytes + 1), std::nullopt);
  EXPECT_EQ(read({10, 1}, 505), std::nullopt) << "the link is zero";
  link(10, {250, 7});
  EXPECT_EQ(read({10, 1}, 505), std::nullopt);
}

TEST_F(RecordPlace, LinksInACircleComeToAnEnd) {
  link(10, {20, 1});
  link(20, {10, 1});
  const auto record = read({10, 1}, 50000);
  ASSERT_TRUE(record);
  EXPECT_EQ(record->size(), 50000U);
}

}  // namespace
