#include "LWKit/LWToolTask.hpp"

#include <gtest/gtest.h>

#include <future>

#include "LWKit/LWMainThread.hpp"

namespace {

/// Runs whatever a test gives it.
class TestTask : public LWToolTask {
 public:
  explicit TestTask(std::function<void(TestTask&)> work) : _work(std::move(work)) {}

 protected:
  void runTask() override { _work(*this); }

 private:
  std::function<void(TestTask&)> _work;
};

}  // namespace

TEST(LWToolTask, TheWorkRunsOnAThreadThatKnowsItsTask) {
  LWToolTask* found = nullptr;
  bool onMainThread = true;
  TestTask task([&](TestTask&) {
    found = LWToolTask::currentToolTask();
    onMainThread = LWMainThread::isCurrent();
  });
  ASSERT_TRUE(task.start().has_value());
  task.join();
  EXPECT_EQ(found, &task);
  EXPECT_FALSE(onMainThread);
}

TEST(LWToolTask, OtherThreadsHaveNoTask) {
  EXPECT_EQ(LWToolTask::currentToolTask(), nullptr);
}

TEST(LWToolTask, ATaskAnnouncesItsEndThenCompletesItsEvent) {
  std::vector<std::string> order;
  const auto event = std::make_shared<LWToolEvent>(
      LWToolEvent::Type::String, "SCAN", [&](const auto&) { order.emplace_back("completed"); });
  TestTask task([&](TestTask&) { order.emplace_back("work"); });
  task.setEvent(event);
  task.setTerminationHandler([&](LWToolTask& ended) {
    EXPECT_EQ(&ended, &task);
    EXPECT_EQ(LWToolTask::currentToolTask(), &task);
    order.emplace_back("terminated");
  });
  ASSERT_TRUE(task.start().has_value());
  task.join();
  EXPECT_EQ(order, (std::vector<std::string>{"work", "terminated", "completed"}));
}

TEST(LWToolTask, AbortOnlyAsks) {
  std::promise<void> aborted;
  bool sawAbort = false;
  TestTask task([&](TestTask& self) {
    aborted.get_future().wait();
    sawAbort = self.aborted();
  });
  ASSERT_TRUE(task.start().has_value());
  EXPECT_FALSE(task.aborted());
  task.abort();
  aborted.set_value();
  task.join();
  EXPECT_TRUE(sawAbort);
}

TEST(LWToolTask, NameAndArgumentsAreKept) {
  TestTask task([](TestTask&) {});
  EXPECT_EQ(task.name(), "");
  task.setName("MAP");
  task.setArguments({"map", "-i", "16"});
  EXPECT_EQ(task.name(), "MAP");
  EXPECT_EQ(task.arguments().size(), 3U);
}

TEST(LWToolTaskDeathTest, StartingTwiceStopsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        TestTask task([](TestTask&) {});
        static_cast<void>(task.start());
        static_cast<void>(task.start());
      },
      "PANIC");
}

TEST(LWMainThread, CallsAreMadeInOrderWhenTheMainThreadDrainsThem) {
  std::vector<int> order;
  int wakes = 0;
  auto& mainThread = LWMainThread::shared();
  mainThread.setWakeUp([&] { ++wakes; });
  std::jthread([&] {
    EXPECT_FALSE(LWMainThread::isCurrent());
    mainThread.perform([&] {
      order.push_back(1);
      mainThread.perform([&] { order.push_back(3); });
    });
    mainThread.perform([&] { order.push_back(2); });
  }).join();
  EXPECT_TRUE(order.empty());
  EXPECT_EQ(wakes, 2);
  mainThread.drain();
  EXPECT_EQ(order, (std::vector{1, 2}));
  mainThread.drain();
  EXPECT_EQ(order, (std::vector{1, 2, 3}));
  mainThread.setWakeUp({});
}
