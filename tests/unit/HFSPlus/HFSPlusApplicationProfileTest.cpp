#include "HFSPlus/HFSPlusApplicationProfile.hpp"

#include <gtest/gtest.h>

#include <chrono>

#include "HFSPlus/HFSPlusFileForkSet.hpp"
#include "unit/HFSPlus/MemoryCatalog.hpp"

namespace {

using Forks = std::vector<std::pair<uint32_t, uint8_t>>;

constexpr uint32_t kApplications = 20;
constexpr HFSPlusForkData kFull{1, 0, 0, {}};

MemoryCatalog catalogWithApplications() {
  MemoryCatalog memory;
  memory.addFolder(kHFSRootParentID, u"Volume", kHFSRootFolderID);
  memory.addFolder(kHFSRootFolderID, u"Applications", kApplications);
  return memory;
}

Forks membersOf(const HFSPlusFileForkSet& set) {
  Forks forks;
  for (size_t i = 0; i < set.count(); ++i) {
    forks.emplace_back(set.fileForkAtIndex(i).fileID, set.fileForkAtIndex(i).forkType);
  }
  return forks;
}

/// The error of a profile, or its forks.
std::string profileOf(MemoryCatalog& memory, HFSPlusFileForkSet& set) {
  memory.build();
  const auto catalog = memory.open();
  const auto profile = HFSPlusApplicationProfile::addFileForks(*catalog, set);
  if (profile) {
    return *profile == HFSPlusProfile::Added ? "added" : "absent";
  }
  return errorOf(profile);
}

TEST(HFSPlusApplicationProfile, TakesAFoldersFilesThenItsSubFoldersDepthFirst) {
  MemoryCatalog memory = catalogWithApplications();
  memory.addFolder(kApplications, u"a", 30);
  memory.addFile(kApplications, u"b", 31, kFull);
  memory.addFolder(kApplications, u"c", 32);
  memory.addFile(kApplications, u"d", 33, kFull);
  memory.addFolder(30, u"x", 34);
  memory.addFile(30, u"y", 35, kFull);
  memory.addFolder(30, u"z", 36);
  memory.addFile(34, u"in x", 37, kFull);
  memory.addFile(36, u"in z", 38, kFull);
  memory.addFile(32, u"in c", 39, kFull);
  memory.addFile(kHFSRootFolderID, u"elsewhere", 40, kFull);
  HFSPlusFileForkSet set;
  EXPECT_EQ(profileOf(memory, set), "added");
  EXPECT_EQ(membersOf(set), (Forks{{31, 0}, {33, 0}, {35, 0}, {37, 0}, {38, 0}, {39, 0}}));
}

TEST(HFSPlusApplicationProfile, TakesBothForksOfAFileAndLeavesEmptyOnesOut) {
  MemoryCatalog memory = catalogWithApplications();
  memory.addFile(kApplications, u"a", 30, kFull, kFull);
  memory.addFile(kApplications, u"b", 31);
  memory.addFile(kApplications, u"c", 32, {}, kFull);
  HFSPlusFileForkSet set;
  EXPECT_EQ(profileOf(memory, set), "added");
  EXPECT_EQ(membersOf(set), (Forks{{30, 0}, {30, 0xFF}, {32, 0xFF}}));
}

TEST(HFSPlusApplicationProfile, AForkThatIsAMemberKeepsItsPlace) {
  MemoryCatalog memory = catalogWithApplications();
  memory.addFile(kApplications, u"a", 30, kFull);
  memory.addFile(kApplications, u"b", 31, kFull);
  HFSPlusFileForkSet set;
  set.add(31, kHFSDataForkType);
  EXPECT_EQ(profileOf(memory, set), "added");
  EXPECT_EQ(membersOf(set), (Forks{{31, 0}, {30, 0}}));
}

TEST(HFSPlusApplicationProfile, IsAbsentWithoutTheFolder) {
  HFSPlusFileForkSet set;
  MemoryCatalog nothing;
  nothing.addFolder(kHFSRootParentID, u"Volume", kHFSRootFolderID);
  EXPECT_EQ(profileOf(nothing, set), "absent");
  MemoryCatalog file;
  file.addFolder(kHFSRootParentID, u"Volume", kHFSRootFolderID);
  file.addFile(kHFSRootFolderID, u"Applications", 30, kFull);
  EXPECT_EQ(profileOf(file, set), "absent");
  EXPECT_TRUE(set.empty());
}

TEST(HFSPlusApplicationProfile, AFolderThatHoldsItselfIsAnError) {
  MemoryCatalog memory = catalogWithApplications();
  memory.addFolder(kApplications, u"a", 30);
  memory.addFolder(30, u"b", kApplications);
  HFSPlusFileForkSet set;
  EXPECT_EQ(profileOf(memory, set), "Catalog file is inconsistent.");
}

TEST(HFSPlusApplicationProfile, WalksFiftyThousandFilesInNestedFoldersQuickly) {
  MemoryCatalog memory = catalogWithApplications();
  memory.nodeSize = 4096;
  uint32_t id = kApplications;
  uint32_t folder = kApplications;
  for (uint32_t i = 0; i < 1000; ++i) {
    // Ten chains of a hundred folders, each in the one before it.
    folder = i % 100 == 0 ? kApplications : folder;
    memory.addFolder(folder, u"folder " + std::u16string(1 + i / 100, u'n'), ++id);
    folder = id;
    for (uint32_t j = 0; j < 50; ++j) {
      const std::u16string name = {u'f', static_cast<char16_t>(u'A' + j / 10),
                                   static_cast<char16_t>(u'0' + j % 10)};
      memory.addFile(folder, name, ++id, kFull);
    }
  }
  memory.build();
  const auto catalog = memory.open();
  HFSPlusFileForkSet set;
  const auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(HFSPlusApplicationProfile::addFileForks(*catalog, set));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
  ASSERT_EQ(set.count(), 50000u);
  for (uint32_t i = 0; i < set.count(); ++i) {
    // Files lie in the order in which they were added, one folder between every fifty.
    ASSERT_EQ(set.fileForkAtIndex(i).fileID, kApplications + 2 + i + i / 50);
  }
}

}  // namespace
