#include "LWKit/LWToolApplication.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <thread>

namespace {

/// Writes down every event and hands it to the test.
class TestApplication : public LWToolApplication {
 public:
  using Handler = std::function<void(const std::shared_ptr<LWToolEvent>&)>;

  explicit TestApplication(int input) : LWToolApplication({"/bin/tool", "-x"}, input) {}

  void argumentsEvent(const std::shared_ptr<LWToolEvent>& event) override {
    arguments = event->arguments();
    event->complete();
  }
  void stringEvent(const std::shared_ptr<LWToolEvent>& event) override { take(event, onString); }
  void characterEvent(const std::shared_ptr<LWToolEvent>& event) override {
    take(event, onCharacter);
  }

  std::vector<std::string> arguments;
  std::vector<std::string> events;
  Handler onString = [](const auto& event) { event->complete(); };
  Handler onCharacter = onString;

 private:
  void take(const std::shared_ptr<LWToolEvent>& event, const Handler& handler) {
    EXPECT_EQ(currentEvent(), event);
    events.push_back(event->hasString() ? event->string() : "(no text)");
    handler(event);
  }
};

/// A pipe whose read end is an application's input.
class LWToolApplicationTest : public testing::Test {
 protected:
  LWToolApplicationTest() {
    EXPECT_EQ(::pipe2(_ends, O_CLOEXEC), 0);
    ::pthread_sigmask(SIG_SETMASK, nullptr, &_signalMask);
  }
  ~LWToolApplicationTest() override {
    ::pthread_sigmask(SIG_SETMASK, &_signalMask, nullptr);
    closeInput();
    ::close(_ends[0]);
  }

  int input() const { return _ends[0]; }

