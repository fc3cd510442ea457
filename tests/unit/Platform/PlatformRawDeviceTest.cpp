#include "Platform/PlatformRawDevice.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/fsuid.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <vector>

#include "support/doubles/LoopDevice.hpp"
#include "support/doubles/ScratchFile.hpp"

using doubles::LoopDevice;
using doubles::ScratchFile;
using Access = PlatformRawDevice::Access;

namespace {

constexpr size_t kMiB = size_t{1} << 20;

int errorOfOpening(const std::string& path, Access access = Access::Exclusive) {
  const auto device = PlatformRawDevice::open(path, access);
  return device ? 0 : device.error();
}

struct AlignedBuffer {
  explicit AlignedBuffer(size_t size)
      : bytes(static_cast<std::byte*>(std::aligned_alloc(4096, size)), size) {}
  AlignedBuffer(const AlignedBuffer&) = delete;
  AlignedBuffer& operator=(const AlignedBuffer&) = delete;
  ~AlignedBuffer() { std::free(bytes.data()); }

  std::span<std::byte> bytes;
};

void fillWithPattern(std::span<std::byte> bytes, unsigned seed) {
  for (size_t i = 0; i < bytes.size(); ++i) {
    bytes[i] = static_cast<std::byte>(i * 31 + i / 4096 + seed);
  }
}

/// Acts as an ordinary user on files, as long as it lives; if the process is root, who may.
struct OrdinaryFileUser {
  static constexpr uid_t kNobody = 65534;
  OrdinaryFileUser() { ::setfsuid(kNobody); }
  ~OrdinaryFileUser() { ::setfsuid(::geteuid()); }
  // An ID that no user has changes nothing, but tells the present one.
  bool works() const { return ::setfsuid(static_cast<uid_t>(-1)) == static_cast<int>(kNobody); }
};

}  // namespace

TEST(PlatformRawDevice, AnImageFileHasItsWholeSectors) {
  const ScratchFile file(5 * 512 + 511);
  const auto device = PlatformRawDevice::open(file.path(), Access::Exclusive);
  ASSERT_TRUE(device);
  EXPECT_EQ((*device)->blockSize(), 512U);
  EXPECT_EQ((*device)->blockCount(), 5U);
  EXPECT_TRUE((*device)->isWritable());
}

TEST(PlatformRawDevice, FilesOfNoneAndOneByteHaveNoSectors) {
  for (const uint64_t size : {0, 1}) {
    const ScratchFile file(size);
    const auto device = PlatformRawDevice::open(file.path(), Access::Exclusive);
    ASSERT_TRUE(device);
    EXPECT_EQ((*device)->blockCount(), 0U);
  }
}

TEST(PlatformRawDevice, WhatHasNoBlocksIsRefusedWithoutBeingOpened) {
  const ScratchFile file(0);
  const std::string fifo = file.directory() / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_EQ(errorOfOpening(fifo), ENOTTY);
  EXPECT_EQ(errorOfOpening(fifo, Access::Shared), ENOTTY);
  EXPECT_EQ(errorOfOpening("/dev/null"), ENOTTY);
  EXPECT_EQ(errorOfOpening(file.directory()), EISDIR);
  EXPECT_EQ(errorOfOpening(file.directory() / "missing"), ENOENT);
  EXPECT_EQ(errorOfOpening(file.path() + "/below"), ENOTDIR);
  EXPECT_EQ(errorOfOpening(""), ENOENT);
}

