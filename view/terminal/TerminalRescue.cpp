#include "terminal/TerminalRescue.hpp"

#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <string_view>

namespace view::TerminalRescue {

namespace {

constexpr int kCrashes[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};
// Normal screen, visible cursor, no attributes: what every terminal with a screen understands by
// now.
constexpr std::string_view kNormal = "\033[?1049l\033[?25h\033[0m\r\n";

termios attributes = {};
bool known = false;

void giveBack(int number) {
  if (known) {
    ::tcsetattr(STDIN_FILENO, TCSANOW, &attributes);
  }
  [[maybe_unused]] const ssize_t written = ::write(STDOUT_FILENO, kNormal.data(), kNormal.size());
  // The handler is gone by now (SA_RESETHAND): the signal does what it always does.
  ::raise(number);
}

}  // namespace

void remember() {
  known = ::tcgetattr(STDIN_FILENO, &attributes) == 0;
}

void arm() {
  for (const int number : kCrashes) {
    struct sigaction action = {};
    action.sa_handler = giveBack;
    action.sa_flags = static_cast<int>(SA_RESETHAND | SA_NODEFER);
    ::sigaction(number, &action, nullptr);
  }
}

void disarm() {
  for (const int number : kCrashes) {
    std::signal(number, SIG_DFL);
  }
}

}  // namespace view::TerminalRescue
