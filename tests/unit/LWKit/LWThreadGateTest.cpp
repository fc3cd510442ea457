#include "LWKit/LWThreadGate.hpp"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <fstream>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/doubles/TestRandom.hpp"

namespace {

using namespace std::chrono_literals;

/// Long enough for a thread that was let go to be waiting at the gate, or for one that must not
/// come through to have come through.
constexpr auto kSettle = 50ms;

/// What one thread does when it goes through the gate.
struct Visit {
  uint32_t depth = 1;   // how often it closes the gate, and opens it
  uint32_t yields = 0;  // how often it lets others ahead in between
};

/// Threads that go through one gate when they are told to. Each notes its number when it has come
/// in, and again after each yield.
class Visitors {
 public:
  explicit Visitors(uint32_t count) : _visitors(count) {
    for (uint32_t number = 0; number < count; ++number) {
      _visitors[number].thread = std::jthread([this, number] { run(number); });
    }
  }
  ~Visitors() {
    {
      const std::lock_guard lock(_lock);
      _isOver = true;
    }
    _changed.notify_all();
  }

  LWThreadGate gate;
  std::vector<uint32_t> entries;  // guarded by the gate, which the thread sanitizer checks

  /// Sends a thread to the gate, which the caller has closed, and returns when it waits there.
  void send(uint32_t number, Visit visit) {
    Visitor& visitor = _visitors[number];
    std::unique_lock lock(_lock);
    _changed.wait(lock, [&] { return !visitor.visit; });
    visitor.visit = visit;
    visitor.isOnItsWay = false;
    _changed.notify_all();
    _changed.wait(lock, [&] { return visitor.isOnItsWay; });
    lock.unlock();
    waitUntilAsleep(visitor.threadID);
  }

  /// Returns when a thread has come back.
  void waitFor(uint32_t number) {
    std::unique_lock lock(_lock);
    _changed.wait(lock, [&] { return !_visitors[number].visit; });
  }

 private:
  struct Visitor {
    std::jthread thread;
    pid_t threadID = 0;
    std::optional<Visit> visit;
    bool isOnItsWay = false;
  };

  void run(uint32_t number) {
    Visitor& visitor = _visitors[number];
    for (std::unique_lock lock(_lock);;) {
      _changed.wait(lock, [&] { return visitor.visit || _isOver; });
      if (!visitor.visit) {
        return;
      }
      const Visit visit = *visitor.visit;
      visitor.threadID = ::gettid();
      visitor.isOnItsWay = true;
      _changed.notify_all();
      lock.unlock();
      passThrough(number, visit);
      lock.lock();
      visitor.visit.reset();
      _changed.notify_all();
    }
  }

  void passThrough(uint32_t number, const Visit& visit) {
    for (uint32_t level = 0; level < visit.depth; ++level) {
      gate.close();
    }
    entries.push_back(number);
    for (uint32_t i = 0; i < visit.yields; ++i) {
      gate.yield();
      entries.push_back(number);
    }
    for (uint32_t level = 0; level < visit.depth; ++level) {
      gate.open();
    }
  }

  /// Waits until a thread has slept for a while without waking.
  static void waitUntilAsleep(pid_t threadID) {
    std::string before;
    for (std::string now = sleepOf(threadID); now.empty() || now != before;
         now = sleepOf(threadID)) {
      before = now;
      std::this_thread::sleep_for(1ms);
    }
  }

  /// How often a sleeping thread has gone to sleep; empty while it runs.
  static std::string sleepOf(pid_t threadID) {
    std::ifstream status("/proc/self/task/" + std::to_string(threadID) + "/status");
    bool isAsleep = false;
    for (std::string line; std::getline(status, line);) {
      isAsleep |= line.starts_with("State:\tS");
      if (isAsleep && line.starts_with("voluntary_ctxt_switches:")) {
        return line;
      }
    }
    return "";
  }

  std::mutex _lock;
  std::condition_variable _changed;
  bool _isOver = false;
  std::vector<Visitor> _visitors;
};

/// Who stands at the gate, and in which order they get in.
class GateModel {
 public:
  static constexpr uint32_t kKeeper = 0xFFFF;  // whose gate it is while others arrive

  std::vector<uint32_t> entries;

  bool isEmpty() const { return _waiting.empty(); }
  bool isWaiting(uint32_t number) const {
    return std::ranges::find(_waiting, number, &Waiting::number) != _waiting.end();
  }

  void arrive(uint32_t number, uint32_t yields) { _waiting.push_back({number, yields}); }

  /// The keeper yields.
  void yield() {
    if (!_waiting.empty()) {
      _waiting.push_back({kKeeper, 0});
      run();
    }
  }

  /// The first in the queue gets in, and so on until it is the keeper or nobody.
  void run() {
    while (!_waiting.empty()) {
      Waiting first = _waiting.front();
      _waiting.pop_front();
      if (first.number == kKeeper) {
        return;
      }
      entries.push_back(first.number);
      for (; first.yieldsLeft > 0 && _waiting.empty(); --first.yieldsLeft) {
        entries.push_back(first.number);
      }
      if (first.yieldsLeft > 0) {
        _waiting.push_back({first.number, first.yieldsLeft - 1});
      }
    }
  }

 private:
  struct Waiting {
    uint32_t number;
    uint32_t yieldsLeft;
  };
  std::deque<Waiting> _waiting;
};

}  // namespace

TEST(LWThreadGate, EverybodyGetsInInTheOrderThatAModelForetells) {
  constexpr uint32_t kVisitors = 5;
  const uint32_t seed = testSeed();
  SCOPED_TRACE(seedText(seed));
  TestRandom random(seed);
  for (int round = 0; round < 20; ++round) {
    GateModel model;
    Visitors visitors(kVisitors);
    const uint32_t depth = 1 + random() % 3;
    for (uint32_t level = 0; level < depth; ++level) {
      visitors.gate.close();
    }
    for (int step = 0; step < 12; ++step) {
      const uint32_t number = random() % kVisitors;
      if (!model.isWaiting(number)) {
        const Visit visit{1 + random() % 3, random() % 3};
        visitors.send(number, visit);
        model.arrive(number, visit.yields);
      } else {
        visitors.gate.yield();
        model.yield();
      }
      ASSERT_EQ(visitors.entries, model.entries);
    }
    for (uint32_t level = 1; level < depth; ++level) {
      visitors.gate.open();
      std::this_thread::sleep_for(1ms);
      ASSERT_EQ(visitors.entries, model.entries) << "the keeper is inside still";
    }
    visitors.gate.open();
    model.run();
    for (uint32_t number = 0; number < kVisitors; ++number) {
      visitors.waitFor(number);
    }
    visitors.gate.close();
    ASSERT_EQ(visitors.entries, model.entries);
    visitors.gate.open();
  }
}

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
  const unsigned seed = testSeed();
  SCOPED_TRACE(seedText(seed));
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
