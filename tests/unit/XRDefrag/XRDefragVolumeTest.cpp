#include "XRDefragVolume.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>

#include "XRDefragVolumeFactory.hpp"
#include "support/doubles/FaultyDevice.hpp"
#include "support/doubles/LoopDevice.hpp"
#include "support/doubles/MemoryDevice.hpp"
#include "support/doubles/RecordingDevice.hpp"
#include "support/doubles/ScratchFile.hpp"

using doubles::FaultyDevice;
using doubles::LoopDevice;
using doubles::LoopMount;
using doubles::MemoryDevice;
using doubles::RecordingDevice;
using doubles::ScratchFile;

namespace {

constexpr size_t kMiB = size_t{1} << 20;
constexpr uint64_t kNearTheEndOfNumbers = ~uint64_t{0} - 255;

std::string messageOf(const Result<>& result) {
  return result ? "" : result.error().description();
}

std::string messageOfOpening(const std::string& path) {
  const auto volume = XRDefragOpenVolume(path);
  return volume ? "" : volume.error().description();
}

/// A plain volume of 4 MiB on a device that remembers, over one that can fail, over memory.
struct Fixture {
  std::shared_ptr<MemoryDevice> memory = std::make_shared<MemoryDevice>(4 * kMiB);
  std::shared_ptr<FaultyDevice> faulty = std::make_shared<FaultyDevice>(memory);
  std::shared_ptr<RecordingDevice> recording = std::make_shared<RecordingDevice>(faulty);
  XRDefragVolume volume{"/dev/test", recording, false, true};
  std::vector<std::byte> bytes = std::vector<std::byte>(3 * kMiB + 512, std::byte{0x5A});
};

}  // namespace

TEST(XRDefragVolume, TellsWhatTheDeviceIs) {
  const Fixture fixture;
  EXPECT_EQ(fixture.volume.path(), "/dev/test");
  EXPECT_EQ(fixture.volume.deviceBlockSize(), 512U);
  EXPECT_EQ(fixture.volume.deviceSizeBytes(), 4 * kMiB);
  EXPECT_TRUE(fixture.volume.isWritable());
  EXPECT_FALSE(fixture.volume.isMounted());
}

TEST(XRDefragVolume, ALongTransferGoesInPiecesOfOneMebibyte) {
  Fixture fixture;
  ASSERT_TRUE(fixture.volume.read(std::span(fixture.bytes).first(3 * kMiB), 512));
  const auto& records = fixture.recording->records();
  ASSERT_EQ(records.size(), 3U);
  for (size_t i = 0; i < records.size(); ++i) {
    EXPECT_EQ(records[i].offset, 512 + i * kMiB);
    EXPECT_EQ(records[i].size, kMiB);
  }
}

TEST(XRDefragVolume, TheLastPieceHasTheRest) {
  Fixture fixture;
  ASSERT_TRUE(fixture.volume.write(fixture.bytes, kMiB / 2));
  const auto& records = fixture.recording->records();
  ASSERT_EQ(records.size(), 4U);
  EXPECT_EQ(records[3].size, 512U);
  EXPECT_EQ(fixture.memory->bytes(kMiB / 2, fixture.bytes.size()), fixture.bytes);
}

TEST(XRDefragVolume, NothingIsTransferredForNoBytes) {
  Fixture fixture;
  EXPECT_TRUE(fixture.volume.read({}, 0));
  EXPECT_TRUE(fixture.volume.write({}, 4 * kMiB));
  EXPECT_TRUE(fixture.recording->records().empty());
}

TEST(XRDefragVolume, ATransferMayEndAtTheDevicesEndButNotBehindIt) {
  Fixture fixture;
  const auto bytes = std::span(fixture.bytes).first(512);
  EXPECT_TRUE(fixture.volume.read(bytes, 4 * kMiB - 512));
  EXPECT_TRUE(fixture.volume.write(bytes, 4 * kMiB - 512));
  EXPECT_EQ(messageOf(fixture.volume.read(bytes, 4 * kMiB - 511)),
            "Out of range read failed at offset 4193793 and size 512.");
  EXPECT_EQ(messageOf(fixture.volume.write(bytes, 4 * kMiB)),
            "Out of range write failed at offset 4194304 and size 512.");
}

TEST(XRDefragVolume, ARangeThatWrapsAroundIsOutOfRange) {
  Fixture fixture;
  const auto bytes = std::span(fixture.bytes).first(512);
  EXPECT_EQ(messageOf(fixture.volume.read(bytes, kNearTheEndOfNumbers)),
            "Out of range read failed at offset 18446744073709551360 and size 512.");
  EXPECT_EQ(messageOf(fixture.volume.write(bytes, kNearTheEndOfNumbers)),
            "Out of range write failed at offset 18446744073709551360 and size 512.");
  EXPECT_TRUE(fixture.recording->records().empty());
}

