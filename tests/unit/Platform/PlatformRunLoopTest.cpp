#include "Platform/PlatformRunLoop.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <thread>

namespace {

/// A loop over a pipe; signals are as before when the test is over.
class PlatformRunLoopTest : public testing::Test {
 protected:
  PlatformRunLoopTest() {
    ::pthread_sigmask(SIG_SETMASK, nullptr, &_signalMask);
    EXPECT_EQ(::pipe2(_ends, O_CLOEXEC | O_NONBLOCK), 0);
    loop = *PlatformRunLoop::open(_ends[0]);
  }
  ~PlatformRunLoopTest() override {
    ::pthread_sigmask(SIG_SETMASK, &_signalMask, nullptr);
    ::close(_ends[0]);
    closeInput();
  }

  void write(std::string_view text) const {
    EXPECT_EQ(::write(_ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  void closeInput() {
    if (_ends[1] >= 0) {
      ::close(_ends[1]);
      _ends[1] = -1;
    }
  }

  std::unique_ptr<PlatformRunLoop> loop;

 private:
  int _ends[2] = {-1, -1};
  sigset_t _signalMask{};
};

}  // namespace

TEST_F(PlatformRunLoopTest, InputEndsAWaitAndIsReadInChunks) {
  std::array<std::byte, 4> chunk;
  EXPECT_EQ(*loop->readInput(chunk), std::nullopt);
  write("123456");
  EXPECT_TRUE(loop->wait()->input);
  EXPECT_EQ(*loop->readInput(chunk), 4U);
  EXPECT_EQ(*loop->readInput(chunk), 2U);
  closeInput();
  EXPECT_TRUE(loop->wait()->input);
  EXPECT_EQ(*loop->readInput(chunk), 0U);
}

TEST_F(PlatformRunLoopTest, InputThatIsNotWatchedEndsNoWaitNotEvenByHangingUp) {
  write("x");
  closeInput();
  loop->setWatchesInput(false);
  loop->wake();
  EXPECT_FALSE(loop->wait()->input);
  loop->setWatchesInput(true);
  EXPECT_TRUE(loop->wait()->input);
}

TEST_F(PlatformRunLoopTest, AnotherThreadEndsAWait) {
  std::jthread other([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    loop->wake();
  });
  const auto ready = loop->wait();
  ASSERT_TRUE(ready.has_value());
  EXPECT_FALSE(ready->input);
  EXPECT_FALSE(ready->signals);
}

TEST_F(PlatformRunLoopTest, ASignalOnlyShowsWhenAskedFor) {
  ASSERT_TRUE(loop->watchSignal(SIGUSR1).has_value());
  ASSERT_TRUE(loop->watchSignal(SIGUSR2).has_value());
  EXPECT_EQ(loop->nextSignal(), std::nullopt);
  ::kill(::getpid(), SIGUSR2);
  ::kill(::getpid(), SIGUSR1);
  EXPECT_TRUE(loop->wait()->signals);
  EXPECT_EQ(loop->nextSignal(), SIGUSR1);
  EXPECT_EQ(loop->nextSignal(), SIGUSR2);
  EXPECT_EQ(loop->nextSignal(), std::nullopt);
}

TEST_F(PlatformRunLoopTest, AnIgnoredSignalIsSeenAsWell) {
  const auto previous = std::signal(SIGUSR1, SIG_IGN);
  ASSERT_TRUE(loop->watchSignal(SIGUSR1).has_value());
  ::kill(::getpid(), SIGUSR1);
  EXPECT_TRUE(loop->wait()->signals);
  EXPECT_EQ(loop->nextSignal(), SIGUSR1);
  std::signal(SIGUSR1, previous);
}

TEST_F(PlatformRunLoopTest, ANumberThatIsNoSignalIsRefused) {
  EXPECT_EQ(loop->watchSignal(0).error(), EINVAL);
  EXPECT_EQ(loop->watchSignal(1000).error(), EINVAL);
}
