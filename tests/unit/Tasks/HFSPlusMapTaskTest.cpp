#include "Tasks/HFSPlusMapTask.hpp"

#include <gtest/gtest.h>

#include <algorithm>

#include "HFSPlus/HFSPlusByteOrder.hpp"
#include "HFSPlus/HFSPlusFormat.hpp"
#include "unit/Tasks/TaskTranscript.hpp"

namespace {

using support::fork;
using support::forkAt;
using support::VolumeDescription;

Transcript map(HFSPlusVolume& volume, const std::string& options) {
  return transcriptOf<HFSPlusMapTask>(volume, "MAP" + options);
}

/// What MAP must print for an item, without the dates, by the checker's reading of the volume.
std::string expectedLine(const volumecheck::VolumeTruth& truth,
                         const volumecheck::CatalogItem& item) {
  const std::string path = escaped(printedPath(item));
  if (item.type == volumecheck::RecordType::Folder) {
    return LWFormat("MAP,DIR,%u,%u,%s", item.parentID, item.cnid, path);
  }
  return LWFormat("MAP,FILE,%u,%u,%s,D,%08X,%08X%s", item.parentID, item.cnid, path, item.fileType,
                  item.fileCreator, extentsOf(truth, item.cnid));
}

bool isItem(const volumecheck::CatalogItem& item) {
  return item.type == volumecheck::RecordType::File || item.type == volumecheck::RecordType::Folder;
}

void expectEveryItemByIDAndByPath(OpenedVolume& volume) {
  std::string byID;
  Transcript expected;
  for (const auto& item : volume.truth().items) {
    if (isItem(item)) {
      const std::string line = expectedLine(volume.truth(), item);
      byID += LWFormat(" -i %u", item.cnid);
      expected.push_back(line);
      // A path is one word of a line.
      if (item.cnid != 2 && item.path.find_first_of(std::string(" \t\0", 3)) == std::string::npos) {
        EXPECT_EQ(withoutDates(dataLines(map(*volume, " -p " + item.path))), Transcript{line});
      }
    }
  }
  EXPECT_EQ(withoutDates(dataLines(map(*volume, byID))), expected);
}

/// "/a" (a file in pieces), "/folder" and "/folder/x:y,z".
VolumeDescription smallVolume() {
  VolumeDescription description;
  description.root().addFile("a", fork(12 * 4096, 12), fork(3 * 4096, 3));
  description.root().addFolder("folder").addFile(std::u16string(u"x/y,z"), fork(10));
  return description;
}

TEST(HFSPlusMapTask, MapsEveryItemByIDAndByPath) {
  OpenedVolume volume(smallVolume());
  expectEveryItemByIDAndByPath(volume);
}

TEST(HFSPlusMapTask, MapsTheRootFolder) {
  OpenedVolume volume(smallVolume());
  EXPECT_EQ(map(*volume, " --cnid 2"), (Transcript{"MAP,START", "MAP,DIR,1,2,", "MAP,DONE"}));
}

TEST(HFSPlusMapTask, MapsSeveralItemsInTheOrderOfTheOptions) {
  OpenedVolume volume(smallVolume());
  const auto& truth = volume.truth();
  const auto& a = *truth.findItem("/a");
  const auto& folder = *truth.findItem("/folder");
  EXPECT_EQ(withoutDates(
                dataLines(map(*volume, LWFormat(" --path /a --cnid %u -p /folder", folder.cnid)))),
            (Transcript{expectedLine(truth, a), expectedLine(truth, folder),
                        expectedLine(truth, folder)}));
}

TEST(HFSPlusMapTask, DatesWrapAround) {
  VolumeDescription description;
  const uint32_t id = description.root().addFile("dated").id;
  auto image = support::buildVolume(description).image;
  const std::u16string_view name = u"dated";
  std::vector<std::byte> pattern;
  for (const char16_t unit : name) {
    pattern.push_back(std::byte{0});
    pattern.push_back(static_cast<std::byte>(unit));
  }
  pattern.push_back(std::byte{0});
  pattern.push_back(static_cast<std::byte>(kHFSPlusFileRecord));
  const auto found = std::ranges::search(image, pattern);
  ASSERT_FALSE(found.empty());
  std::byte* record = &*found.end() - 2;
  writeBigEndian(record + offsetof(HFSPlusCatalogFile, createDate), uint32_t{0});
  writeBigEndian(record + offsetof(HFSPlusCatalogFile, contentModDate), uint32_t{0xFFFFFFFF});
  writeBigEndian(record + offsetof(HFSPlusCatalogFile, accessDate), uint32_t{2082844801});
  OpenedVolume volume(std::move(image));
  EXPECT_EQ(dataLines(map(*volume, LWFormat(" -i %u", id))),
            (Transcript{
                LWFormat("MAP,FILE,2,%u,/dated,-2082844800,-2082844801,1,00000000,00000000", id)}));
}

TEST(HFSPlusMapTask, WithoutOptionsThereIsNothingToMap) {
  OpenedVolume volume(smallVolume());
  EXPECT_EQ(map(*volume, ""),
            (Transcript{"MAP,START", "MAP,ERROR,No options specified.", "MAP,DONE"}));
}

TEST(HFSPlusMapTask, AnIDMustBeANumberOf32Bits) {
  OpenedVolume volume(smallVolume());
  for (const std::string word : {"0", "-1", "4294967296", "99999999999999999999", "x", "-"}) {
    EXPECT_EQ(map(*volume, " --cnid " + word),
              (Transcript{"MAP,START", "MAP,ERROR," + word + " is not a valid CNID.", "MAP,DONE"}));
  }
  EXPECT_EQ(map(*volume, " -i 2x"), map(*volume, " -i 2"));
  EXPECT_EQ(map(*volume, " -i 4294967295"),
            (Transcript{"MAP,START", "MAP,ERROR,Lookup failed for CNID 4294967295.", "MAP,DONE"}));
}

TEST(HFSPlusMapTask, AnOptionNeedsItsArgument) {
  OpenedVolume volume(smallVolume());
  for (const std::string option : {"-i", "--cnid", "-p", "--path"}) {
    EXPECT_EQ(map(*volume, " " + option),
              (Transcript{"MAP,START", "MAP,ERROR,Option " + option + " requires an argument.",
                          "MAP,DONE"}));
    const auto lines = map(*volume, " -i 2 " + option);
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines[1], "MAP,DIR,1,2,");
    EXPECT_EQ(lines[2], "MAP,ERROR,Option " + option + " requires an argument.");
  }
}

