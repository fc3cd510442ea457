#include "HFSPlus/HFSPlusSkipList.hpp"

#include <gtest/gtest.h>

#include <map>
#include <vector>

#include "support/doubles/TestRandom.hpp"

namespace {

struct Record {
  uint32_t key;
  uint32_t value;
};

struct ByKey {
  int operator()(const Record& record, uint32_t key) const {
    return record.key < key ? -1 : record.key > key;
  }
  int operator()(const Record& record, const Record& other) const {
    return (*this)(record, other.key);
  }
};

template <unsigned levels>
using List = HFSPlusSkipList<Record, ByKey, levels>;

template <typename AnyList>
std::vector<uint32_t> keysOf(const AnyList& list) {
  std::vector<uint32_t> keys;
  for (const Record* record = list.first(); record != nullptr; record = list.next(record)) {
    keys.push_back(record->key);
  }
  return keys;
}

}  // namespace

TEST(HFSPlusSkipList, AnEmptyListHasNoRecords) {
  List<12> list;
  EXPECT_EQ(list.first(), nullptr);
  EXPECT_EQ(list.last(), nullptr);
  EXPECT_EQ(list.lastNotAfter(7U), nullptr);
  auto position = list.positionAfter(7U);
  EXPECT_EQ(list.recordBefore(position), nullptr);
}

TEST(HFSPlusSkipList, RecordsStandInOrderWhateverTheOrderOfInsertion) {
  List<12> list;
  for (uint32_t key : {50U, 10U, 40U, 4294967295U, 0U, 2147483648U}) {
    ASSERT_NE(list.insert({key, key}), nullptr);
  }
  EXPECT_EQ(keysOf(list), (std::vector<uint32_t>{0, 10, 40, 50, 2147483648U, 4294967295U}));
  EXPECT_EQ(list.last()->key, 4294967295U);
  EXPECT_EQ(list.lastNotAfter(49U)->key, 40U);
  EXPECT_EQ(list.lastNotAfter(50U)->key, 50U);
}

TEST(HFSPlusSkipList, OnePlaceTakesTwoRecordsOneBeforeTheOther) {
  for (const uint32_t seed : testSeeds(200)) {
    HFSPlusRandom random(seed);
    List<12> list(random);
    list.insert({10, 0});
    list.insert({90, 0});
    auto position = list.positionAfter(20U);
    EXPECT_EQ(list.recordBefore(position)->key, 10U);
    list.insertAt(position, {40, 0});
    list.insertAt(position, {30, 0});
    EXPECT_EQ(keysOf(list), (std::vector<uint32_t>{10, 30, 40, 90})) << "seed " << seed;
  }
}

TEST(HFSPlusSkipList, ANewNodeNeverRaisesTheListByMoreThanOneLevel) {
  HFSPlusRandom random(4711);
  List<12> list(random);
  unsigned top = 0;
  bool drewHigher = false;
  for (uint32_t key = 0; key < 5000; ++key) {
    const Record* record = list.insert({key * 7919 % 5003, 0});
    drewHigher = drewHigher || list.levelOf(record) > top + 1;
    EXPECT_LE(list.topLevel(), top + 1);
    top = list.topLevel();
  }
  EXPECT_TRUE(drewHigher);
}

TEST(HFSPlusSkipList, NodesAreAboutHalfAsNumerousOnEveryLevelAndStayBelowTheMaximum) {
  HFSPlusRandom random(99);
  List<6> list(random);
  std::array<uint32_t, 6> count{};
  for (uint32_t key = 0; key < 64000; ++key) {
    unsigned level = list.levelOf(list.insert({key, 0}));
    ASSERT_LT(level, 6U);
    ++count[level];
  }
  EXPECT_NEAR(count[0], 32000, 700);
  EXPECT_NEAR(count[1], 16000, 600);
  EXPECT_NEAR(count[4], 2000, 250);
  EXPECT_NEAR(count[5], 2000, 250);
}

