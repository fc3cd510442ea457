#include "LWKit/LWQueue.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>

#include "support/doubles/TestRandom.hpp"

namespace {

using Words = std::vector<std::string>;

LWQueue<std::string>& fill(LWQueue<std::string>& queue, const Words& words) {
  for (const std::string& word : words) {
    queue.enqueueTailObject(word);
  }
  return queue;
}

}  // namespace

TEST(LWQueue, ANewQueueIsEmpty) {
  LWQueue<std::string> queue;
  EXPECT_EQ(queue.count(), 0U);
  EXPECT_FALSE(queue.headObject());
  EXPECT_FALSE(queue.tailObject());
  EXPECT_FALSE(queue.dequeueHeadObject());
  EXPECT_FALSE(queue.dequeueTailObject());
}

TEST(LWQueue, ObjectsStandInTheOrderOfTheirInsertion) {
  LWQueue<std::string> queue;
  fill(queue, {"b", "d"}).enqueueHeadObject("a");
  queue.enqueueObjectBeforeObject("c", "d");
  queue.enqueueObjectAfterObject("e", "d");
  queue.enqueueObjectBeforeObject("0", "a");
  EXPECT_EQ(queue.getObjects(), (Words{"0", "a", "b", "c", "d", "e"}));
  EXPECT_EQ(queue.headObject(), "0");
  EXPECT_EQ(queue.tailObject(), "e");
}

TEST(LWQueue, NeighboursOfAMemberAreKnown) {
  LWQueue<std::string> queue;
  fill(queue, {"a", "b"});
  EXPECT_EQ(queue.nextObject("a"), "b");
  EXPECT_EQ(queue.prevObject("b"), "a");
  EXPECT_FALSE(queue.nextObject("b"));
  EXPECT_FALSE(queue.prevObject("a"));
  EXPECT_FALSE(queue.nextObject("stranger"));
  EXPECT_FALSE(queue.prevObject("stranger"));
}

TEST(LWQueue, RemovingANonMemberChangesNothing) {
  LWQueue<std::string> queue;
  fill(queue, {"a", "b"}).dequeueObject("c");
  EXPECT_EQ(queue.getObjects(), (Words{"a", "b"}));
}

TEST(LWQueue, MembersLeaveFromEitherEndAndFromTheMiddle) {
  LWQueue<std::string> queue;
  fill(queue, {"a", "b", "c", "d", "e"}).dequeueObject("c");
  EXPECT_EQ(queue.dequeueHeadObject(), "a");
  EXPECT_EQ(queue.dequeueTailObject(), "e");
  EXPECT_EQ(queue.getObjects(), (Words{"b", "d"}));
  EXPECT_EQ(queue.dequeueNextObject("b"), "d");
  EXPECT_FALSE(queue.dequeueNextObject("b"));
  EXPECT_FALSE(queue.dequeuePrevObject("b"));
  queue.enqueueHeadObject("a");
  EXPECT_EQ(queue.dequeuePrevObject("b"), "a");
  queue.dequeueAllObjects();
  EXPECT_TRUE(queue.empty());
  EXPECT_FALSE(queue.headObject());
}

TEST(LWQueue, TheQueueKeepsItsMembersAlive) {
  LWQueue<std::shared_ptr<int>> queue;
  auto object = std::make_shared<int>(1);
  const std::weak_ptr<int> watch = object;
  queue.enqueueTailObject(std::move(object));
  EXPECT_FALSE(watch.expired());
  queue.dequeueAllObjects();
  EXPECT_TRUE(watch.expired());
}

TEST(LWQueueDeathTest, EnteringAMemberASecondTimeStopsTheProcess) {
  LWQueue<std::string> queue;
  fill(queue, {"a"});
  EXPECT_DEATH(queue.enqueueTailObject("a"), "PANIC");
  EXPECT_DEATH(queue.enqueueObjectAfterObject("a", "a"), "PANIC");
}

