#include "Platform/PlatformTerminal.hpp"

#include <gtest/gtest.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>

namespace {

tcflag_t localModes(int terminal) {
  termios attributes{};
  EXPECT_EQ(::tcgetattr(terminal, &attributes), 0);
  return attributes.c_lflag;
}

/// A terminal that a child process has as its standard input.
class PlatformTerminalTest : public testing::Test {
 protected:
  PlatformTerminalTest() {
    EXPECT_EQ(::openpty(&_master, &terminal, nullptr, nullptr, nullptr), 0);
  }
  ~PlatformTerminalTest() override {
    ::close(terminal);
    ::close(_master);
  }

  /// What the work answers in a child process that ends by exit().
  int inChild(const std::function<bool()>& work) const {
    const pid_t child = ::fork();
    if (child == 0) {
      ::dup2(terminal, STDIN_FILENO);
      std::exit(work() ? 0 : 1);
    }
    int status = -1;
    return ::waitpid(child, &status, 0) == child ? status : -1;
  }

  int terminal = -1;

 private:
  int _master = -1;
};

bool has(tcflag_t modes) {
  return (localModes(STDIN_FILENO) & modes) == modes;
}

}  // namespace

TEST_F(PlatformTerminalTest, CharactersAndLinesAreDeliveredAsAskedAndAllIsRestoredAtExit) {
  const tcflag_t before = localModes(terminal);
  ASSERT_EQ(before & (ICANON | ECHO), static_cast<tcflag_t>(ICANON | ECHO));
  EXPECT_EQ(inChild([] {
              PlatformTerminal::saveAttributes();
              PlatformTerminal::deliverCharacters();
              const bool raw = !has(ICANON) && !has(ECHO);
              PlatformTerminal::deliverLines();
              const bool cooked = has(ICANON | ECHO);
              PlatformTerminal::deliverCharacters();
              return raw && cooked;
            }),
            0);
  EXPECT_EQ(localModes(terminal), before);
}

TEST_F(PlatformTerminalTest, LinesAreEchoedOnlyIfTheyWereAtTheStart) {
  termios attributes{};
  ASSERT_EQ(::tcgetattr(terminal, &attributes), 0);
  attributes.c_lflag &= ~static_cast<tcflag_t>(ECHO | ICANON);
  ASSERT_EQ(::tcsetattr(terminal, TCSANOW, &attributes), 0);
  EXPECT_EQ(inChild([] {
              PlatformTerminal::saveAttributes();
              PlatformTerminal::deliverLines();
              return has(ICANON) && !has(ECHO);
            }),
            0);
  EXPECT_EQ(localModes(terminal), attributes.c_lflag);
}

TEST_F(PlatformTerminalTest, WithoutATerminalNothingHappens) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  std::swap(ends[0], terminal);
  EXPECT_EQ(inChild([] {
              PlatformTerminal::saveAttributes();
              PlatformTerminal::deliverCharacters();
              PlatformTerminal::deliverLines();
              return true;
            }),
            0);
  ::close(ends[0]);
  ::close(ends[1]);
}
