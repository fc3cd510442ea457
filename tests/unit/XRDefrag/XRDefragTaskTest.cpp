#include "XRDefragTask.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>

#include "LWKit/LWMainThread.hpp"
#include "support/doubles/MemoryDevice.hpp"

namespace {

/// A task whose clock the test turns, and which the test's own thread drives.
class ClockedTask : public XRDefragTask {
 public:
  explicit ClockedTask(XRDefragVolume& volume) : XRDefragTask(volume) { setName("SCAN"); }

  void waitSeconds(double seconds) { _now = _now + seconds; }

 protected:
  void runTask() override {}
  double currentTime() const override { return _now; }

 private:
  double _now = 1000;
};

class XRDefragTaskTest : public testing::Test {
 protected:
  XRDefragTaskTest() { testing::internal::CaptureStdout(); }
  ~XRDefragTaskTest() override { testing::internal::GetCapturedStdout(); }

  /// What has been printed since the test began or since the last call.
  static std::string printed() {
    LWMainThread::shared().drain();
    std::string text = testing::internal::GetCapturedStdout();
    testing::internal::CaptureStdout();
    return text;
  }

  XRDefragVolume volume{"memory", std::make_shared<doubles::MemoryDevice>(65536), false, true};
  std::shared_ptr<ClockedTask> task = std::make_shared<ClockedTask>(volume);
};

}  // namespace

TEST_F(XRDefragTaskTest, ATaskReportsItsStartAndItsEnd) {
  task->reportTaskStart();
  task->reportTaskDone();
  EXPECT_EQ(printed(), "SCAN,START\nSCAN,DONE\n");
}

TEST_F(XRDefragTaskTest, UpdatesWithinTheIntervalPrintNothing) {
  task->reportTaskStart();
  for (const int percent : {1, 2, 3}) {
    task->waitSeconds(0.15);
    task->updateTaskProgress(percent);
  }
  EXPECT_EQ(printed(), "SCAN,START\n");
}

TEST_F(XRDefragTaskTest, TheLineCarriesTheValueOfTheMomentWhenItIsPrinted) {
  task->reportTaskStart();
  task->waitSeconds(1.2);
  task->updateTaskProgress(4);
  task->updateTaskProgress(5);
  task->updateTaskProgress(6);
  EXPECT_EQ(printed(), "SCAN,START\nSCAN,PROGRESS,6\n");
}

TEST_F(XRDefragTaskTest, TheIntervalCountsFromThePreviousLine) {
  task->setProgressReportInterval(10);
  EXPECT_EQ(task->progressReportInterval(), 10);
  task->reportTaskStart();
  task->waitSeconds(10);
  task->updateTaskProgress(1);
  task->waitSeconds(0.5);
  task->updateTaskProgress(2);
  LWMainThread::shared().drain();
  task->waitSeconds(10);
  task->updateTaskProgress(3);
  task->waitSeconds(0.5);
  task->updateTaskProgress(4);
  LWMainThread::shared().drain();
  EXPECT_EQ(printed(), "SCAN,START\nSCAN,PROGRESS,2\nSCAN,PROGRESS,4\n");
}

TEST_F(XRDefragTaskTest, ARepeatedValueIsNoUpdate) {
  task->reportTaskStart();
  task->updateTaskProgress(7);
  task->waitSeconds(5);
  task->updateTaskProgress(7);
  EXPECT_EQ(printed(), "SCAN,START\n");
}

TEST_F(XRDefragTaskTest, ALastUpdateSoonAfterALineIsNeverPrinted) {
  task->reportTaskStart();
  task->waitSeconds(2);
  task->updateTaskProgress(99);
  LWMainThread::shared().drain();
  task->waitSeconds(0.9);
  task->updateTaskProgress(100);
  task->reportTaskDone();
  EXPECT_EQ(printed(), "SCAN,START\nSCAN,PROGRESS,99\nSCAN,DONE\n");
}

TEST_F(XRDefragTaskTest, NothingIsPrintedAfterDone) {
  task->reportTaskStart();
  task->waitSeconds(2);
  task->updateTaskProgress(50);
  task->reportTaskDone();
  task->waitSeconds(2);
  task->updateTaskProgress(60);
  EXPECT_EQ(printed(), "SCAN,START\nSCAN,DONE\n");
}

TEST_F(XRDefragTaskTest, ALineForATaskThatIsGoneIsDropped) {
  task->reportTaskStart();
  task->waitSeconds(2);
  task->updateTaskProgress(50);
  task.reset();
  EXPECT_EQ(printed(), "SCAN,START\n");
}

TEST_F(XRDefragTaskTest, ANegativeValueIsNotPrinted) {
  task->reportTaskStart();
  task->waitSeconds(2);
  task->updateTaskProgress(-5);
  EXPECT_EQ(printed(), "SCAN,START\n");
}

TEST_F(XRDefragTaskTest, AnErrorIsEscaped) {
  task->reportTaskError(XRDefragError::withFormat("a,b\\d"));
  EXPECT_EQ(printed(), "SCAN,ERROR,a\\,b\\\\d\n");
}

TEST_F(XRDefragTaskTest, ACancellationPrintsNoError) {
  task->reportTaskError(XRDefragError::userCancelled());
  EXPECT_EQ(printed(), "");
}

TEST_F(XRDefragTaskTest, DoneIsLastHoweverTheThreadsRun) {
  class BusyTask final : public XRDefragTask {
   public:
    using XRDefragTask::XRDefragTask;
    std::atomic<bool> ended = false;

   private:
    void runTask() override {
      setProgressReportInterval(0);
      reportTaskStart();
      for (int percent = 0; percent <= 100; ++percent) {
        updateTaskProgress(percent);
      }
      reportTaskDone();
      ended = true;
    }
  };
  for (int round = 0; round < 50; ++round) {
    const auto busy = std::make_shared<BusyTask>(volume);
    busy->setName("MAP");
    ASSERT_TRUE(busy->start().has_value());
    while (!busy->ended) {
      LWMainThread::shared().drain();
    }
    busy->join();
    const std::string text = printed();
    ASSERT_TRUE(text.starts_with("MAP,START\n")) << text;
    ASSERT_TRUE(text.ends_with("MAP,DONE\n")) << text;
  }
}