TEST(XRDefragVolume, AShortTransferNamesThePieceThatWasShort) {
  Fixture fixture;
  fixture.faulty->plan(
      {.call = FaultyDevice::Call::Read, .ordinal = 1, .how = FaultyDevice::How::Short, .part = 7});
  EXPECT_EQ(messageOf(fixture.volume.read(fixture.bytes, 0)),
            "Read failed at offset 1048576 and size 1048576.");
  fixture.faulty->plan({.call = FaultyDevice::Call::Write,
                        .ordinal = 3,
                        .how = FaultyDevice::How::Short,
                        .part = 0});
  EXPECT_EQ(messageOf(fixture.volume.write(fixture.bytes, 0)),
            "Write failed at offset 3145728 and size 512.");
}

TEST(XRDefragVolume, ManyTransfersGoInPiecesInTheirOrder) {
  Fixture fixture;
  const auto bytes = std::span(fixture.bytes);
  const std::vector<XRDefragVolume::Transfer> transfers = {
      {bytes.first(kMiB + 512), 4096}, {bytes.subspan(2 * kMiB, 512), 512}, {{}, 1024}};
  size_t turns = 0;
  const auto mayGoOn = [&turns] {
    ++turns;
    return Result<>();
  };
  ASSERT_TRUE(fixture.volume.writeAll(transfers, mayGoOn));
  ASSERT_TRUE(fixture.volume.readAll(transfers, mayGoOn));
  const auto& records = fixture.recording->records();
  ASSERT_EQ(records.size(), 6U);
  const std::vector<std::pair<uint64_t, size_t>> expected = {
      {4096, kMiB}, {4096 + kMiB, 512}, {512, 512}};
  for (size_t i = 0; i < records.size(); ++i) {
    EXPECT_EQ(std::pair(records[i].offset, records[i].size), expected[i % 3]);
  }
  EXPECT_EQ(turns, 4U);
}

TEST(XRDefragVolume, OfManyTransfersNoneIsBegunWhenOneIsOutOfRange) {
  Fixture fixture;
  const auto bytes = std::span(fixture.bytes).first(1024);
  const std::vector<XRDefragVolume::Transfer> transfers = {{bytes, 0}, {bytes, 4 * kMiB - 512}};
  const auto mayGoOn = [] { return Result<>(); };
  EXPECT_EQ(messageOf(fixture.volume.readAll(transfers, mayGoOn)),
            "Out of range read failed at offset 4193792 and size 1024.");
  EXPECT_EQ(messageOf(fixture.volume.writeAll(transfers, mayGoOn)),
            "Out of range write failed at offset 4193792 and size 1024.");
  EXPECT_TRUE(fixture.recording->records().empty());
}

TEST(XRDefragVolume, ManyTransfersEndWithTheFirstFailureOrWhenTheyMayNotGoOn) {
  Fixture fixture;
  const auto bytes = std::span(fixture.bytes).first(512);
  const std::vector<XRDefragVolume::Transfer> transfers(5, {bytes, 1024});
  fixture.faulty->plan({.call = FaultyDevice::Call::Read, .ordinal = 2});
  EXPECT_EQ(messageOf(fixture.volume.readAll(transfers, [] { return Result<>(); })),
            "Read failed with an error 5 at offset 1024 and size 512.");
  EXPECT_EQ(fixture.recording->records().size(), 3U);

  fixture.recording->clear();
  const auto cancel = [] { return Result<>(std::unexpected(XRDefragError::userCancelled())); };
  const auto written = fixture.volume.writeAll(transfers, cancel);
  ASSERT_FALSE(written);
  EXPECT_TRUE(written.error().isUserCancelled());
  EXPECT_EQ(fixture.recording->records().size(), 1U);
}

TEST(XRDefragVolume, AnImageTakesManyTransfersAtOnce) {
  constexpr size_t kPiece = 4096;
  constexpr size_t kPieces = 600;
  const ScratchFile file(2 * kPieces * kPiece);
  const auto opened = XRDefragVolume::openDevice(file.path());
  ASSERT_TRUE(opened);
  XRDefragVolume& volume = **opened;
  std::vector<std::byte> written(kPieces * kPiece);
  std::vector<std::byte> read(written.size());
  std::vector<XRDefragVolume::Transfer> writes;
  std::vector<XRDefragVolume::Transfer> reads;
  for (size_t i = 0; i < kPieces; ++i) {
    const auto piece = std::span(written).subspan(i * kPiece, kPiece);
    std::ranges::fill(piece, static_cast<std::byte>(i));
    const uint64_t place = 2 * kPiece * (kPieces - 1 - i);
    writes.push_back({piece, place});
    reads.push_back({std::span(read).subspan(i * kPiece, kPiece), place});
  }
  ASSERT_TRUE(volume.writeAll(writes, [] { return Result<>(); }));
  ASSERT_TRUE(volume.readAll(reads, [] { return Result<>(); }));
  EXPECT_EQ(read, written);
}