TEST(PlatformRawDevice, ASocketIsRefused) {
  const ScratchFile file(0);
  sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
  const std::string path = file.directory() / "socket";
  ASSERT_LT(path.size(), sizeof address.sun_path);
  path.copy(address.sun_path, path.size());
  const int descriptor = ::socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_EQ(::bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(errorOfOpening(path), ENXIO);
  ::close(descriptor);
}

TEST(PlatformRawDevice, ASecondWriterFindsTheImageBusyUntilTheFirstIsGone) {
  const ScratchFile file(4096);
  {
    const auto first = PlatformRawDevice::open(file.path(), Access::Exclusive);
    ASSERT_TRUE(first);
    EXPECT_EQ(errorOfOpening(file.path()), EBUSY);
    EXPECT_EQ(errorOfOpening(file.path(), Access::Shared), 0);
  }
  EXPECT_EQ(errorOfOpening(file.path()), 0);
}

TEST(PlatformRawDevice, EitherKindOfLockOfAnotherProgramMakesTheImageBusy) {
  const ScratchFile file(4096);
  const int other = ::open(file.path().c_str(), O_RDWR);
  ASSERT_EQ(::flock(other, LOCK_SH | LOCK_NB), 0);
  EXPECT_EQ(errorOfOpening(file.path()), EBUSY);
  ASSERT_EQ(::flock(other, LOCK_UN), 0);
  EXPECT_EQ(errorOfOpening(file.path()), 0);

  struct flock range = {};
  range.l_type = F_RDLCK;
  range.l_whence = SEEK_SET;
  range.l_start = 100;
  range.l_len = 1;
  ASSERT_EQ(::fcntl(other, F_OFD_SETLK, &range), 0);
  EXPECT_EQ(errorOfOpening(file.path()), EBUSY);
  ::close(other);
  EXPECT_EQ(errorOfOpening(file.path()), 0);
}

TEST(PlatformRawDevice, AFileThatMayOnlyBeReadOpensForReading) {
  const ScratchFile file(4096);
  ASSERT_EQ(::chmod(file.directory().c_str(), 0755), 0);
  ASSERT_EQ(::chmod(file.path().c_str(), 0644), 0);
  const OrdinaryFileUser user;
  if (!user.works()) {
    GTEST_SKIP() << "needs root, to stop being it";
  }
  const auto device = PlatformRawDevice::open(file.path(), Access::Exclusive);
  ASSERT_TRUE(device);
  EXPECT_FALSE((*device)->isWritable());
  // Readers stand each other, a reader and a writer do not.
  EXPECT_EQ(errorOfOpening(file.path()), 0);
  ::setfsuid(0);
  EXPECT_EQ(errorOfOpening(file.path()), EBUSY);
}

TEST(PlatformRawDevice, AFileThatMayNotBeReadIsDenied) {
  const ScratchFile file(4096);
  ASSERT_EQ(::chmod(file.path().c_str(), 0600), 0);
  const OrdinaryFileUser user;
  if (!user.works()) {
    GTEST_SKIP() << "needs root, to stop being it";
  }
  EXPECT_EQ(errorOfOpening(file.path()), EACCES);
}

TEST(PlatformRawDevice, TransfersThroughAndPastTheCacheSeeEachOthersBytes) {
  const ScratchFile file(4 * kMiB);
  const auto device = PlatformRawDevice::open(file.path(), Access::Exclusive);
  ASSERT_TRUE(device);
  const AlignedBuffer large(kMiB);
  fillWithPattern(large.bytes, 1);
  // Brings the range into the page cache first, then changes it past the cache.
  std::vector<std::byte> small(512);
  ASSERT_EQ((*device)->readAt(small, kMiB + 4096), 512U);
  ASSERT_EQ((*device)->writeOnceAt(large.bytes, kMiB), kMiB);
  ASSERT_EQ((*device)->readAt(small, kMiB + 4096), 512U);
  EXPECT_TRUE(std::ranges::equal(small, large.bytes.subspan(4096, 512)));

  std::ranges::fill(small, std::byte{0xEE});
  ASSERT_EQ((*device)->writeAt(small, kMiB + 512), 512U);
  std::ranges::copy(small, large.bytes.begin() + 512);
  const AlignedBuffer again(kMiB);
  ASSERT_EQ((*device)->readOnceAt(again.bytes, kMiB), kMiB);
  EXPECT_TRUE(std::ranges::equal(again.bytes, large.bytes));
  EXPECT_TRUE((*device)->sync());
}

TEST(PlatformRawDevice, TransfersWithoutAnyAlignmentWork) {
  const ScratchFile file(4 * kMiB);
  const auto device = PlatformRawDevice::open(file.path(), Access::Exclusive);
  ASSERT_TRUE(device);
  const AlignedBuffer buffer(kMiB);
  const auto odd = buffer.bytes.subspan(1, kMiB - 7);
  fillWithPattern(odd, 9);
  ASSERT_EQ((*device)->writeOnceAt(odd, 12345), odd.size());
  std::vector<std::byte> read(odd.size());
  ASSERT_EQ((*device)->readOnceAt(read, 12345), odd.size());
  EXPECT_TRUE(std::ranges::equal(read, odd));
}

TEST(PlatformRawDevice, ReadingPastTheEndOfAnImageIsShort) {
  const ScratchFile file(kMiB + 512);
  const auto device = PlatformRawDevice::open(file.path(), Access::Shared);
  ASSERT_TRUE(device);
  const AlignedBuffer buffer(kMiB);
  EXPECT_EQ((*device)->readAt(buffer.bytes, kMiB), 512U);
  EXPECT_EQ((*device)->readOnceAt(buffer.bytes, kMiB), 512U);
  EXPECT_EQ((*device)->readAt(buffer.bytes, 2 * kMiB), 0U);
}

TEST(PlatformRawDevice, ADeviceOpenedForSharingCannotBeWritten) {
  const ScratchFile file(4096);
  const auto device = PlatformRawDevice::open(file.path(), Access::Shared);
  ASSERT_TRUE(device);
  EXPECT_FALSE((*device)->isWritable());
  const std::vector<std::byte> bytes(512);
  const auto written = (*device)->writeAt(bytes, 0);
  ASSERT_FALSE(written);
  EXPECT_EQ(written.error(), EBADF);
}

TEST(PlatformRawDevice, ALoopDeviceTransfersAndTellsItsSize) {
  const ScratchFile image(4 * kMiB);
  const LoopDevice loop(image.path());
  if (!loop.works()) {
    GTEST_SKIP() << "loop devices need root and /dev/loop-control";
  }
  const auto device = PlatformRawDevice::open(loop.path(), Access::Exclusive);
  ASSERT_TRUE(device);
  EXPECT_TRUE((*device)->isWritable());
  EXPECT_EQ((*device)->blockSize() * (*device)->blockCount(), 4 * kMiB);
  const AlignedBuffer buffer(kMiB);
  fillWithPattern(buffer.bytes, 3);
  ASSERT_EQ((*device)->writeAt(buffer.bytes, 2 * kMiB), kMiB);
  ASSERT_EQ((*device)->writeAt(buffer.bytes.first(512), 512), 512U);
  ASSERT_TRUE((*device)->sync());
  const std::vector<std::byte> contents = image.contents();
  EXPECT_TRUE(std::equal(buffer.bytes.begin(), buffer.bytes.end(), contents.begin() + 2 * kMiB));
  EXPECT_TRUE(std::equal(contents.begin() + 512, contents.begin() + 1024, buffer.bytes.begin()));
}

TEST(PlatformRawDevice, ALoopDeviceItsImageAndItsTwinExcludeEachOther) {
  const ScratchFile image(kMiB);
  const LoopDevice loop(image.path());
  const LoopDevice twin(image.path());
  if (!loop.works() || !twin.works()) {
    GTEST_SKIP() << "loop devices need root and /dev/loop-control";
  }
  for (const std::string& held : {loop.path(), image.path()}) {
    const auto device = PlatformRawDevice::open(held, Access::Exclusive);
    ASSERT_TRUE(device) << held;
    EXPECT_EQ(errorOfOpening(loop.path()), EBUSY) << held;
    EXPECT_EQ(errorOfOpening(twin.path()), EBUSY) << held;
    EXPECT_EQ(errorOfOpening(image.path()), EBUSY) << held;
  }
  EXPECT_EQ(errorOfOpening(twin.path()), 0);
}

TEST(PlatformRawDevice, ABlockDeviceThatIsReadOnlyIsNotWritable) {
  const ScratchFile image(kMiB);
  const LoopDevice loop(image.path(), true);
  if (!loop.works()) {
    GTEST_SKIP() << "loop devices need root and /dev/loop-control";
  }
  const auto device = PlatformRawDevice::open(loop.path(), Access::Exclusive);
  ASSERT_TRUE(device);
  EXPECT_FALSE((*device)->isWritable());
}
