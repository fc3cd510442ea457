#include "Platform/PlatformMounts.hpp"

#include <gtest/gtest.h>

#include "support/doubles/LoopDevice.hpp"
#include "support/doubles/ScratchFile.hpp"

using PlatformMounts::Mount;

TEST(PlatformMounts, ALineGivesTheDeviceAndTheSource) {
  const auto mounts = PlatformMounts::parse(
      "36 35 98:7 /mnt1 /mnt2 rw,noatime master:1 - ext3 /dev/sda3 rw,errors=continue\n");
  ASSERT_EQ(mounts.size(), 1U);
  EXPECT_EQ(mounts[0].device, (PlatformDeviceNumber{.major = 98, .minor = 7}));
  EXPECT_EQ(mounts[0].source, "/dev/sda3");
}

TEST(PlatformMounts, AnyNumberOfOptionalFieldsMayComeBeforeTheSource) {
  const auto mounts = PlatformMounts::parse(
      "1 0 8:1 / / rw - ext4 /dev/a rw\n"
      "2 0 8:2 / /b rw shared:1 master:2 propagate_from:3 - ext4 /dev/b rw\n");
  ASSERT_EQ(mounts.size(), 2U);
  EXPECT_EQ(mounts[0].source, "/dev/a");
  EXPECT_EQ(mounts[1].source, "/dev/b");
}

TEST(PlatformMounts, OctalEscapesInTheSourceAreUndone) {
  const auto mounts = PlatformMounts::parse(
      "1 0 8:1 / /mnt rw - ext4 /dev/my\\040disk\\134x\\011\\012\\043 rw\n"
      "2 0 8:2 / /mnt rw - ext4 odd\\04 rw\n"
      "3 0 8:3 / /mnt rw - ext4 \\377\\8 rw\n");
  ASSERT_EQ(mounts.size(), 3U);
  EXPECT_EQ(mounts[0].source, "/dev/my disk\\x\t\n#");
  EXPECT_EQ(mounts[1].source, "odd\\04");
  EXPECT_EQ(mounts[2].source, "\xff\\8");
}

TEST(PlatformMounts, LinesWithoutSenseAreLeftOut) {
  EXPECT_TRUE(PlatformMounts::parse("").empty());
  EXPECT_TRUE(PlatformMounts::parse("\n\n").empty());
  EXPECT_TRUE(PlatformMounts::parse("1 0 8:1 / /mnt rw").empty());
  EXPECT_TRUE(PlatformMounts::parse("1 0 8:1 / /mnt rw - ext4").empty());
  EXPECT_TRUE(PlatformMounts::parse("1 0 8 / /mnt rw - ext4 /dev/a rw").empty());
  EXPECT_TRUE(PlatformMounts::parse("1 0 8:x / /mnt rw - ext4 /dev/a rw").empty());
  EXPECT_TRUE(PlatformMounts::parse("1 0 99999999999:1 / /mnt rw - ext4 /dev/a rw").empty());
}

TEST(PlatformMounts, ALastLineWithoutItsNewlineCounts) {
  EXPECT_EQ(PlatformMounts::parse("1 0 8:1 / /mnt rw - ext4 /dev/a rw").size(), 1U);
}

TEST(PlatformMounts, ARawNodeIsMountedWhenItsBlockNodeIs) {
  const std::vector<Mount> mounts = {{.device = {}, .source = "/dev/disk2s3"}};
  EXPECT_TRUE(PlatformMounts::containsSource(mounts, "/dev/disk2s3"));
  EXPECT_TRUE(PlatformMounts::containsSource(mounts, "/dev/rdisk2s3"));
  EXPECT_FALSE(PlatformMounts::containsSource(mounts, "/dev/disk2s"));
  EXPECT_FALSE(PlatformMounts::containsSource(mounts, "/dev/rrdisk2s3"));
}

TEST(PlatformMounts, ThePathOfTheRawPrefixAloneIsComparedUnchanged) {
  EXPECT_TRUE(PlatformMounts::containsSource({{.device = {}, .source = "/dev/r"}}, "/dev/r"));
  EXPECT_FALSE(PlatformMounts::containsSource({{.device = {}, .source = "/dev/"}}, "/dev/r"));
}

TEST(PlatformMounts, ABlockNodeThatBeginsWithAnRIsFoundUnderItsOwnName) {
  EXPECT_TRUE(PlatformMounts::containsSource({{.device = {}, .source = "/dev/ram0"}}, "/dev/ram0"));
}

TEST(PlatformMounts, ADeviceIsFoundByItsNumber) {
  const std::vector<Mount> mounts = {{.device = {.major = 8, .minor = 1}, .source = "/dev/root"}};
  EXPECT_TRUE(PlatformMounts::containsDevice(mounts, {.major = 8, .minor = 1}));
  EXPECT_FALSE(PlatformMounts::containsDevice(mounts, {.major = 1, .minor = 8}));
}

TEST(PlatformMounts, TheKernelsOwnListCanBeRead) {
  EXPECT_FALSE(PlatformMounts::current().empty());
}

TEST(PlatformMounts, APathThatDoesNotResolveIsNotMounted) {
  EXPECT_FALSE(PlatformMounts::isMounted("/no/such/device"));
  EXPECT_FALSE(PlatformMounts::isMounted(""));
}

TEST(PlatformMounts, AnOrdinaryFileIsNotMounted) {
  const doubles::ScratchFile file(4096);
  EXPECT_FALSE(PlatformMounts::isMounted(file.path()));
}

TEST(PlatformMounts, AMountedLoopDeviceMakesItsImageAndEveryLoopDeviceOverItMounted) {
  const doubles::ScratchFile image(uint64_t{8} << 20);
  if (!image.makeForeignFileSystem()) {
    GTEST_SKIP() << "no tool at hand to make a file system that the kernel mounts";
  }
  const doubles::LoopDevice mountedLoop(image.path());
  const doubles::LoopDevice otherLoop(image.path());
  if (!mountedLoop.works() || !otherLoop.works()) {
    GTEST_SKIP() << "loop devices need root and /dev/loop-control";
  }
  EXPECT_FALSE(PlatformMounts::isMounted(mountedLoop.path()));
  EXPECT_FALSE(PlatformMounts::isMounted(image.path()));
  const doubles::LoopMount mount(mountedLoop);
  if (!mount.works()) {
    GTEST_SKIP() << "mounting is not permitted";
  }
  EXPECT_TRUE(PlatformMounts::isMounted(mountedLoop.path()));
  EXPECT_TRUE(PlatformMounts::isMounted(otherLoop.path()));
  EXPECT_TRUE(PlatformMounts::isMounted(image.path()));
}