TEST(XRDefragVolume, AFailedTransferNamesTheErrorAndThePiece) {
  Fixture fixture;
  fixture.faulty->plan({.call = FaultyDevice::Call::Read, .ordinal = 2});
  EXPECT_EQ(messageOf(fixture.volume.read(fixture.bytes, 0)),
            "Read failed with an error 5 at offset 2097152 and size 1048576.");
  fixture.faulty->plan({.call = FaultyDevice::Call::Write, .ordinal = 0, .error = ENOSPC});
  EXPECT_EQ(messageOf(fixture.volume.write(fixture.bytes, 0)),
            "Write failed with an error 28 at offset 0 and size 1048576.");
}

TEST(XRDefragVolume, AFailedSynchronizationIsAWriteFailure) {
  Fixture fixture;
  EXPECT_TRUE(fixture.volume.synchronize());
  fixture.faulty->plan({.call = FaultyDevice::Call::Sync, .ordinal = 0});
  EXPECT_EQ(messageOf(fixture.volume.synchronize()), "Write failure.");
}

TEST(XRDefragVolume, AVolumeMadeFromAnotherSharesItsDevice) {
  Fixture fixture;
  XRDefragVolume other(fixture.volume);
  EXPECT_EQ(other.path(), fixture.volume.path());
  EXPECT_EQ(other.deviceSizeBytes(), fixture.volume.deviceSizeBytes());
  EXPECT_TRUE(other.isWritable());
  ASSERT_TRUE(other.write(std::span(fixture.bytes).first(512), 1024));
  EXPECT_EQ(fixture.recording->records().size(), 1U);
  // Each has a gate of its own: closing one leaves the other open.
  fixture.volume.closeGate();
  other.closeGate();
  other.openGate();
  fixture.volume.openGate();
}

TEST(XRDefragVolumeDeathTest, WritingAReadOnlyVolumeStopsTheProgram) {
  XRDefragVolume volume("/dev/test", std::make_shared<MemoryDevice>(kMiB), false, false);
  const std::vector<std::byte> bytes(512);
  EXPECT_DEATH(static_cast<void>(volume.write(bytes, 0)), "assertion failed");
}

TEST(XRDefragVolume, WhatCannotBeOpenedHasItsMessage) {
  const ScratchFile file(0);
  const std::string missing = file.directory() / "missing";
  EXPECT_EQ(messageOfOpening(missing), "Unable to open " + missing + ". An error 2 occurred.");
  EXPECT_EQ(messageOfOpening("/dev/null"), "Unable to open /dev/null. An error 25 occurred.");
  EXPECT_EQ(messageOfOpening(file.directory()),
            "Unable to open " + file.directory().string() + ". An error 21 occurred.");
}

TEST(XRDefragVolume, WhatMayNotEvenBeReadIsDenied) {
  const ScratchFile file(4096);
  ASSERT_EQ(::chmod(file.path().c_str(), 0), 0);
  constexpr uid_t kNobody = 65534;
  const uid_t before = ::geteuid();
  if (before == 0 && ::seteuid(kNobody) != 0) {
    GTEST_SKIP() << "root cannot become nobody here";
  }
  const std::string message = messageOfOpening(file.path());
  EXPECT_EQ(::seteuid(before), 0);
  EXPECT_EQ(message, "Permission was denied.");
}

TEST(XRDefragVolume, AHeldImageIsBusy) {
  const ScratchFile file(4096);
  const auto volume = XRDefragVolume::openDevice(file.path());
  ASSERT_TRUE(volume);
  EXPECT_TRUE((*volume)->isWritable());
  EXPECT_FALSE((*volume)->mounted());
  EXPECT_EQ(messageOfOpening(file.path()), "The device is busy.");
}

TEST(XRDefragVolume, AnImageTooSmallForItsHeadersIsReadOutOfRange) {
  for (const uint64_t size : {0, 1, 512, 1535}) {
    const ScratchFile file(size);
    EXPECT_EQ(messageOfOpening(file.path()),
              "Out of range read failed at offset 1024 and size 512.");
  }
}

TEST(XRDefragVolume, AnImageWithoutAVolumeIsUnsupported) {
  for (const uint64_t size : {1536, 2048, 5000, 1048576}) {
    const ScratchFile file(size);
    EXPECT_EQ(messageOfOpening(file.path()), "Unsupported volume format.");
  }
}

TEST(XRDefragVolume, AMountedDeviceOpensForReadingWithoutALock) {
  const ScratchFile image(uint64_t{8} << 20);
  if (!image.makeForeignFileSystem()) {
    GTEST_SKIP() << "no tool at hand to make a file system that the kernel mounts";
  }
  const LoopDevice loop(image.path());
  if (!loop.works()) {
    GTEST_SKIP() << "loop devices need root and /dev/loop-control";
  }
  const LoopMount mount(loop);
  if (!mount.works()) {
    GTEST_SKIP() << "mounting is not permitted";
  }
  for (const std::string& path : {loop.path(), image.path()}) {
    const auto first = XRDefragVolume::openDevice(path);
    const auto second = XRDefragVolume::openDevice(path);
    ASSERT_TRUE(first) << path;
    ASSERT_TRUE(second) << path;
    EXPECT_TRUE((*first)->isMounted());
    EXPECT_TRUE((*first)->mounted());
    EXPECT_FALSE((*first)->isWritable());
  }
}
