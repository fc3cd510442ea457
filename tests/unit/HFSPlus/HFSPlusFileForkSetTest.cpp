#include "HFSPlus/HFSPlusFileForkSet.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <utility>
#include <vector>

#include "HFSPlus/HFSPlusFormat.hpp"

#include "support/doubles/TestRandom.hpp"

namespace {

std::vector<HFSPlusFileFork> membersOf(const HFSPlusFileForkSet& set) {
  std::vector<HFSPlusFileFork> members;
  for (size_t index = 0; index < set.count(); ++index) {
    members.push_back(set.fileForkAtIndex(index));
  }
  return members;
}

}  // namespace

TEST(HFSPlusFileForkSet, AForkAddedTwiceIsOneMember) {
  HFSPlusFileForkSet set;
  set.add(16, kHFSDataForkType);
  set.add(16, kHFSDataForkType);
  EXPECT_EQ(set.count(), 1U);
  set.add(16, kHFSResourceForkType);
  EXPECT_EQ(membersOf(set), (std::vector<HFSPlusFileFork>{{16, 0x00}, {16, 0xFF}}));
}

TEST(HFSPlusFileForkSet, AnEmptySetContainsNothing) {
  HFSPlusFileForkSet set;
  EXPECT_TRUE(set.empty());
  EXPECT_FALSE(set.contains(0, 0));
  EXPECT_FALSE(set.contains(16, kHFSDataForkType));
}

TEST(HFSPlusFileForkSet, RemovingTheFirstOfThreeMakesTheSecondTheFirst) {
  HFSPlusFileForkSet set;
  set.add(20, kHFSDataForkType);
  set.add(18, kHFSDataForkType);
  set.add(19, kHFSResourceForkType);
  set.removeFileForkAtIndex(0);
  EXPECT_EQ(set.fileForkAtIndex(0), (HFSPlusFileFork{18, kHFSDataForkType}));
  EXPECT_FALSE(set.contains(20, kHFSDataForkType));
  EXPECT_TRUE(set.contains(18, kHFSDataForkType));
  EXPECT_TRUE(set.contains(19, kHFSResourceForkType));
}

TEST(HFSPlusFileForkSet, ARemovedForkThatIsAddedAgainComesLast) {
  HFSPlusFileForkSet set;
  set.add(1, 0);
  set.add(2, 0);
  set.removeFileForkAtIndex(0);
  set.add(1, 0);
  EXPECT_EQ(membersOf(set), (std::vector<HFSPlusFileFork>{{2, 0}, {1, 0}}));
}

TEST(HFSPlusFileForkSet, AMovedSetKeepsItsMembers) {
  HFSPlusFileForkSet set;
  set.add(16, 0);
  set.add(17, 0);
  HFSPlusFileForkSet other = std::move(set);
  EXPECT_EQ(membersOf(other), (std::vector<HFSPlusFileFork>{{16, 0}, {17, 0}}));
}

TEST(HFSPlusFileForkSet, AnIndexOutsideTheSetStopsTheProcess) {
  HFSPlusFileForkSet set;
  set.add(16, 0);
  EXPECT_DEATH(static_cast<void>(set.fileForkAtIndex(1)), "");
  EXPECT_DEATH(set.removeFileForkAtIndex(1), "");
}

TEST(HFSPlusFileForkSet, BehavesLikeAListWithoutRepetitions) {
  for (const uint32_t seed : testSeeds(20)) {
    SCOPED_TRACE(seedText(seed));
    TestRandom random(seed);
    HFSPlusFileForkSet set;
    std::vector<HFSPlusFileFork> model;
    for (int step = 0; step < 4000; ++step) {
      HFSPlusFileFork fork{static_cast<uint32_t>(random() % 300),
                           static_cast<uint8_t>(random() % 2 * 0xFF)};
      bool isMember = std::ranges::find(model, fork) != model.end();
      ASSERT_EQ(set.contains(fork.fileID, fork.forkType), isMember);
      if (random() % 20 == 0 && !model.empty()) {
        // Some are taken away from the front, and some of these put back.
        const size_t taken = random() % model.size();
        const size_t kept = random() % (taken + 1);
        for (size_t i = 0; i < taken; ++i) {
          set.removeFileForkAtIndex(0);
        }
        const auto begin = model.begin() + static_cast<std::ptrdiff_t>(kept);
        const auto end = model.begin() + static_cast<std::ptrdiff_t>(taken);
        set.addInFront({begin, end});
        model.erase(model.begin(), begin);
      } else if (random() % 3 != 0) {
        set.add(fork.fileID, fork.forkType);
        if (!isMember) {
          model.push_back(fork);
        }
      } else if (!model.empty()) {
        size_t index = random() % 2 * (random() % model.size());
        set.removeFileForkAtIndex(index);
        model.erase(model.begin() + static_cast<std::ptrdiff_t>(index));
      }
      ASSERT_EQ(set.count(), model.size());
    }
    EXPECT_EQ(membersOf(set), model);
  }
}

TEST(HFSPlusFileForkSet, ForksThatArePutBackInFrontComeFirst) {
  HFSPlusFileForkSet set;
  set.add(1, 0);
  set.addInFront(std::vector<HFSPlusFileFork>{{2, 0}, {2, 0xFF}, {3, 0}});
  EXPECT_EQ(membersOf(set), (std::vector<HFSPlusFileFork>{{2, 0}, {2, 0xFF}, {3, 0}, {1, 0}}));
  EXPECT_TRUE(set.contains(2, 0xFF));
  EXPECT_DEATH(set.addInFront(std::vector<HFSPlusFileFork>{{1, 0}}), "");
}

TEST(HFSPlusFileForkSet, TakingFromTheFrontAndPuttingBackIsNotSlowerForAHundredThousand) {
  HFSPlusFileForkSet set;
  for (uint32_t fileID = 16; fileID < 100'016; ++fileID) {
    set.add(fileID, kHFSDataForkType);
  }
  const auto begin = std::chrono::steady_clock::now();
  std::vector<HFSPlusFileFork> taken;
  while (!set.empty()) {
    taken.clear();
    for (int i = 0; i < 4 && !set.empty(); ++i) {
      taken.push_back(set.fileForkAtIndex(0));
      set.removeFileForkAtIndex(0);
    }
    set.addInFront(std::span(taken).subspan(1));
  }
  // Quadratic work would take minutes.
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
}

TEST(HFSPlusFileForkSet, AMillionForksAreTakenFromTheFrontInNoTime) {
  auto begin = std::chrono::steady_clock::now();
  HFSPlusFileForkSet set;
  for (uint32_t fileID = 0; fileID < 1000000; ++fileID) {
    set.add(fileID * 4096, kHFSDataForkType);
  }
  uint32_t expected = 0;
  while (!set.empty()) {
    ASSERT_EQ(set.fileForkAtIndex(0).fileID, expected * 4096);
    set.removeFileForkAtIndex(0);
    ++expected;
  }
  EXPECT_EQ(expected, 1000000U);
  // Quadratic work would take minutes.
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
}
