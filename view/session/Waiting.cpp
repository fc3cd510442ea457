#include "session/Waiting.hpp"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <csignal>

namespace view {

namespace {

sigset_t watchedSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int number : {SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGTSTP, SIGCONT, SIGWINCH}) {
    sigaddset(&set, number);
  }
  return set;
}

}  // namespace

SignalWatch::SignalWatch() {
  const sigset_t set = watchedSignals();
  ::sigprocmask(SIG_BLOCK, &set, nullptr);
  _descriptor = ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

SignalWatch::~SignalWatch() {
  ::close(_descriptor);
  const sigset_t set = watchedSignals();
  ::sigprocmask(SIG_UNBLOCK, &set, nullptr);
}

int SignalWatch::take() {
  signalfd_siginfo info = {};
  return ::read(_descriptor, &info, sizeof info) == static_cast<ssize_t>(sizeof info)
             ? static_cast<int>(info.ssi_signo)
             : 0;
}

bool SignalWatch::isDeadly(int number) {
  return number == SIGINT || number == SIGQUIT || number == SIGTERM || number == SIGHUP;
}

Waited waitForNews(Session* session, SignalWatch& signals, bool keyboard, int milliseconds) {
  std::array<pollfd, 4> ready = {
      pollfd{signals.descriptor(), POLLIN, 0},
      pollfd{keyboard ? STDIN_FILENO : -1, POLLIN, 0},
      pollfd{session == nullptr ? -1 : session->outputDescriptor(), POLLIN, 0},
      pollfd{session == nullptr ? -1 : session->diagnosticsDescriptor(), POLLIN, 0},
  };
  Waited waited;
  if (::poll(ready.data(), ready.size(), milliseconds) <= 0) {
    return waited;
  }
  if (ready[0].revents != 0) {
    waited.signal = signals.take();
  }
  waited.keyboard = ready[1].revents != 0;
  if (ready[2].revents != 0 || ready[3].revents != 0) {
    session->receive();
  }
  return waited;
}

}  // namespace view
