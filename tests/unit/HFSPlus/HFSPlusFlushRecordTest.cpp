#include "HFSPlus/HFSPlusFlushRecord.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "HFSPlus/HFSPlusByteOrder.hpp"
#include "HFSPlus/HFSPlusRunLocator.hpp"
#include "LWKit/LWChecksum.hpp"

namespace {

using Bytes = std::vector<std::byte>;

constexpr uint64_t kVolumeBytes = 1 << 20;
constexpr HFSPlusRunIdentity kIdentity{.runID = 0x1122334455667788,
                                       .signature = kHFSPlusSigWord,
                                       .version = kHFSPlusVersion,
                                       .createDate = 77,
                                       .blockSize = 4096,
                                       .totalBlocks = 256,
                                       .writeCount = 5};
constexpr uint32_t kSequence = 9;

class FlushRecord : public testing::Test {
 protected:
  FlushRecord() {
    _plan.add(8192, _first, HFSPlusFlushPlan::Kind::SpecialFile);
    _plan.add(1024, _second, HFSPlusFlushPlan::Kind::Header);
    _plan.add(kVolumeBytes - 100, _last, HFSPlusFlushPlan::Kind::SpecialFile);
    _plan.sort();
  }

  Bytes onDisk() const { return HFSPlusFlushRecord::toDisk(_plan, kIdentity, kSequence); }

  static std::optional<HFSPlusFlushRecord> read(const Bytes& bytes) {
    return HFSPlusFlushRecord::fromDisk(bytes, kIdentity, kSequence, kVolumeBytes);
  }

  /// Makes the checksum fit whatever the record has become.
  static void seal(Bytes& bytes) {
    writeBigEndian(&bytes[56], uint64_t{0});
    writeBigEndian(&bytes[56], LWChecksum::of(bytes));
  }

  Bytes _first = Bytes(4096, std::byte{1});
  Bytes _second = Bytes(512, std::byte{2});
  Bytes _last = Bytes(100, std::byte{3});
  HFSPlusFlushPlan _plan;
};

TEST_F(FlushRecord, GivesBackItsRangesInOrder) {
  const Bytes disk = onDisk();
  const auto record = read(disk);
  ASSERT_TRUE(record);
  ASSERT_EQ(record->ranges().size(), 3U);
  EXPECT_EQ(record->ranges()[0].offset, 1024U);
  EXPECT_TRUE(std::ranges::equal(record->ranges()[0].bytes, _second));
  EXPECT_EQ(record->ranges()[1].offset, 8192U);
  EXPECT_TRUE(std::ranges::equal(record->ranges()[1].bytes, _first));
  EXPECT_TRUE(std::ranges::equal(record->ranges()[2].bytes, _last));
}

TEST_F(FlushRecord, IsNotTakenForWholeWithAnyBitChanged) {
  std::mt19937 random(1);
  for (int i = 0; i < 500; ++i) {
    Bytes bytes = onDisk();
    bytes[random() % bytes.size()] ^= std::byte{1} << (random() % 8);
    EXPECT_FALSE(read(bytes));
  }
}

TEST_F(FlushRecord, BelongsToOneVolumeRunAndFlush) {
  for (const auto change : {+[](HFSPlusRunIdentity& id) { ++id.runID; },
                            +[](HFSPlusRunIdentity& id) { ++id.signature; },
                            +[](HFSPlusRunIdentity& id) { ++id.version; },
                            +[](HFSPlusRunIdentity& id) { ++id.createDate; },
                            +[](HFSPlusRunIdentity& id) { id.blockSize *= 2; },
                            +[](HFSPlusRunIdentity& id) { ++id.totalBlocks; },
                            +[](HFSPlusRunIdentity& id) { ++id.writeCount; }}) {
    HFSPlusRunIdentity identity = kIdentity;
    change(identity);
    EXPECT_FALSE(HFSPlusFlushRecord::fromDisk(onDisk(), identity, kSequence, kVolumeBytes));
  }
  EXPECT_FALSE(HFSPlusFlushRecord::fromDisk(onDisk(), kIdentity, kSequence + 1, kVolumeBytes));
}

TEST_F(FlushRecord, MustNotReachOutsideTheVolumeOrOverlapItself) {
  EXPECT_FALSE(HFSPlusFlushRecord::fromDisk(onDisk(), kIdentity, kSequence, kVolumeBytes - 1));
  const size_t kSecondRange = HFSPlusFlushRecord::kHeaderBytes + HFSPlusFlushRecord::kRangeBytes;
  for (const uint64_t offset : {uint64_t{0}, uint64_t{1500}, ~uint64_t{0} - 100}) {
    Bytes bytes = onDisk();
    writeBigEndian(&bytes[kSecondRange], offset);
    seal(bytes);
    EXPECT_FALSE(read(bytes)) << offset;
  }
  for (const uint64_t length : {uint64_t{1} << 40, ~uint64_t{0}}) {
    Bytes bytes = onDisk();
    writeBigEndian(&bytes[kSecondRange + 8], length);
    seal(bytes);
    EXPECT_FALSE(read(bytes)) << length;
  }
  Bytes bytes = onDisk();
  writeBigEndian(&bytes[44], ~uint32_t{0});
  seal(bytes);
  EXPECT_FALSE(read(bytes)) << "a range count beyond the record";
}

TEST_F(FlushRecord, ZerosTakeAnEighth) {
  const size_t before = onDisk().size();
  const Bytes zeros(kVolumeBytes / 2);
  _plan.add(16384, zeros, HFSPlusFlushPlan::Kind::SpecialFile);
  _plan.sort();
  const Bytes disk = onDisk();
  EXPECT_LT(disk.size(), before + zeros.size() / 8 + 100);
  const auto record = read(disk);
  ASSERT_TRUE(record);
  EXPECT_TRUE(std::ranges::equal(record->ranges()[2].bytes, zeros));
}

TEST_F(FlushRecord, IsNotTakenWhenItsBytesDoNotAddUp) {
  Bytes longer = onDisk();
  longer.resize(longer.size() + 1);
  writeBigEndian(&longer[48], uint64_t{longer.size()});
  seal(longer);
  EXPECT_FALSE(read(longer));
  Bytes shorter = onDisk();
  shorter.pop_back();
  writeBigEndian(&shorter[48], uint64_t{shorter.size()});
  seal(shorter);
  EXPECT_FALSE(read(shorter));
}

TEST_F(FlushRecord, HoldsNoMoreThanMayBeHeldInMemory) {
  HFSPlusFlushPlan plan;
  plan.add(0, {}, HFSPlusFlushPlan::Kind::SpecialFile);
  Bytes bytes = HFSPlusFlushRecord::toDisk(plan, kIdentity, kSequence);
  writeBigEndian(&bytes[HFSPlusFlushRecord::kHeaderBytes + 8], HFSPlusFlushRecord::kBytesMax + 1);
  bytes.resize(bytes.size() + HFSPlusFlushRecord::kBytesMax / 8 + 1);  // zeros for all of it
  writeBigEndian(&bytes[48], uint64_t{bytes.size()});
  seal(bytes);
  EXPECT_FALSE(HFSPlusFlushRecord::fromDisk(bytes, kIdentity, kSequence, ~uint64_t{0}));
}

TEST_F(FlushRecord, CutOffRecordsAreNotWhole) {
  const Bytes whole = onDisk();
  for (size_t size = 0; size < whole.size(); size += 100) {
    EXPECT_FALSE(read(Bytes(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size))));
  }
}

