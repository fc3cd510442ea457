#include "HFSPlus/HFSPlusFile.hpp"

#include <gtest/gtest.h>
#include <random>

#include "HFSPlus/HFSPlusCatalog.hpp"
#include "support/VolumeBuilder.hpp"
#include "support/doubles/TestRandom.hpp"
#include "support/doubles/TestVolume.hpp"

using doubles::messageOf;
using doubles::TestVolume;
using Call = doubles::RecordingDevice::Call;

namespace {

constexpr uint32_t kBlockSize = 4096;

/// A volume with one file, whose fork data the volume knows; the device remembers from then on.
struct Fixture {
  explicit Fixture(const support::ForkDescription& fork) : built(build(fork)), volume(built.image) {
    EXPECT_EQ(messageOf(volume.open()), "");
    fileID = built.items.front().id;
    const auto record = volume->catalog().copyRecordForCNID(fileID);
    EXPECT_TRUE(record && record->isFile());
    volume->cacheHostForkData(record->file().dataFork, fileID);
    file = std::make_unique<HFSPlusFile>(*volume, fileID);
    volume.recording->clear();
  }

  static support::BuiltVolume build(const support::ForkDescription& fork) {
    support::VolumeDescription description;
    description.blockSize = kBlockSize;
    description.size = 4 << 20;
    description.root().addFile("file", fork);
    return support::buildVolume(description);
  }

  std::vector<std::byte> expected(uint64_t offset, size_t size) const {
    std::vector<std::byte> bytes(size);
    built.readFork(*built.fork(fileID, 0), offset, bytes);
    return bytes;
  }

  std::vector<std::byte> read(uint64_t offset, size_t size) const {
    std::vector<std::byte> bytes(size);
    EXPECT_EQ(messageOf(file->read(bytes, offset)), "");
    return bytes;
  }

  support::BuiltVolume built;
  TestVolume volume;
  uint32_t fileID = 0;
  std::unique_ptr<HFSPlusFile> file;
};

const std::vector<support::BlockExtent> kTwoExtents = {{300, 2}, {400, 3}};

}  // namespace

TEST(HFSPlusFile, TheEndOfAForkIsReadAsAWholeBlock) {
  const Fixture fixture(support::forkAt({{300, 3}}, 2 * kBlockSize + 1000));
  EXPECT_EQ(fixture.read(2 * kBlockSize + 990, 10), fixture.expected(2 * kBlockSize + 990, 10));
  const auto& records = fixture.volume.recording->records();
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0].offset, 302U * kBlockSize);
  EXPECT_EQ(records[0].size, kBlockSize);
}

TEST(HFSPlusFile, AReadAcrossTwoExtentsIsTwoReadsOfTheDevice) {
  const Fixture fixture(support::forkAt(kTwoExtents, 5 * kBlockSize));
  EXPECT_EQ(fixture.read(kBlockSize, 3 * kBlockSize), fixture.expected(kBlockSize, 3 * kBlockSize));
  const auto& records = fixture.volume.recording->records();
  ASSERT_EQ(records.size(), 2U);
  EXPECT_EQ(records[0].offset, 301U * kBlockSize);
  EXPECT_EQ(records[0].size, kBlockSize);
  EXPECT_EQ(records[1].offset, 400U * kBlockSize);
  EXPECT_EQ(records[1].size, 2 * kBlockSize);
}

TEST(HFSPlusFile, AnUnalignedReadAcrossTwoExtentsFetchesTheBlocksAroundIt) {
  const Fixture fixture(support::forkAt(kTwoExtents, 5 * kBlockSize));
  EXPECT_EQ(fixture.read(2 * kBlockSize - 3, 7), fixture.expected(2 * kBlockSize - 3, 7));
  const auto& records = fixture.volume.recording->records();
  ASSERT_EQ(records.size(), 2U);
  EXPECT_EQ(records[0].size + records[1].size, 2 * kBlockSize);
}

TEST(HFSPlusFile, AReadBeyondTheLogicalSizeIsRefusedWhole) {
  const Fixture fixture(support::forkAt(kTwoExtents, 4 * kBlockSize + 100));
  std::vector<std::byte> bytes(101);
  EXPECT_EQ(messageOf(fixture.file->read(bytes, 4 * kBlockSize)),
            "Read of file ID 16 at offset 16384 and size 101 was out of range.");
  EXPECT_EQ(messageOf(fixture.file->read(bytes, ~uint64_t{0} - 10)),
            "Read of file ID 16 at offset 18446744073709551605 and size 101 was out of range.");
  EXPECT_TRUE(fixture.volume.recording->records().empty());
  EXPECT_TRUE(fixture.file->read(std::span(bytes).first(100), 4 * kBlockSize));
}

TEST(HFSPlusFile, ReadingNothingSucceedsInsideTheFileOnly) {
  const Fixture fixture(support::forkAt(kTwoExtents, 5 * kBlockSize));
  EXPECT_TRUE(fixture.file->read({}, 0));
  EXPECT_TRUE(fixture.file->read({}, 5 * kBlockSize - 1));
  EXPECT_EQ(messageOf(fixture.file->read({}, 5 * kBlockSize)),
            "Read of file ID 16 at offset 20480 and size 0 was out of range.");
}

