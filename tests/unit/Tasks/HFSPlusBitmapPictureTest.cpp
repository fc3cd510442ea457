#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "HFSPlus/HFSPlusAllocation.hpp"
#include "Tasks/HFSPlusBitmapPicture.hpp"
#include "XRDefragReport.hpp"
#include "support/doubles/MemoryBitmapVolume.hpp"
#include "support/doubles/TestRandom.hpp"

namespace {

/// What a picture of the volume prints; the error, if any, is the last line.
std::string pictureOf(MemoryBitmapVolume& volume, uint32_t scale, uint32_t maskedBlocks = 0) {
  std::string printed;
  XRDefragReport report([&](std::string_view lines) { printed += lines; });
  auto allocation = HFSPlusAllocation::open(volume).value();
  HFSPlusBitmapPicture picture("BITMAP", scale, maskedBlocks, report);
  Result<> result = picture.print(volume.header, *allocation);
  report.printAndFlush("");
  return result ? printed : printed + result.error().description();
}

/// The same picture by the plainest means: one value a block, one digit at a time.
std::string plainPictureOf(const MemoryBitmapVolume& volume, uint32_t scale,
                           uint32_t maskedBlocks) {
  uint64_t total = volume.header.totalBlocks;
  uint64_t groups = (total + scale - 1) / scale;
  std::string printed = "BITMAP,LENGTH," + std::to_string((groups + 7) / 8) + "\n";
  std::string buffer;
  int64_t groupSum = 0;
  uint32_t groupLeft = scale;
  unsigned digit = 0;
  unsigned digitBits = 0;
  uint64_t firstUnused = 4294967295U;
  uint64_t lastUsed = 0;
  int64_t lastUsedLimit =
      static_cast<int64_t>(total) - 1 - (volume.header.blockSize <= 512 ? 1 : 0);
  auto appendDigit = [&] {
    buffer += "0123456789ABCDEF"[digit];
    digit = 0;
    digitBits = 0;
    if (buffer.size() == 4096) {
      printed += "BITMAP,DATA," + buffer + "\n";
      buffer.clear();
    }
  };
  for (uint64_t block = 0; block < (total + 7) / 8 * 8; ++block) {
    bool used = volume.bit(block) || block < maskedBlocks;
    if (!used && firstUnused == 4294967295U) {
      firstUnused = block;
    }
    if (used && static_cast<int64_t>(block) < lastUsedLimit) {
      lastUsed = block;
    }
    groupSum += used ? 1 : -1;
    if (--groupLeft == 0) {
      digit = digit << 1 | (groupSum >= 0 ? 1U : 0U);
      groupSum = 0;
      groupLeft = scale;
      if (++digitBits == 4) {
        appendDigit();
      }
    }
  }
  if (digitBits > 0 || groupLeft < scale) {
    digit <<= 4 - digitBits;
    appendDigit();
  }
  if (!buffer.empty()) {
    printed += "BITMAP,DATA," + buffer + (buffer.size() % 2 != 0 ? "0" : "") + "\n";
  }
  return printed + "BITMAP,FIRSTUNUSEDBLOCK," + std::to_string(firstUnused) +
         "\nBITMAP,LASTUSEDBLOCK," + std::to_string(lastUsed) + "\n";
}

}  // namespace

TEST(HFSPlusBitmapPicture, EightBlocksAtScaleOneAreTwoDigits) {
  MemoryBitmapVolume volume(8, 4096);
  volume.bytes[0] = std::byte{0xE0};
  EXPECT_EQ(pictureOf(volume, 1),
            "BITMAP,LENGTH,1\nBITMAP,DATA,E0\nBITMAP,FIRSTUNUSEDBLOCK,3\nBITMAP,LASTUSEDBLOCK,2\n");
}

TEST(HFSPlusBitmapPicture, AGroupHalfInUseShowsAsUsed) {
  MemoryBitmapVolume volume(16, 4096);
  volume.bytes[0] = std::byte{0b11000100};
  volume.bytes[1] = std::byte{0b01100111};
  EXPECT_EQ(
      pictureOf(volume, 4),
      "BITMAP,LENGTH,1\nBITMAP,DATA,B0\nBITMAP,FIRSTUNUSEDBLOCK,2\nBITMAP,LASTUSEDBLOCK,14\n");
}

TEST(HFSPlusBitmapPicture, AFullVolumeHasNoUnusedBlockUnlessItsLastByteIsPadded) {
  MemoryBitmapVolume volume(16, 4096);
  std::ranges::fill(volume.bytes, std::byte{0xFF});
  EXPECT_EQ(pictureOf(volume, 8),
            "BITMAP,LENGTH,1\nBITMAP,DATA,C0\nBITMAP,FIRSTUNUSEDBLOCK,4294967295\n"
            "BITMAP,LASTUSEDBLOCK,14\n");
  volume.header.totalBlocks = 13;
  volume.bytes[1] = std::byte{0xF8};
  EXPECT_EQ(pictureOf(volume, 8),
            "BITMAP,LENGTH,1\nBITMAP,DATA,C0\nBITMAP,FIRSTUNUSEDBLOCK,13\n"
            "BITMAP,LASTUSEDBLOCK,11\n");
}