TEST(HFSPlusSkipList, TheListComesDownWhenItsHighestNodesGo) {
  List<12> list;
  for (uint32_t key = 0; key < 1000; ++key) {
    list.insert({key, 0});
  }
  EXPECT_GT(list.topLevel(), 3U);
  while (list.first() != nullptr) {
    list.remove(list.first());
  }
  EXPECT_EQ(list.topLevel(), 0U);
}

TEST(HFSPlusSkipList, RemovedNodesAreUsedAgain) {
  HFSPlusRandom random(5);
  List<12> list(random);
  for (uint32_t key = 0; key < 10000; ++key) {
    list.insert({key, 0});
  }
  size_t memory = list.memoryUsage();
  for (uint32_t round = 0; round < 20; ++round) {
    for (uint32_t count = 0; count < 5000; ++count) {
      list.remove(list.first());
      list.insert({10000 + round * 5000 + count, 0});
    }
  }
  EXPECT_LE(list.memoryUsage(), memory + memory / 5);
}

TEST(HFSPlusSkipList, BehavesLikeAnOrderedMap) {
  for (const uint32_t seed : testSeeds(20)) {
    SCOPED_TRACE(seedText(seed));
    TestRandom random(seed);
    HFSPlusRandom levels(seed);
    List<12> list(levels);
    std::map<uint32_t, uint32_t> model;
    for (int step = 0; step < 3000; ++step) {
      uint32_t key = random() % 500;
      auto found = model.find(key);
      if (random() % 8 == 0 && !model.empty()) {
        list.removeLast();
        model.erase(std::prev(model.end()));
      } else if (found == model.end()) {
        EXPECT_EQ(list.insert({key, key + 1})->value, key + 1);
        model[key] = key + 1;
      } else {
        const Record* record = list.lastNotAfter(key);
        ASSERT_NE(record, nullptr);
        ASSERT_EQ(record->key, key);
        list.remove(record);
        model.erase(found);
      }
      uint32_t asked = random() % 520;
      auto after = model.upper_bound(asked);
      const Record* record = list.lastNotAfter(asked);
      if (after == model.begin()) {
        ASSERT_EQ(record, nullptr);
      } else {
        ASSERT_NE(record, nullptr);
        ASSERT_EQ(record->key, std::prev(after)->first);
        ASSERT_EQ(record->value, std::prev(after)->second);
      }
      ASSERT_EQ(list.last() == nullptr, model.empty());
    }
    std::vector<uint32_t> keys;
    for (const auto& [key, value] : model) {
      keys.push_back(key);
    }
    EXPECT_EQ(keysOf(list), keys);
  }
}

TEST(HFSPlusRandom, AWordIsTheExclusiveOrOfTheWordsBeforeIt) {
  // The register's recurrence: x[n] = x[n - 250] ^ x[n - 147].
  HFSPlusRandom random(12345);
  std::vector<uint32_t> words;
  for (int count = 0; count < 2000; ++count) {
    words.push_back(random.next());
  }
  for (size_t n = 250; n < words.size(); ++n) {
    ASSERT_EQ(words[n], words[n - 250] ^ words[n - 147]) << n;
  }
}

TEST(HFSPlusRandom, SeedsOnWhichTheSeedingGeneratorWouldStandStillGiveRandomBits) {
  for (uint32_t seed : {0U, 2147483647U, 4294967294U, 4294967295U, 1U}) {
    HFSPlusRandom random(seed);
    uint32_t promoted = 0;
    for (int count = 0; count < 20000; ++count) {
      promoted += random.next() <= 0x7FFFFFFE ? 1 : 0;
    }
    EXPECT_NEAR(promoted, 10000, 500) << "seed " << seed;
  }
}

TEST(HFSPlusRandom, EqualSeedsGiveEqualWords) {
  HFSPlusRandom one(77);
  HFSPlusRandom other(77);
  for (int count = 0; count < 600; ++count) {
    ASSERT_EQ(one.next(), other.next());
  }
}
