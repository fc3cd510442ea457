#include <gtest/gtest.h>

#include "support/OutsideReadersDigest.hpp"
#include "support/VolumeCheckerFindings.hpp"
#include "support/VolumeCheckerHash.hpp"
#include "support/VolumeCheckerNames.hpp"
#include "support/VolumeCheckerSource.hpp"

using namespace volumecheck;
using namespace std::string_literals;

namespace {

TEST(VolumeCheckerNames, FoldsCaseAndPassesOverIgnoredUnits) {
  EXPECT_EQ(compareFolded(u"ReadMe", u"readme"), 0);
  EXPECT_EQ(compareFolded(u"a\u200Db", u"AB"), 0);
  EXPECT_LT(compareFolded(u"abc", u"ABD"), 0);
  EXPECT_LT(compareFolded(u"ab", u"abc"), 0);
  EXPECT_GT(compareFolded(u"\u0416", u"\u0435"), 0);
  EXPECT_EQ(compareFolded(u"\u0410", u"\u0430"), 0);
  EXPECT_EQ(compareFolded(u"", u"\uFEFF"), 0);
}

TEST(VolumeCheckerNames, PutsTheNullUnitLast) {
  EXPECT_GT(compareFolded(std::u16string(1, u'\0') + u"x", u"zzz"), 0);
}

TEST(VolumeCheckerNames, ComparesUnitsAsTheyAreWhenBinary) {
  EXPECT_GT(compareBinary(u"a", u"B"), 0);
  EXPECT_LT(compareBinary(u"a", u"a "), 0);
  EXPECT_LT(compareBinary(u"\u00FF", u"\u0100"), 0);
}

TEST(VolumeCheckerNames, KnowsWhatIsDecomposed) {
  EXPECT_TRUE(isDecomposed(u"plain"));
  EXPECT_TRUE(isDecomposed(u"e\u0301"));
  EXPECT_FALSE(isDecomposed(u"\u00E9"));
  EXPECT_FALSE(isDecomposed(u"\uAC00"));
  EXPECT_TRUE(isDecomposed(u"\u1100\u1161"));
  EXPECT_TRUE(isDecomposed(u"o\u0323\u0302"));
  EXPECT_FALSE(isDecomposed(u"o\u0302\u0323"));
}

TEST(VolumeCheckerNames, ShowsNamesAsUtf8WithColonsForSlashes) {
  EXPECT_EQ(displayName(u"a/b"), "a:b");
  EXPECT_EQ(displayName(u"\u00E9\u4E2D"), "\xC3\xA9\xE4\xB8\xAD");
  EXPECT_EQ(displayName(u"\U0001F308"), "\xF0\x9F\x8C\x88");
  EXPECT_EQ(displayName(std::u16string(1, char16_t{0xD800})), "\xED\xA0\x80");
}

TEST(StreamHasher, CountsAHoleLikeWrittenZeros) {
  for (const std::size_t hole : {0, 1, 100, 4095, 4096, 4097, 100000}) {
    for (const std::size_t before : {0, 7, 4096, 5000}) {
      const std::vector<std::uint8_t> head(before, 0xAB);
      const std::vector<std::uint8_t> zeros(hole, 0);
      StreamHasher written;
      StreamHasher skipped;
      for (StreamHasher* hasher : {&written, &skipped}) {
        hasher->update(head);
        hasher == &written ? hasher->update(zeros) : hasher->skipZeros(hole);
        hasher->update(head);
      }
      EXPECT_EQ(written.finish(), skipped.finish()) << hole << " after " << before;
    }
  }
}

TEST(StreamHasher, DependsOnEveryByteItsPlaceAndTheLength) {
  std::vector<std::uint8_t> bytes(20000);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    bytes[i] = static_cast<std::uint8_t>(i * 7 + i / 256);
  }
  const Hash128 hash = hashOf(bytes);
  for (const std::size_t at : {0, 1, 4095, 4096, 12345, 19999}) {
    bytes[at] ^= 1;
    EXPECT_NE(hashOf(bytes), hash) << at;
    bytes[at] ^= 1;
  }
  EXPECT_NE(hashOf(Bytes(bytes).first(19999)), hash);
  std::swap_ranges(bytes.begin(), bytes.begin() + 4096, bytes.begin() + 4096);
  EXPECT_NE(hashOf(bytes), hash);
  EXPECT_NE(hashOf(std::vector<std::uint8_t>(1)), hashOf({}));
  EXPECT_NE(hashOf(std::vector<std::uint8_t>(4096)), hashOf(std::vector<std::uint8_t>(8192)));
}

TEST(StreamHasher, DoesNotCareHowTheBytesArrive) {
  const std::vector<std::uint8_t> bytes(10000, 0x5A);
  StreamHasher hasher;
  for (std::size_t at = 0; at < bytes.size(); at += 37) {
    hasher.update(Bytes(bytes).subspan(at, std::min<std::size_t>(37, bytes.size() - at)));
  }
  EXPECT_EQ(hasher.finish(), hashOf(bytes));
}

TEST(VolumeCheckerForkReader, ReadsAcrossExtentsAndNotBeyond) {
  std::vector<std::uint8_t> volume(10 * 512);
  for (std::size_t i = 0; i < volume.size(); ++i) {
    volume[i] = static_cast<std::uint8_t>(i / 512);
  }
  const VolumeCheckerSource source{Bytes(volume)};
  const VolumeCheckerForkReader reader(source, 512, {{7, 1}, {2, 2}});
  EXPECT_EQ(reader.mappedSize(), 1536u);
  std::vector<std::uint8_t> bytes(1536);
  ASSERT_TRUE(reader.read(0, bytes));
  EXPECT_EQ(bytes[511], 7);
  EXPECT_EQ(bytes[512], 2);
  EXPECT_EQ(bytes[1535], 3);
  EXPECT_FALSE(reader.read(1, bytes));
  EXPECT_FALSE(reader.read(2000, std::span(bytes).first(1)));
}

TEST(FindingKinds, HaveNamesThatLeadBackToThem) {
  for (const FindingKind kind : allFindingKinds()) {
    EXPECT_EQ(findingKindNamed(nameOf(kind)), kind);
  }
  EXPECT_EQ(findingKindNamed("NoSuchKind"), std::nullopt);
}

TEST(FindingLog, SumsUpWhatThereIsTooMuchOf) {
  FindingLog log;
  for (unsigned i = 0; i < 150; ++i) {
    log.add(FindingKind::FreeBlocks, "Number %u.", i);
  }
  const std::vector<Finding> findings = log.findings();
  ASSERT_EQ(findings.size(), 101u);
  EXPECT_EQ(findings[99].sentence, "Number 99.");
  EXPECT_EQ(findings[100].sentence, "There are 50 more findings of the kind FreeBlocks.");
}

std::string md5Of(const std::string& text) {
  outsidereaders::Md5 md5;
  md5.update({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
  return md5.finish();
}

TEST(Md5, GivesThePublishedDigests) {
  EXPECT_EQ(md5Of(""), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(md5Of("abc"), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(md5Of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"),
            "d174ab98d277d9f5a5611c2c9f419d9f");
  EXPECT_EQ(md5Of(std::string(8, '1') + std::string(48, '2')).size(), 32u);
}

}  // namespace
