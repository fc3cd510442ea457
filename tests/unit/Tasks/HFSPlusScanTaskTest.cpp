#include "Tasks/HFSPlusScanTask.hpp"

#include <gtest/gtest.h>

#include <algorithm>

#include "HFSPlus/HFSPlusByteOrder.hpp"
#include "HFSPlus/HFSPlusFormat.hpp"
#include "unit/Tasks/TaskTranscript.hpp"

namespace {

using support::fork;
using support::forkAt;
using support::VolumeDescription;

Transcript scan(HFSPlusVolume& volume, const std::string& options = "") {
  return transcriptOf<HFSPlusScanTask>(volume, "SCAN" + options);
}

/// What SCAN must list, without the dates, by the checker's reading of the volume.
Transcript expectedLines(const volumecheck::VolumeTruth& truth, bool fullPaths) {
  Transcript lines;
  for (const auto& item : truth.items) {
    if (item.type == volumecheck::RecordType::File) {
      const std::string& path = item.path;
      const std::string name = fullPaths ? path : path.substr(path.rfind('/') + 1);
      lines.push_back(LWFormat("SCAN,FILE,%u,%u,%s,D,%08X,%08X%s", item.parentID, item.cnid,
                               escaped(name), item.fileType, item.fileCreator,
                               extentsOf(truth, item.cnid)));
    }
  }
  std::ranges::sort(lines);
  return lines;
}

Transcript sortedWithoutDates(const Transcript& transcript) {
  auto lines = withoutDates(dataLines(transcript));
  std::ranges::sort(lines);
  return lines;
}

/// Byte offset in the image of the record of a file with a name that no other item has.
size_t recordOffset(const std::vector<std::byte>& image, std::u16string_view name) {
  std::vector<std::byte> pattern(2 + 2 * name.size() + 2);
  writeBigEndian(pattern.data(), static_cast<uint16_t>(name.size()));
  for (size_t unit = 0; unit < name.size(); unit++) {
    writeBigEndian(pattern.data() + 2 + 2 * unit, static_cast<uint16_t>(name[unit]));
  }
  writeBigEndian(pattern.data() + pattern.size() - 2, kHFSPlusFileRecord);
  const auto found = std::ranges::search(image, pattern);
  EXPECT_FALSE(found.empty());
  return static_cast<size_t>(found.begin() - image.begin()) + pattern.size() - 2;
}

TEST(HFSPlusScanTask, ListsEveryFileWithEveryField) {
  VolumeDescription description;
  auto& file = description.root().addFile("letter", forkAt({{100, 2}, {110, 3}}, 5 * 4096),
                                          forkAt({{120, 1}}, 100));
  file.type = 0x54455854;
  file.creator = 0xABCD0123;
  description.size = 8 << 20;
  auto image = support::buildVolume(description).image;
  const size_t record = recordOffset(image, u"letter");
  writeBigEndian(&image[record + offsetof(HFSPlusCatalogFile, createDate)], uint32_t{0});
  writeBigEndian(&image[record + offsetof(HFSPlusCatalogFile, contentModDate)],
                 uint32_t{2082844800});
  writeBigEndian(&image[record + offsetof(HFSPlusCatalogFile, accessDate)], uint32_t{0xFFFFFFFF});
  OpenedVolume volume(std::move(image));
  EXPECT_EQ(scan(*volume),
            (Transcript{"SCAN,START",
                        LWFormat("SCAN,FILE,2,%u,letter,-2082844800,0,2212122495,54455854,ABCD0123"
                                 ",100,2,110,3,120,1",
                                 file.id),
                        "SCAN,DONE"}));
}

TEST(HFSPlusScanTask, AnEmptyFileHasNoExtents) {
  VolumeDescription description;
  const uint32_t id = description.root().addFile("nothing").id;
  OpenedVolume volume(description);
  EXPECT_EQ(sortedWithoutDates(scan(*volume)),
            (Transcript{LWFormat("SCAN,FILE,2,%u,nothing,D,00000000,00000000", id)}));
  EXPECT_EQ(scan(*volume, " --frag-only"), (Transcript{"SCAN,START", "SCAN,DONE"}));
}

TEST(HFSPlusScanTask, ListsOverflowExtentsBeforeTheResourceFork) {
  VolumeDescription description;
  const uint32_t id =
      description.root().addFile("pieces", fork(40 * 4096, 20), fork(12 * 4096, 12)).id;
  OpenedVolume volume(description);
  const auto& truth = volume.truth();
  ASSERT_EQ(truth.findFork(id, volumecheck::ForkType::Data)->extents.size(), 20U);
  ASSERT_EQ(truth.findFork(id, volumecheck::ForkType::Resource)->extents.size(), 12U);
  EXPECT_EQ(sortedWithoutDates(scan(*volume)), expectedLines(truth, false));
}

/// A tree with every escape, forks in pieces, links and folders in folders.
VolumeDescription mixedVolume(uint64_t seed) {
  VolumeDescription description;
  description.seed = seed;
  auto& root = description.root();
  root.addFile(std::u16string(u"a,b\\c/d\0e", 9), fork(3 * 4096, 3));
  root.addFile("r\u00E9sum\u00E9", fork(10), fork(9 * 4096, 9));
  auto& folder = root.folderAt("one/two, three/four");
  for (int index = 0; index < 60; index++) {
    folder.addFile(LWFormat("file %d", index),
                   fork(static_cast<uint64_t>(index) * 1500, index % 17 == 0 ? 12 : 1));
    root.addFile(LWFormat("%d", index), fork(4096, 1));
  }
  auto& inode = description.addInode(fork(5 * 4096, 2));
  root.addHardLink("hard", inode);
  root.addSymbolicLink("soft", "one");
  return description;
}

TEST(HFSPlusScanTask, PrintsWhatTheCheckerReads) {
  for (const bool hfsx : {false, true}) {
    auto description = mixedVolume(hfsx ? 7 : 8);
    description.hfsx = description.binaryNames = hfsx;
    OpenedVolume volume(description);
    EXPECT_EQ(sortedWithoutDates(scan(*volume)), expectedLines(volume.truth(), false));
    for (const char* option : {" --full-paths", " -f"}) {
      EXPECT_EQ(sortedWithoutDates(scan(*volume, option)), expectedLines(volume.truth(), true));
    }
  }
}

TEST(HFSPlusScanTask, FragOnlyListsFilesWithAForkInPieces) {
  OpenedVolume volume(mixedVolume(9));
  const auto& truth = volume.truth();
  Transcript expected = expectedLines(truth, false);
  std::erase_if(expected, [&](const std::string& line) {
    const auto cnid = static_cast<uint32_t>(std::stoul(line.substr(line.find(',', 10) + 1)));
    return std::ranges::all_of(
        std::array{volumecheck::ForkType::Data, volumecheck::ForkType::Resource},
        [&](auto type) { return truth.findFork(cnid, type)->extents.size() <= 1; });
  });
  ASSERT_GE(expected.size(), 4U);
  EXPECT_EQ(sortedWithoutDates(scan(*volume, " --frag-only")), expected);
}

TEST(HFSPlusScanTask, ScansSparseCatalogsAlike) {
  auto description = mixedVolume(10);
  description.catalog.totalNodes = 400;
  description.catalog.order = support::NodeOrder::scattered;
  description.catalog.junkInFreeNodes = true;
  OpenedVolume volume(description);
  EXPECT_EQ(sortedWithoutDates(scan(*volume, " -f")), expectedLines(volume.truth(), true));
}

TEST(HFSPlusScanTask, AnUnknownOptionIsReportedAfterTheLines) {
  VolumeDescription description;
  description.root().addFile("only");
  OpenedVolume volume(description);
  const auto lines = scan(*volume, " --what,ever --full-paths");
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines[0], "SCAN,START");
  EXPECT_TRUE(lines[1].starts_with("SCAN,FILE,2,") && lines[1].contains(",/only,")) << lines[1];
  EXPECT_EQ(lines[2], "SCAN,ERROR,Unknown option: --what\\,ever");
  EXPECT_EQ(lines[3], "SCAN,DONE");
}