TEST(HFSPlusBitmapPicture, TheBlocksOfTheAlternateHeaderAreNeverTheLastUsed) {
  MemoryBitmapVolume small(16, 512);
  small.bytes[1] = std::byte{0x03};
  EXPECT_TRUE(pictureOf(small, 1).ends_with("BITMAP,LASTUSEDBLOCK,0\n"));
  small.bytes[1] = std::byte{0x07};
  EXPECT_TRUE(pictureOf(small, 1).ends_with("BITMAP,LASTUSEDBLOCK,13\n"));
  MemoryBitmapVolume large(16, 1024);
  large.bytes[1] = std::byte{0x03};
  EXPECT_TRUE(pictureOf(large, 1).ends_with("BITMAP,LASTUSEDBLOCK,14\n"));
}

TEST(HFSPlusBitmapPicture, MaskedBlocksShowAsUsed) {
  MemoryBitmapVolume volume(32, 4096);
  EXPECT_EQ(pictureOf(volume, 1, 11),
            "BITMAP,LENGTH,4\nBITMAP,DATA,FFE00000\nBITMAP,FIRSTUNUSEDBLOCK,11\n"
            "BITMAP,LASTUSEDBLOCK,10\n");
  EXPECT_EQ(pictureOf(volume, 1, 4294967295U),
            "BITMAP,LENGTH,4\nBITMAP,DATA,FFFFFFFF\nBITMAP,FIRSTUNUSEDBLOCK,4294967295\n"
            "BITMAP,LASTUSEDBLOCK,30\n");
  EXPECT_TRUE(std::ranges::all_of(volume.bytes, [](std::byte b) { return b == std::byte{0}; }));
}

TEST(HFSPlusBitmapPicture, AVolumeOfNoOrOneBlockHasAPicture) {
  MemoryBitmapVolume one(1, 512);
  one.bytes[0] = std::byte{0x80};
  EXPECT_EQ(pictureOf(one, 1),
            "BITMAP,LENGTH,1\nBITMAP,DATA,80\nBITMAP,FIRSTUNUSEDBLOCK,1\nBITMAP,LASTUSEDBLOCK,0\n");
  MemoryBitmapVolume none(0, 512, 512);
  EXPECT_EQ(pictureOf(none, 1),
            "BITMAP,LENGTH,0\nBITMAP,FIRSTUNUSEDBLOCK,4294967295\nBITMAP,LASTUSEDBLOCK,0\n");
}

TEST(HFSPlusBitmapPicture, AGroupThatTheVolumeDoesNotFillShowsAsFree) {
  MemoryBitmapVolume volume(16, 4096);
  std::ranges::fill(volume.bytes, std::byte{0xFF});
  EXPECT_TRUE(pictureOf(volume, 4294967295U).starts_with("BITMAP,LENGTH,1\nBITMAP,DATA,00\n"));
  EXPECT_TRUE(pictureOf(volume, 5).starts_with("BITMAP,LENGTH,1\nBITMAP,DATA,E0\n"));
}

TEST(HFSPlusBitmapPicture, AFullLineHas4096Digits) {
  MemoryBitmapVolume volume(4 * 4096 * 2 + 1, 4096);
  std::string printed = pictureOf(volume, 1);
  std::string line = "BITMAP,DATA," + std::string(4096, '0') + "\n";
  EXPECT_TRUE(printed.starts_with("BITMAP,LENGTH,4097\n" + line + line +
                                  "BITMAP,DATA,00\nBITMAP,FIRSTUNUSEDBLOCK,0\n"));
}

TEST(HFSPlusBitmapPicture, AnUnreadableChunkEndsThePictureAfterWhatWasPrinted) {
  MemoryBitmapVolume volume(8 * 32768 * 3, 4096);
  volume.failingFrom = 32768;
  std::string printed = pictureOf(volume, 1);
  EXPECT_TRUE(printed.starts_with("BITMAP,LENGTH,98304\nBITMAP,DATA,0"));
  EXPECT_TRUE(printed.ends_with("0\nThe device is broken."));
  EXPECT_EQ(std::ranges::count(printed, '\n'), 1 + 32768 / 2048);
}

TEST(HFSPlusBitmapPicture, AnyBitmapAtAnyScaleLooksAsPlainCountingSays) {
  for (const uint32_t seed : testSeeds(300)) {
    TestRandom random(seed);
    uint32_t blockSize = 512U << random() % 8;
    uint32_t chunks = random() % 4;
    uint32_t perChunk = std::max(blockSize, 32768U) * 8;
    uint32_t total = chunks * perChunk + random() % 3000 + 1;
    constexpr uint32_t scales[] = {1,  2,  3,  4,  7,  8,   13,  31,  32,
                                   33, 62, 63, 64, 65, 100, 127, 4096};
    uint32_t scale =
        random() % 5 == 0 ? 1 + random() % 70000 : scales[random() % std::size(scales)];
    uint32_t masked = random() % 2 * (random() % (total + 100));
    SCOPED_TRACE("seed " + std::to_string(seed) + ", scale " + std::to_string(scale) + ", blocks " +
                 std::to_string(total));
    MemoryBitmapVolume volume(total, blockSize);
    volume.fillRandomly(random, 1 + random() % 3 * (scale + 3));
    if (random() % 2 == 0) {
      // A long stretch of free blocks, over the ends of chunks or up to one of them.
      const auto from = static_cast<ptrdiff_t>(random() % volume.bytes.size());
      const auto rest = static_cast<ptrdiff_t>(volume.bytes.size()) - from;
      std::fill_n(volume.bytes.begin() + from, random() % 2 == 0 ? rest : rest / 2, std::byte{0});
    }
    ASSERT_EQ(pictureOf(volume, scale, masked), plainPictureOf(volume, scale, masked));
  }
}