TEST(HFSPlusFile, AFileWithoutForkDataIsEmpty) {
  Fixture fixture(support::forkAt(kTwoExtents, 5 * kBlockSize));
  HFSPlusFile stranger(*fixture.volume, 99);
  EXPECT_EQ(stranger.logicalSize(), 0U);
  EXPECT_EQ(stranger.totalBlocks(), 0U);
  std::vector<std::byte> bytes(1);
  EXPECT_EQ(messageOf(stranger.read(bytes, 0)),
            "Read of file ID 99 at offset 0 and size 1 was out of range.");
  EXPECT_EQ(messageOf(stranger.translateOffset(0)), "Offset 0 is out of range for file ID 99.");
}

TEST(HFSPlusFile, ChangesOfTheForkAreSeenAtOnce) {
  Fixture fixture(support::forkAt(kTwoExtents, 5 * kBlockSize));
  HFSPlusForkData shorter = *fixture.volume->hostForkData(fixture.fileID);
  shorter.logicalSize = 10;
  fixture.volume->cacheHostForkData(shorter, fixture.fileID);
  EXPECT_EQ(fixture.file->logicalSize(), 10U);
}

TEST(HFSPlusFile, AWriteIsHeldAndReadBackButNotOnTheDevice) {
  Fixture fixture(support::forkAt(kTwoExtents, 5 * kBlockSize));
  const std::vector<std::byte> bytes(kBlockSize, std::byte{0xA5});
  ASSERT_TRUE(fixture.file->write(bytes, kBlockSize));
  EXPECT_EQ(fixture.read(kBlockSize, kBlockSize), bytes);
  EXPECT_TRUE(fixture.volume.recording->records().empty());

  std::vector<std::byte> around = fixture.expected(kBlockSize - 5, kBlockSize + 10);
  std::ranges::copy(bytes, around.begin() + 5);
  EXPECT_EQ(fixture.read(kBlockSize - 5, kBlockSize + 10), around);
  EXPECT_TRUE(fixture.volume.recording->changes().empty());
}

TEST(HFSPlusFile, AWriteBeyondTheLogicalSizeHoldsNothing) {
  Fixture fixture(support::forkAt(kTwoExtents, 5 * kBlockSize));
  const std::vector<std::byte> bytes(kBlockSize + 1);
  EXPECT_EQ(messageOf(fixture.file->write(bytes, 4 * kBlockSize)),
            "Write of file ID 16 at offset 16384 and size 4097 was out of range.");
  EXPECT_EQ(messageOf(fixture.file->write({}, 5 * kBlockSize)),
            "Write of file ID 16 at offset 20480 and size 0 was out of range.");
  EXPECT_TRUE(fixture.volume->heldWrites().empty());
}

TEST(HFSPlusFile, ErrorsOfTheDeviceComeThrough) {
  const Fixture fixture(support::forkAt(kTwoExtents, 5 * kBlockSize));
  std::vector<std::byte> bytes(3 * kBlockSize);
  fixture.volume.faulty->plan({.call = doubles::FaultyDevice::Call::Read, .ordinal = 1});
  EXPECT_EQ(messageOf(fixture.file->read(bytes, 0)),
            "Read failed with an error 5 at offset 1638400 and size 4096.");
}

TEST(HFSPlusFile, EveryRangeOfAMuchFragmentedForkReadsAsItWasWritten) {
  const unsigned seed = testSeed();
  SCOPED_TRACE(seedText(seed));
  std::mt19937 random(seed);
  const uint64_t size = 90 * kBlockSize + 123;
  const Fixture fixture(support::fork(size, 40));
  for (int i = 0; i < 300; ++i) {
    const uint64_t offset = random() % size;
    const size_t count = random() % std::min<uint64_t>(size - offset, 9 * kBlockSize) + 1;
    ASSERT_EQ(fixture.read(offset, count), fixture.expected(offset, count));
  }
}

namespace {

/// A volume on which every place is what the test says.
class OddVolume final : public HFSPlusVolumeAccess {
 public:
  explicit OddVolume(uint64_t pieceLength) : _pieceLength(pieceLength) {
    _header.blockSize = 512;
    _forkData.logicalSize = 1 << 20;
    _forkData.totalBlocks = 2048;
  }

  Result<> readVolume(std::span<std::byte>, uint64_t) override { return {}; }
  const HFSPlusVolumeHeader& hostVolumeHeader() const override { return _header; }
  const HFSPlusForkData* hostForkData(uint32_t) const override { return &_forkData; }
  Result<HFSPlusTranslation> translateOffset(uint64_t offset, uint32_t, uint8_t,
                                             const HFSPlusForkData&) override {
    return HFSPlusTranslation{.offset = offset, .length = _pieceLength};
  }
  HFSPlusHeldWrites& heldWrites() override { return _heldWrites; }
  uint32_t blockSizeOfDevice() const override { return 512; }
  bool isHFSX() const override { return false; }
  void updateFreeBlocks(int64_t) override {}

 private:
  uint64_t _pieceLength;
  HFSPlusVolumeHeader _header{};
  HFSPlusForkData _forkData{};
  HFSPlusHeldWrites _heldWrites;
};

}  // namespace

TEST(HFSPlusFile, OnlyTheLastPieceMayEndInsideABlock) {
  std::vector<std::byte> bytes(1023);
  OddVolume whole(512);
  EXPECT_TRUE(HFSPlusFile(whole, 16).read(bytes, 1));
  OddVolume odd(511);
  EXPECT_EQ(messageOf(HFSPlusFile(odd, 16).read(bytes, 1)),
            "Internal error: HFSPlus/HFSPlusFile:97");
}