/// An image with a file in twelve pieces that has lost its overflow record.
std::vector<std::byte> imageWithoutOverflowRecord(uint32_t& id) {
  VolumeDescription description;
  id = description.root().addFile("broken", fork(12 * 4096, 12)).id;
  description.root().addFile("later", fork(4096, 1));
  auto image = support::buildVolume(description).image;
  loseOverflowRecord(image, id, 8);
  return image;
}

TEST(HFSPlusScanTask, AMissingOverflowRecordEndsItsLineAndTheScan) {
  uint32_t id = 0;
  OpenedVolume volume(imageWithoutOverflowRecord(id));
  const auto lines = withoutDates(scan(*volume));
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_TRUE(lines[1].starts_with(LWFormat("SCAN,FILE,2,%u,broken,D,00000000,00000000,", id)));
  EXPECT_EQ(std::ranges::count(lines[1], ','), 7 + 16);
  EXPECT_EQ(lines[2], "SCAN,ERROR,Overflow extent record missing.");
  EXPECT_EQ(lines[3], "SCAN,DONE");
}

TEST(HFSPlusScanTask, AFileWithoutPathEndsAScanForFullPaths) {
  VolumeDescription description;
  const uint32_t id = description.root().addFolder("folder").addFile("inside").id;
  auto image = support::buildVolume(description).image;
  // The key of the file's record names a folder that does not exist.
  const size_t record = recordOffset(image, u"inside");
  writeBigEndian(&image[record - 2 * 6 - 6], uint32_t{12345});
  OpenedVolume volume(std::move(image));
  EXPECT_EQ(scan(*volume, " -f"),
            (Transcript{"SCAN,START", LWFormat("SCAN,ERROR,Path lookup failed for file ID %u.", id),
                        "SCAN,DONE"}));
  EXPECT_EQ(dataLines(scan(*volume)).size(), 1U);
}

TEST(HFSPlusScanTask, ACancelledScanReportsNoError) {
  OpenedVolume volume(mixedVolume(11));
  auto event = std::make_shared<LWToolEvent>(LWToolEvent::Type::String, "SCAN",
                                             [](const std::shared_ptr<LWToolEvent>&) {});
  const auto task = std::make_shared<HFSPlusScanTask>(*volume, std::move(event));
  task->abort();
  EXPECT_EQ(transcriptOf(task), (Transcript{"SCAN,START", "SCAN,DONE"}));
}

TEST(HFSPlusScanTask, PrintsWhatTheCheckerReadsOfRealVolumes) {
  const auto paths = realVolumes();
  if (paths.empty()) {
    GTEST_SKIP() << "XRDEFRAG_REAL_VOLUMES names no folder of volumes";
  }
  for (const auto& path : paths) {
    SCOPED_TRACE(path);
    OpenedVolume volume(bytesOfFile(path));
    EXPECT_EQ(sortedWithoutDates(scan(*volume)), expectedLines(volume.truth(), false));
    EXPECT_EQ(sortedWithoutDates(scan(*volume, " -f")), expectedLines(volume.truth(), true));
  }
}

}  // namespace