  void write(std::string_view text) const {
    EXPECT_EQ(::write(_ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }

  void closeInput() {
    if (_ends[1] >= 0) {
      ::close(_ends[1]);
      _ends[1] = -1;
    }
  }

 private:
  int _ends[2] = {-1, -1};
  sigset_t _signalMask{};
};

using Events = std::vector<std::string>;

}  // namespace

TEST_F(LWToolApplicationTest, TheCommandLineIsTheFirstEvent) {
  TestApplication application(input());
  write("a\n");
  closeInput();
  EXPECT_EQ(application.run(), 0);
  EXPECT_EQ(application.arguments, (Events{"/bin/tool", "-x"}));
  EXPECT_EQ(application.events, Events{"a"});
}

TEST_F(LWToolApplicationTest, TheEndOfTheInputTerminatesAndDropsAnUnfinishedLine) {
  TestApplication application(input());
  write("a\n\nb\xFF\nrest");
  closeInput();
  EXPECT_EQ(application.run(), 0);
  EXPECT_EQ(application.events, (Events{"a", "", "(no text)"}));
}

TEST_F(LWToolApplicationTest, TheNextLineIsFramedOnlyWhenTheEventIsComplete) {
  TestApplication application(input());
  std::jthread worker;
  std::atomic<bool> completing = false;
  application.onString = [&](const std::shared_ptr<LWToolEvent>& event) {
    if (event->string() != "SCAN") {
      EXPECT_TRUE(completing);
      event->complete();
      return;
    }
    worker = std::jthread([&, event] {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      EXPECT_EQ(application.events, Events{"SCAN"});
      completing = true;
      event->complete();
    });
  };
  write("SCAN\nQUIT\n");
  closeInput();
  EXPECT_EQ(application.run(), 0);
  EXPECT_EQ(application.events, (Events{"SCAN", "QUIT"}));
}

TEST_F(LWToolApplicationTest, NoInputIsReadWhileFramedLinesWait) {
  TestApplication application(input());
  application.onString = [&](const std::shared_ptr<LWToolEvent>& event) {
    if (event->string() == "first") {
      write("third\n");
      std::jthread([&application, event] {
        for (int count = 0; count < 3; ++count) {
          application.wakeUp();
          std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        event->complete();
      }).detach();
      return;
    }
    if (event->string() == "second") {
      closeInput();
    }
    event->complete();
  };
  write("first\nsecond\n");
  EXPECT_EQ(application.run(), 0);
  EXPECT_EQ(application.events, (Events{"first", "second", "third"}));
}

TEST_F(LWToolApplicationTest, EventsCanBePostedAtEitherEnd) {
  TestApplication application(input());
  const auto post = [&](const char* text, bool atStart) {
    const auto own = std::make_shared<LWToolEvent>(LWToolEvent::Type::String, text,
                                                   [](const std::shared_ptr<LWToolEvent>&) {});
    application.postEvent(own, atStart);
  };
  // Events whose completion does not reach the application stay current: only one is handed out.
  post("late", false);
  application.onString = [&](const auto&) { application.terminate(); };
  EXPECT_EQ(application.run(), 0);
  EXPECT_EQ(application.events, Events{"late"});
}

TEST_F(LWToolApplicationTest, CharactersComeOneByOneOnceAskedFor) {
  TestApplication application(input());
  application.onString = [&](const std::shared_ptr<LWToolEvent>& event) {
    application.setEventInputType(LWToolEvent::Type::Character);
    event->complete();
  };
  application.onCharacter = [&](const std::shared_ptr<LWToolEvent>& event) {
    if (event->string() == "!") {
      application.setEventInputType(LWToolEvent::Type::String);
      application.onString = [](const auto& line) { line->complete(); };
    }
    event->complete();
  };
  write("line\na\xC3\xA4!xy\nz\n");
  closeInput();
  EXPECT_EQ(application.run(), 0);
  EXPECT_EQ(application.events, (Events{"line", "a", "\xC3\xA4", "!", "xy", "z"}));
}

TEST_F(LWToolApplicationTest, ManyWakeUpsAreOne) {
  auto loop = *PlatformRunLoop::open(input());
  for (int count = 0; count < 100'000; ++count) {
    loop->wake();
  }
  write("x");
  ASSERT_TRUE(loop->wait().has_value());
  // The wakes are used up: only the input ends this wait.
  const auto ready = loop->wait();
  ASSERT_TRUE(ready.has_value());
  EXPECT_TRUE(ready->input);
}

TEST_F(LWToolApplicationTest, SignalsBecomeCallsOnTheMainThread) {
  TestApplication application(input());
  std::vector<int> received;
  for (const int number : {SIGHUP, SIGUSR1, SIGTERM}) {
    application.addSignalHandler(number, [&](int signal) {
      received.push_back(signal);
      if (signal == SIGTERM) {
        application.terminate();
      }
    });
  }
  application.addSignalHandler(SIGUSR1, [&](int signal) { received.push_back(-signal); });
  ::kill(::getpid(), SIGHUP);
  ::kill(::getpid(), SIGUSR1);
  ::kill(::getpid(), SIGTERM);
  EXPECT_EQ(application.run(), 0);
  EXPECT_EQ(received, (std::vector{SIGHUP, -SIGUSR1, SIGTERM}));
}

TEST(LWToolApplication, InputMayBeARegularFileOrNothing) {
  char path[] = "/tmp/LWToolApplicationTest.XXXXXX";
  const int file = ::mkstemp(path);
  ASSERT_GE(file, 0);
  ::unlink(path);
  std::string text;
  for (int number = 0; number < 3000; ++number) {
    text += std::to_string(number) + "\n";
  }
  ASSERT_EQ(::pwrite(file, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
  {
    TestApplication application(file);
    EXPECT_EQ(application.run(), 0);
    EXPECT_EQ(application.events.size(), 3000U);
    EXPECT_EQ(application.events.back(), "2999");
  }
  ::close(file);
  const int null = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  TestApplication application(null);
  EXPECT_EQ(application.run(), 0);
  ::close(null);
}

TEST(LWToolApplication, InputThatCannotBeReadIsOver) {
  const int folder = ::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  {
    TestApplication application(folder);
    EXPECT_EQ(application.run(), 0);
  }
  ::close(folder);
  constexpr int kNeverOpen = 1'000'000;
  TestApplication application(kNeverOpen);
  EXPECT_EQ(application.run(), 0);
}

TEST_F(LWToolApplicationTest, CompletingAnEventThatIsNotCurrentStopsTheProcess) {
  write("a\n");
  EXPECT_DEATH(
      {
        TestApplication application(input());
        application.onString = [](const std::shared_ptr<LWToolEvent>& event) {
          event->complete();
          event->complete();
        };
        application.run();
      },
      "assertion failed: event == _currentEvent");
}

TEST(LWToolApplicationDeathTest, AnInputTypeThatIsNoneStopsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        TestApplication application(STDIN_FILENO);
        application.setEventInputType(LWToolEvent::Type::Arguments);
      },
      "PANIC: illegal event type: LWToolEventArgumentsType\n");
}

TEST(LWToolResponder, WhatNobodyHandlesIsCompletedAtOnce) {
  int completed = 0;
  const auto count = [&](const auto&) { ++completed; };
  LWToolResponder responder;
  responder.argumentsEvent(std::make_shared<LWToolEvent>(std::vector<std::string>{"a"}, count));
  responder.stringEvent(std::make_shared<LWToolEvent>(LWToolEvent::Type::String, "a", count));
  responder.characterEvent(
      std::make_shared<LWToolEvent>(LWToolEvent::Type::Character, std::nullopt, count));
  EXPECT_EQ(completed, 3);
}
