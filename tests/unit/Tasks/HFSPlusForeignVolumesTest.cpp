// Volumes that others made look different from those that a builder makes by itself: blocks of many
// mebibytes, room in the bitmap, more device than volume, headers that lag. All of them are
// rewritten.

#include <gtest/gtest.h>

#include "Tasks/HFSPlusMapTask.hpp"
#include "Tasks/HFSPlusScanTask.hpp"
#include "unit/Tasks/RewritingRun.hpp"
#include "unit/Tasks/TaskTranscript.hpp"

namespace {

using support::BuiltVolume;
using support::VolumeDescription;

/// Files, some in pieces and some with two forks, on a volume of so many blocks.
VolumeDescription fragmentedVolume(uint32_t blockSize, uint32_t blocks, uint32_t files) {
  VolumeDescription description;
  description.blockSize = blockSize;
  description.size = uint64_t{blockSize} * blocks;
  const uint64_t mostBytes = uint64_t{blockSize} * blocks / files;
  for (uint32_t i = 0; i < files; ++i) {
    auto& file = description.root().addFile("file " + std::to_string(i),
                                            support::fork(mostBytes / 2 - i, 1 + i % 4));
    if (i % 3 == 0) {
      file.resource = support::fork(700 + i, 1);
    }
  }
  return description;
}

void expectRewrites(const BuiltVolume& built, const RewritingRun::Limits& limits) {
  for (const char* command : {"DEFRAG", "COMPACT"}) {
    SCOPED_TRACE(command);
    RewritingRun run(built);
    EXPECT_EQ(RewritingRun::errorIn(run.run(command, limits)), "");
    EXPECT_EQ(run.faults(), "");
    EXPECT_EQ(command[0] == 'D' ? run.scatteredForks() : run.dataAboveFreeSpace(), "");
  }
}

void expectRewrites(const VolumeDescription& description, const RewritingRun::Limits& limits = {}) {
  expectRewrites(support::buildVolume(description), limits);
}

/// Where a block's bit of the allocation file lies in the image.
std::byte& bitmapByte(BuiltVolume& built, uint32_t block) {
  uint64_t offset = block / 8;
  for (const auto& extent : built.fork(kHFSAllocationFileID, kHFSDataForkType)->extents) {
    const uint64_t size = uint64_t{extent.count} * built.blockSize;
    if (offset < size) {
      return built.image.at(uint64_t{extent.start} * built.blockSize + offset);
    }
    offset -= size;
  }
  throw std::out_of_range("no such bit");
}

}  // namespace

TEST(HFSPlusForeignVolumes, BlocksOfMebibytesAreMoved) {
  expectRewrites(fragmentedVolume(128 << 10, 80, 9), {7, 0x40000});
  expectRewrites(fragmentedVolume(1 << 20, 48, 7), {3, 0x40000});
  expectRewrites(fragmentedVolume(4 << 20, 24, 4));
}

TEST(HFSPlusForeignVolumes, TheLastByteOfTheBitmapMayDescribeAnyNumberOfBlocks) {
  for (uint32_t blocks = 1200; blocks < 1208; ++blocks) {
    SCOPED_TRACE(blocks);
    expectRewrites(fragmentedVolume(512, blocks, 12));
  }
}

TEST(HFSPlusForeignVolumes, TheAllocationFileMayHaveMoreBitsThanThereAreBlocks) {
  VolumeDescription description = fragmentedVolume(1024, 1501, 15);
  description.spareBitmapBlocks = 5;
  description.allocationFragments = 3;
  expectRewrites(description, {20, 0x40000});
}

