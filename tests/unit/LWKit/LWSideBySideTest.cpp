#include "LWKit/LWSideBySide.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace {

bool always() {
  return true;
}

}  // namespace

TEST(LWSideBySide, EveryJobIsDoneOnce) {
  for (const unsigned threads : {1U, 2U, 8U}) {
    for (const size_t count : {0U, 1U, 2U, 7U, 1000U}) {
      std::vector<std::atomic<int>> calls(count);
      LWRunSideBySide(
          count, threads,
          [&](size_t index) {
            ++calls[index];
            return true;
          },
          always);
      EXPECT_TRUE(std::ranges::all_of(calls, [](const auto& number) { return number == 1; }))
          << threads << " threads, " << count << " jobs";
    }
  }
}

TEST(LWSideBySide, OneThreadDoesTheJobsInOrderAndAsksBetweenThem) {
  std::string story;
  LWRunSideBySide(
      3, 1,
      [&](size_t index) {
        story += std::to_string(index);
        return true;
      },
      [&] {
        story += ',';
        return true;
      });
  EXPECT_EQ(story, "0,1,2");
}

TEST(LWSideBySide, JobsReallyRunAtOnce) {
  // Each waits until all four have begun: with fewer threads this would never end.
  constexpr size_t kJobs = 4;
  std::mutex lock;
  std::condition_variable changed;
  size_t begun = 0;
  LWRunSideBySide(
      kJobs, kJobs,
      [&](size_t) {
        std::unique_lock locked(lock);
        ++begun;
        changed.notify_all();
        changed.wait(locked, [&] { return begun == kJobs; });
        return true;
      },
      always);
  EXPECT_EQ(begun, kJobs);
}

TEST(LWSideBySide, NothingBeginsAfterAJobHasFailed) {
  for (const unsigned threads : {1U, 4U}) {
    std::atomic<size_t> calls = 0;
    std::atomic<bool> failed = false;
    LWRunSideBySide(
        100'000, threads,
        [&](size_t index) {
          ++calls;
          if (index == 5) {
            failed = true;
          }
          return !failed;
        },
        always);
    EXPECT_GE(calls, 6U);
    EXPECT_LT(calls, 100'000U) << threads;
  }
}

TEST(LWSideBySide, NothingBeginsOnceTheCallerMayNotGoOn) {
  size_t calls = 0;
  LWRunSideBySide(
      10, 1,
      [&](size_t) {
        ++calls;
        return true;
      },
      [&] { return calls < 3; });
  EXPECT_EQ(calls, 3U);
}

TEST(LWSideBySide, OnlyTheCallingThreadAsks) {
  const auto caller = std::this_thread::get_id();
  LWRunSideBySide(
      1000, 4, [](size_t) { return true; },
      [&] {
        EXPECT_EQ(std::this_thread::get_id(), caller);
        return true;
      });
}
