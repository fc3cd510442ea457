#include "LWKit/LWThreadGate.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <random>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

/// Long enough for a thread that was let go to be waiting at the gate, or for one that must not
/// come through to have come through.
constexpr auto kSettle = 50ms;

}  // namespace

TEST(LWThreadGate, AGateClosedTwiceIsKeptUntilItsSecondOpening) {
  LWThreadGate gate;
  gate.close();
  gate.close();
  std::atomic<bool> entered = false;
  std::jthread other([&] {
    gate.close();
    entered = true;
    gate.open();
  });
  std::this_thread::sleep_for(kSettle);
  gate.open();
  std::this_thread::sleep_for(kSettle);
  EXPECT_FALSE(entered);
  gate.open();
  other.join();
  EXPECT_TRUE(entered);
}

TEST(LWThreadGate, WaitersEnterInTheOrderOfTheirArrival) {
  LWThreadGate gate;
  std::vector<int> order;
  gate.close();
  std::vector<std::jthread> threads;
  for (int number = 0; number < 3; ++number) {
    threads.emplace_back([&, number] {
      gate.close();
      order.push_back(number);
      gate.open();
    });
    std::this_thread::sleep_for(kSettle);
  }
  gate.open();
  threads.clear();
  EXPECT_EQ(order, (std::vector{0, 1, 2}));
}

TEST(LWThreadGate, YieldingToNobodyReturnsAtOnce) {
  LWThreadGate gate;
  gate.close();
  gate.yield();
  gate.open();
}

TEST(LWThreadGate, YieldingLetsEverybodyAheadThroughAndKeepsTheDepth) {
  LWThreadGate gate;
  std::vector<int> order;
  gate.close();
  gate.close();
  std::vector<std::jthread> threads;
  for (int number = 0; number < 2; ++number) {
    threads.emplace_back([&, number] {
      gate.close();
      gate.close();
      order.push_back(number);
      gate.open();
      std::this_thread::sleep_for(5ms);
      order.push_back(number);
      gate.open();
    });
    std::this_thread::sleep_for(kSettle);
  }
  gate.yield();
  EXPECT_EQ(order, (std::vector{0, 0, 1, 1}));
  gate.open();
  std::atomic<bool> entered = false;
  threads.emplace_back([&] {
    gate.close();
    entered = true;
    gate.open();
  });
  std::this_thread::sleep_for(kSettle);
  EXPECT_FALSE(entered);
  gate.open();
}

TEST(LWThreadGate, OpeningAndYieldingAForeignGateDoNothing) {
  LWThreadGate gate;
  gate.open();
  gate.yield();
  gate.close();
  std::jthread([&] {
    gate.open();
    gate.yield();
  }).join();
  std::atomic<bool> entered = false;
  std::jthread other([&] {
    gate.close();
    entered = true;
    gate.open();
  });
  std::this_thread::sleep_for(kSettle);
  EXPECT_FALSE(entered);
  gate.open();
}

TEST(LWThreadGate, NoTwoThreadsAreEverInsideAtOnce) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(seed);
  LWThreadGate gate;
  int inside = 0;  // guarded by the gate alone, which the thread sanitizer checks
  long entries = 0;
  std::atomic<bool> failed = false;
  {
    std::vector<std::jthread> threads;
    for (unsigned number = 0; number < 4; ++number) {
      threads.emplace_back([&, number] {
        std::mt19937 random(seed + number);
        for (int round = 0; round < 500; ++round) {
          const auto depth = 1 + random() % 3;
          for (auto level = depth; level > 0; --level) {
            gate.close();
          }
          failed = failed || ++inside != 1;
          ++entries;
          --inside;
          if (random() % 2 == 0) {
            gate.yield();
          }
          failed = failed || ++inside != 1;
          --inside;
          for (auto level = depth; level > 0; --level) {
            gate.open();
          }
        }
      });
    }
  }
  EXPECT_FALSE(failed);
  EXPECT_EQ(entries, 2000);
}