TEST(HFSPlusForeignVolumes, BitsBeyondTheLastBlockAreNotTouched) {
  VolumeDescription description = fragmentedVolume(1024, 1501, 15);
  description.spareBitmapBlocks = 1;
  description.allocationExtents = {{700, 2}};
  BuiltVolume built = support::buildVolume(description);
  bitmapByte(built, 1501) |= std::byte{0x05};
  bitmapByte(built, 1504) = std::byte{0xFF};
  for (const char* command : {"DEFRAG", "COMPACT"}) {
    SCOPED_TRACE(command);
    RewritingRun run(built);
    EXPECT_EQ(RewritingRun::errorIn(run.run(command)), "");
    EXPECT_EQ(run.faults(), "");
    const auto image = run.device().image();
    const auto after = run.truth();
    const auto& bitmap =
        after.findFork(kHFSAllocationFileID, volumecheck::ForkType::Data)->extents.at(0);
    const std::byte* bits = &image.at(uint64_t{bitmap.startBlock} * 1024 + 1501 / 8);
    EXPECT_EQ(bits[0] & std::byte{0x07}, std::byte{0x05});
    EXPECT_EQ(bits[1], std::byte{0xFF});
    EXPECT_EQ(bits[2], std::byte{0});
  }
}

TEST(HFSPlusForeignVolumes, TheDeviceMayGoOnBehindTheLastBlock) {
  for (const size_t more : {512UL, 1024UL, 4096UL, 300UL << 10}) {
    SCOPED_TRACE(more);
    BuiltVolume built = support::buildVolume(fragmentedVolume(4096, 900, 12));
    const std::vector<std::byte> alternate(built.image.end() - 1024, built.image.end() - 512);
    built.image.resize(built.image.size() + more);
    std::ranges::copy(alternate, built.image.end() - 1024);
    expectRewrites(built, {50, 0x40000});
  }
}

TEST(HFSPlusForeignVolumes, AnAlternateHeaderThatLagsIsBroughtUpToDate) {
  BuiltVolume built = support::buildVolume(fragmentedVolume(4096, 900, 12));
  const size_t alternate = built.image.size() - 1024;
  for (const size_t field : {4, 32, 48, 68}) {  // attributes, files, free blocks, write count
    built.image[alternate + field + 3] ^= std::byte{0x3C};
  }
  RewritingRun run(built);
  EXPECT_EQ(RewritingRun::errorIn(run.run("DEFRAG")), "");
  EXPECT_EQ(run.faults(), "");
  const auto image = run.device().image();
  EXPECT_TRUE(std::ranges::equal(std::span(image).subspan(1024, 512),
                                 std::span(image).subspan(alternate, 512)));
}

TEST(HFSPlusForeignVolumes, NamesThatAreNoTextAreListedAndTheirFilesMoved) {
  const std::pair<std::u16string, std::string> names[] = {
      {u"\xD800", "\uFFFD"},
      {u"a\xDC00, b", "a\uFFFD\\, b"},
      {u"\xDBFF\xDBFF\xDC00", "\uFFFD\U0010FC00"},
      {u"\xF8FF\xE000", "\uF8FF\uE000"},
      {std::u16string(u"nul\0unit", 8), "nul\\xC0\\x80unit"},
      {u"/:\\", "::\\\\"},
      {std::u16string(255, u'\xFFFE'), ""},
  };
  VolumeDescription description = fragmentedVolume(1024, 800, 8);
  auto& folder = description.root().addFolder(u"d\xD801/r");
  std::vector<std::pair<uint32_t, std::string>> printed;
  for (const auto& [name, text] : names) {
    std::string expected = text;
    for (size_t unit = 0; text.empty() && unit < name.size(); ++unit) {
      expected += "\uFFFE";
    }
    printed.emplace_back(folder.addFile(name, support::fork(5000, 3)).id, expected);
  }
  OpenedVolume volume(description);
  const auto hasField = [](const Transcript& lines, const std::string& field) {
    return std::ranges::any_of(
        lines, [&](const std::string& line) { return line.contains("," + field + ","); });
  };
  const Transcript scan = transcriptOf<HFSPlusScanTask>(*volume, "SCAN");
  const Transcript fullScan = transcriptOf<HFSPlusScanTask>(*volume, "SCAN -f");
  for (const auto& [fileID, text] : printed) {
    const std::string path = "/d\uFFFD:r/" + text;
    EXPECT_TRUE(hasField(scan, text)) << text;
    EXPECT_TRUE(hasField(fullScan, path)) << path;
    EXPECT_TRUE(
        hasField(transcriptOf<HFSPlusMapTask>(*volume, "MAP -i " + std::to_string(fileID)), path))
        << path;
  }
  expectRewrites(description, {10, 0x40000});
}