TEST_F(FlushRecord, OverlayIsWhatWritingTheRangesWouldGive) {
  const auto record = read(onDisk());
  ASSERT_TRUE(record);
  Bytes volume(kVolumeBytes, std::byte{9});
  for (const auto& range : record->ranges()) {
    std::ranges::copy(range.bytes, volume.begin() + static_cast<ptrdiff_t>(range.offset));
  }
  std::mt19937 random(2);
  for (int i = 0; i < 500; ++i) {
    const size_t offset = random() % (i % 2 == 0 ? 20000 : kVolumeBytes);
    const size_t size = std::min<size_t>(random() % 10000, kVolumeBytes - offset);
    Bytes bytes(size, std::byte{9});
    record->overlay(bytes, offset);
    EXPECT_TRUE(std::ranges::equal(bytes, std::span(volume).subspan(offset, size)))
        << offset << " + " << size;
  }
}

TEST(HFSPlusRunLocator, ComesBackFromDiskUnlessAByteChanged) {
  const HFSPlusRunLocator locator{.runID = 1,
                                  .sequence = 2,
                                  .recordBlock = 3,
                                  .runBlocks = 4,
                                  .recordBytes = 9,
                                  .headerBefore = 5,
                                  .headerAfter = 6,
                                  .attributes = 7,
                                  .writeCount = 8};
  auto disk = locator.toDisk();
  EXPECT_EQ(HFSPlusRunLocator::fromDisk(disk), locator);
  for (std::byte& byte : disk) {
    byte ^= std::byte{0x10};
    EXPECT_FALSE(HFSPlusRunLocator::fromDisk(disk));
    byte ^= std::byte{0x10};
  }
  EXPECT_FALSE(HFSPlusRunLocator::fromDisk(std::array<std::byte, HFSPlusRunLocator::kBytes>{}));
}

}  // namespace