TEST(LWQueueDeathTest, EnteringNextToANonMemberStopsTheProcess) {
  LWQueue<std::string> queue;
  EXPECT_DEATH(queue.enqueueObjectBeforeObject("a", "b"), "PANIC");
  EXPECT_DEATH(queue.enqueueObjectAfterObject("a", "b"), "PANIC");
}

TEST(LWQueue, BehavesLikeAPlainListUnderRandomOperations) {
  const unsigned seed = testSeed();
  SCOPED_TRACE(seedText(seed));
  std::mt19937 random(seed);
  LWQueue<int> queue;
  std::vector<int> model;
  for (int round = 0; round < 20'000; ++round) {
    const int object = static_cast<int>(random() % 40);
    const auto place = std::find(model.begin(), model.end(), object);
    const bool isMember = place != model.end();
    ASSERT_EQ(queue.containsObject(object), isMember);
    switch (random() % 10) {
      case 0:
        if (!isMember) {
          queue.enqueueHeadObject(object);
          model.insert(model.begin(), object);
        }
        break;
      case 1:
        if (!isMember) {
          queue.enqueueTailObject(object);
          model.push_back(object);
        }
        break;
      case 2:
        if (!isMember && !model.empty()) {
          const size_t at = random() % model.size();
          queue.enqueueObjectBeforeObject(object, model[at]);
          model.insert(model.begin() + static_cast<ptrdiff_t>(at), object);
        }
        break;
      case 3:
        queue.dequeueObject(object);
        if (isMember) {
          model.erase(place);
        }
        break;
      case 4: {
        const auto head = queue.dequeueHeadObject();
        ASSERT_EQ(head.has_value(), !model.empty());
        if (head) {
          ASSERT_EQ(*head, model.front());
          model.erase(model.begin());
        }
        break;
      }
      case 5:
        if (!isMember && !model.empty()) {
          const size_t at = random() % model.size();
          queue.enqueueObjectAfterObject(object, model[at]);
          model.insert(model.begin() + static_cast<ptrdiff_t>(at) + 1, object);
        }
        break;
      case 6: {
        const auto tail = queue.dequeueTailObject();
        ASSERT_EQ(tail.has_value(), !model.empty());
        if (tail) {
          ASSERT_EQ(*tail, model.back());
          model.pop_back();
        }
        break;
      }
      case 7: {
        const auto next = queue.dequeueNextObject(object);
        const bool hasNext = isMember && place + 1 != model.end();
        ASSERT_EQ(next.has_value(), hasNext);
        if (hasNext) {
          ASSERT_EQ(*next, *(place + 1));
          model.erase(place + 1);
        }
        break;
      }
      case 8: {
        const auto next = queue.nextObject(object);
        const bool hasNext = isMember && place + 1 != model.end();
        ASSERT_EQ(next.has_value(), hasNext);
        ASSERT_TRUE(!hasNext || *next == *(place + 1));
        const auto prev = queue.prevObject(object);
        const bool hasPrev = isMember && place != model.begin();
        ASSERT_EQ(prev.has_value(), hasPrev);
        ASSERT_TRUE(!hasPrev || *prev == *(place - 1));
        break;
      }
      default: {
        const auto prev = queue.dequeuePrevObject(object);
        const bool hasPrev = isMember && place != model.begin();
        ASSERT_EQ(prev.has_value(), hasPrev);
        if (hasPrev) {
          ASSERT_EQ(*prev, *(place - 1));
          model.erase(place - 1);
        }
      }
    }
    ASSERT_EQ(queue.getObjects(), model);
    ASSERT_EQ(queue.count(), model.size());
    ASSERT_EQ(queue.headObject(), model.empty() ? std::nullopt : std::optional(model.front()));
    ASSERT_EQ(queue.tailObject(), model.empty() ? std::nullopt : std::optional(model.back()));
  }
}
