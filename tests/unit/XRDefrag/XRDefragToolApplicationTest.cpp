#include "XRDefragToolApplication.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <thread>

#include "LWKit/LWStringUtilities.hpp"
#include "XRDefragReport.hpp"
#include "support/doubles/MemoryDevice.hpp"

namespace {

/// A task whose work a test gives it.
class TestTask : public XRDefragTask {
 public:
  using Work = std::function<void(TestTask&)>;

  TestTask(XRDefragVolume& volume, std::string name, Work work)
      : XRDefragTask(volume), _work(std::move(work)) {
    setName(std::move(name));
  }

  void abort() override {
    ++aborts;
    XRDefragTask::abort();
  }

  std::atomic<int> aborts = 0;

 private:
  void runTask() override {
    reportTaskStart();
    _work(*this);
    reportTaskDone();
  }

  Work _work;
};

/// One command that keeps the input waiting, WAIT, and one that runs in the background, RUN.
struct Commands {
  TestTask::Work wait = [](TestTask&) {};
  TestTask::Work run = [](TestTask& task) {
    while (!task.aborted()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  };
  std::vector<std::string> openedDevices;
  std::vector<std::vector<std::string>> arguments;
  std::vector<std::shared_ptr<TestTask>> tasks;
  bool closed = false;
};

class TestCommandSet final : public XRDefragCommandSet {
 public:
  explicit TestCommandSet(Commands& commands) : _commands(commands) {}
  ~TestCommandSet() override { _commands.closed = true; }

  std::shared_ptr<XRDefragTask> makeTask(std::string_view word,
                                         const std::shared_ptr<LWToolEvent>& event) override {
    if (word == "WAIT") {
      const auto task = std::make_shared<TestTask>(_volume, "WAIT", _commands.wait);
      task->setArguments(LWTrimmedComponents(event->string()));
      task->setEvent(event);
      _commands.tasks.push_back(task);
      return task;
    }
    if (word == "RUN") {
      _commands.tasks.push_back(std::make_shared<TestTask>(_volume, "RUN", _commands.run));
      return _commands.tasks.back();
    }
    return nullptr;
  }

 private:
  Commands& _commands;
  XRDefragVolume _volume{"memory", std::make_shared<doubles::MemoryDevice>(65536), false, true};
};

using Words = std::vector<std::string>;

/// Runs the tool on a script of input, in this process.
class XRDefragToolApplicationTest : public testing::Test {
 protected:
  XRDefragToolApplicationTest() {
    ::pthread_sigmask(SIG_SETMASK, nullptr, &_signalMask);
    EXPECT_EQ(::pipe2(_ends, O_CLOEXEC), 0);
  }
  ~XRDefragToolApplicationTest() override {
    closeInput();
    ::close(_ends[0]);
    ::pthread_sigmask(SIG_SETMASK, &_signalMask, nullptr);
  }