TEST(HFSPlusMapTask, AnUnknownWordIsReportedAfterTheLines) {
  OpenedVolume volume(smallVolume());
  EXPECT_EQ(map(*volume, " now --cnid 2"),
            (Transcript{"MAP,START", "MAP,DIR,1,2,", "MAP,ERROR,Unknown option: now", "MAP,DONE"}));
}

TEST(HFSPlusMapTask, ALaterErrorReplacesThatOfAnUnknownWord) {
  OpenedVolume volume(smallVolume());
  EXPECT_EQ(map(*volume, " now --cnid 9999 --cnid 2"),
            (Transcript{"MAP,START", "MAP,ERROR,Lookup failed for CNID 9999.", "MAP,DONE"}));
  EXPECT_EQ(map(*volume, " one two"),
            (Transcript{"MAP,START", "MAP,ERROR,Unknown option: two", "MAP,DONE"}));
}

TEST(HFSPlusMapTask, APathThatIsNotFoundIsEscapedTwice) {
  OpenedVolume volume(smallVolume());
  EXPECT_EQ(
      map(*volume, " -p /no,such\\thing"),
      (Transcript{"MAP,START", "MAP,ERROR,Lookup failed for path /no\\\\\\,such\\\\\\\\thing.",
                  "MAP,DONE"}));
}

TEST(HFSPlusMapTask, ThePathOfAMissingItemMapsTheDeepestFolderFound) {
  OpenedVolume volume(smallVolume());
  const auto& folder = *volume.truth().findItem("/folder");
  EXPECT_EQ(dataLines(map(*volume, " -p /folder/missing/more")),
            (Transcript{expectedLine(volume.truth(), folder)}));
}

TEST(HFSPlusMapTask, AMissingOverflowRecordEndsItsLineAndTheWalk) {
  auto description = smallVolume();
  const uint32_t id = description.root().files().front().id;
  auto image = support::buildVolume(description).image;
  loseOverflowRecord(image, id, 8);
  OpenedVolume volume(std::move(image));
  const auto lines = withoutDates(map(*volume, " -p /a -i 2"));
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_TRUE(lines[1].starts_with(LWFormat("MAP,FILE,2,%u,/a,D,", id)));
  EXPECT_EQ(lines[2], "MAP,ERROR,Overflow extent record missing.");
}

TEST(HFSPlusMapTask, AnItemWithoutPathCannotBeMapped) {
  VolumeDescription description;
  auto& folder = description.root().addFolder("folder");
  const uint32_t id = folder.addFile("inside").id;
  auto image = support::buildVolume(description).image;
  // The folder's own thread moves to an ID that nobody asks for.
  std::vector<std::byte> key(10);
  writeBigEndian(&key[0], uint16_t{6});
  writeBigEndian(&key[2], folder.id);
  writeBigEndian(&key[8], kHFSPlusFolderThreadRecord);
  const auto found = std::ranges::search(image, key);
  ASSERT_FALSE(found.empty());
  writeBigEndian(&*found.begin() + 8, int16_t{9});
  OpenedVolume volume(std::move(image));
  EXPECT_EQ(map(*volume, LWFormat(" -i %u", id)),
            (Transcript{"MAP,START", LWFormat("MAP,ERROR,Path lookup failed for CNID %u.", id),
                        "MAP,DONE"}));
}

TEST(HFSPlusMapTask, MapsEveryItemOfRealVolumes) {
  const auto paths = realVolumes();
  if (paths.empty()) {
    GTEST_SKIP() << "XRDEFRAG_REAL_VOLUMES names no folder of volumes";
  }
  for (const auto& path : paths) {
    SCOPED_TRACE(path);
    OpenedVolume volume(bytesOfFile(path));
    expectEveryItemByIDAndByPath(volume);
  }
}

}  // namespace