  void write(std::string_view text) const {
    EXPECT_EQ(::write(_ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }

  void closeInput() {
    if (_ends[1] >= 0) {
      ::close(std::exchange(_ends[1], -1));
    }
  }

  /// What the tool prints until it ends, which it must do with status 0.
  std::string run(Words words) {
    words.insert(words.begin(), "/usr/sbin/xrdefrag");
    testing::internal::CaptureStdout();
    XRDefragToolApplication application(
        words,
        [this](const XRDefragCommandLine& line) -> Result<std::unique_ptr<XRDefragCommandSet>> {
          commands.openedDevices.push_back(line.device);
          if (line.device == "broken") {
            return std::unexpected(XRDefragError::localized("%1$@, it's broken.", line.device));
          }
          return std::make_unique<TestCommandSet>(commands);
        },
        _ends[0]);
    EXPECT_EQ(application.run(), 0);
    XRDefragReport::shared().printAndFlush("");
    return testing::internal::GetCapturedStdout();
  }

  Commands commands;

 private:
  int _ends[2] = {-1, -1};
  sigset_t _signalMask{};
};

}  // namespace

TEST_F(XRDefragToolApplicationTest, TheDeviceIsOpenedAndClosed) {
  write("QUIT\n");
  EXPECT_EQ(run({"disk1"}), "READY\n");
  EXPECT_EQ(commands.openedDevices, Words{"disk1"});
  EXPECT_TRUE(commands.closed);
}

TEST_F(XRDefragToolApplicationTest, TheFirstDeviceNamedIsTheOne) {
  closeInput();
  EXPECT_EQ(run({"-i", "2", "disk1", "disk2"}), "READY\n");
  EXPECT_EQ(commands.openedDevices, Words{"disk1"});
}

TEST_F(XRDefragToolApplicationTest, ADeviceThatCannotBeOpenedEndsTheTool) {
  EXPECT_EQ(run({"broken"}), "ERROR,broken\\, it's broken.\n");
}

TEST_F(XRDefragToolApplicationTest, AnErrorOfTheCommandLineEndsTheToolBeforeADeviceIsOpened) {
  EXPECT_EQ(run({"disk1", "-i"}), "ERROR,Option -i requires an argument.\n");
  EXPECT_TRUE(commands.openedDevices.empty());
}

TEST_F(XRDefragToolApplicationTest, HelpIsSilent) {
  EXPECT_EQ(run({"--help", "disk1"}), "");
  EXPECT_TRUE(commands.openedDevices.empty());
}

TEST_F(XRDefragToolApplicationTest, QuitOpensAndClosesTheDevice) {
  EXPECT_EQ(run({"-q", "disk1"}), "");
  EXPECT_EQ(commands.openedDevices, Words{"disk1"});
  EXPECT_TRUE(commands.closed);
  EXPECT_EQ(run({"-q", "broken"}), "ERROR,broken\\, it's broken.\n");
}

TEST_F(XRDefragToolApplicationTest, CommandsKnowNoCaseAndEmptyLinesSayNothing) {
  write("\n   \n\t\n  wait   --x\nWait\nWAIT\nquit\n");
  EXPECT_EQ(run({"disk1"}),
            "READY\nWAIT,START\nWAIT,DONE\nWAIT,START\nWAIT,DONE\nWAIT,START\nWAIT,DONE\n");
  EXPECT_EQ(commands.tasks.front()->arguments(), (Words{"wait", "--x"}));
}

TEST_F(XRDefragToolApplicationTest, AnUnknownCommandIsNamedAsItWasTyped) {
  write("what,ever now\n" + std::string("a\0b\n", 4) +
        "\xFF\xFE\n\xC5\xBF"
        "CAN\nwait\n");
  closeInput();
  EXPECT_EQ(run({"disk1"}),
            "READY\n"
            "ERROR,what\\,ever is not a recognized command.\n"
            "ERROR,a\\xC0\\x80b is not a recognized command.\n"
            "ERROR,\xC5\xBF"
            "CAN is not a recognized command.\n"
            "WAIT,START\nWAIT,DONE\n");
}

TEST_F(XRDefragToolApplicationTest, AReportingTaskKeepsTheNextLineWaiting) {
  std::atomic<int> running = 0;
  std::atomic<int> mostAtOnce = 0;
  commands.wait = [&](TestTask&) {
    mostAtOnce = std::max<int>(mostAtOnce, ++running);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    --running;
  };
  write("WAIT\nWAIT\nWAIT\nQUIT\n");
  run({"disk1"});
  EXPECT_EQ(commands.tasks.size(), 3U);
  EXPECT_EQ(mostAtOnce, 1);
}

TEST_F(XRDefragToolApplicationTest, ABackgroundTaskGetsItsWordsAndLetsTheNextLineIn) {
  write(" run  --verbose\t x \nWAIT\nnothing\nQUIT\nWAIT\n");
  const std::string text = run({"disk1"});
  ASSERT_EQ(commands.tasks.size(), 2U);
  EXPECT_EQ(commands.tasks.front()->arguments(), (Words{"run", "--verbose", "x"}));
  EXPECT_EQ(commands.tasks.front()->event(), nullptr);
  EXPECT_EQ(commands.tasks.front()->aborts, 1);
  EXPECT_TRUE(text.find("ERROR,nothing is not a recognized command.\n") != std::string::npos);
  EXPECT_TRUE(text.ends_with("RUN,DONE\n")) << text;
}

TEST_F(XRDefragToolApplicationTest, TheEndOfTheInputAbortsAndWaitsForTheLastTask) {
  write("RUN\nRUN\n");
  closeInput();
  const std::string text = run({"disk1"});
  EXPECT_EQ(commands.tasks[0]->aborts, 1);
  EXPECT_EQ(commands.tasks[1]->aborts, 1);
  EXPECT_TRUE(text.ends_with("RUN,DONE\n")) << text;
  EXPECT_NE(text.find("RUN,DONE\n"), text.rfind("RUN,DONE\n")) << text;
  EXPECT_TRUE(commands.closed);
}

TEST_F(XRDefragToolApplicationTest, TasksAreAbortedOnceHoweverOftenTheToolIsToldToEnd) {
  std::atomic<bool> mayEnd = false;
  commands.run = [&](TestTask& task) {
    while (!task.aborted() || !mayEnd) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  };
  // Blocked before there is a second thread that they could hit: the signals are for the tool.
  sigset_t all;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
  std::jthread pest([&] {
    for (const int number : {SIGTERM, SIGINT, SIGQUIT, SIGTERM}) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      ::kill(::getpid(), number);
    }
    write("QUIT\n");
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    mayEnd = true;
  });
  write("RUN\nQUIT\n");
  run({"disk1"});
  EXPECT_EQ(commands.tasks.front()->aborts, 1);
}

TEST_F(XRDefragToolApplicationTest, WithoutAThreadForATaskTheToolGoesOn) {
  pthread_attr_t usual;
  pthread_attr_t impossible;
  ASSERT_EQ(::pthread_getattr_default_np(&usual), 0);
  ASSERT_EQ(::pthread_getattr_default_np(&impossible), 0);
  ASSERT_EQ(::pthread_attr_setstacksize(&impossible, size_t{1} << 50), 0);
  ASSERT_EQ(::pthread_setattr_default_np(&impossible), 0);
  write("WAIT\nRUN\nfoo\n");
  closeInput();
  const std::string text = run({"disk1"});
  EXPECT_EQ(::pthread_setattr_default_np(&usual), 0);
  ::pthread_attr_destroy(&impossible);
  ::pthread_attr_destroy(&usual);
  const std::string_view error = "ERROR,Internal error: XRDefragToolApplication:";
  const size_t first = text.find(error);
  EXPECT_EQ(first, std::string_view("READY\n").size()) << text;
  EXPECT_NE(text.find(error, first + 1), std::string::npos) << text;
  EXPECT_TRUE(text.ends_with("ERROR,foo is not a recognized command.\n")) << text;
}

TEST_F(XRDefragToolApplicationTest, ProgressIsPrintedWhileTheInputWaits) {
  commands.wait = [&](TestTask& task) {
    for (int percent = 0; percent < 5; ++percent) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      task.updateTaskProgress(percent);
    }
  };
  write("WAIT\nQUIT\n");
  const std::string text = run({"-i", "0.001", "disk1"});
  EXPECT_TRUE(text.find("WAIT,PROGRESS,2\n") != std::string::npos) << text;
  EXPECT_TRUE(text.ends_with("WAIT,DONE\n")) << text;
}

TEST_F(XRDefragToolApplicationTest, TheProgressIntervalReachesEveryTask) {
  write("WAIT\nRUN\nQUIT\n");
  run({"-i", "7.5", "disk1"});
  for (const auto& task : commands.tasks) {
    EXPECT_EQ(task->progressReportInterval(), 7.5);
  }
}

TEST_F(XRDefragToolApplicationTest, MessagesOfTheInterpreterAreTranslated) {
  LWStringTable::sharedTable().setStrings(
      LWStringTable::Map{{"%1$@ is not a recognized command.", "%1$@, %1$@?"}});
  write("foo\n");
  closeInput();
  EXPECT_EQ(run({"disk1"}), "READY\nERROR,foo\\, foo?\n");
  LWStringTable::sharedTable().setStrings({});
}

TEST_F(XRDefragToolApplicationTest, ManyCommandsInARowLeaveNothingBehind) {
  std::string script;
  for (int count = 0; count < 300; ++count) {
    script += count % 3 == 0 ? "x\n" : "WAIT\n";
  }
  std::jthread writer([&] {
    write(script);
    closeInput();
  });
  run({"disk1"});
  EXPECT_EQ(commands.tasks.size(), 200U);
  for (const auto& task : commands.tasks) {
    EXPECT_EQ(task.use_count(), 1);
  }
}
