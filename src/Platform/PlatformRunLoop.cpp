#include "Platform/PlatformRunLoop.hpp"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

std::expected<std::unique_ptr<PlatformRunLoop>, int> PlatformRunLoop::open(int inputDescriptor) {
  sigset_t none;
  ::sigemptyset(&none);
  const int signalDescriptor = ::signalfd(-1, &none, SFD_NONBLOCK | SFD_CLOEXEC);
  if (signalDescriptor < 0) {
    return std::unexpected(errno);
  }
  const int wakeDescriptor = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (wakeDescriptor < 0) {
    const int error = errno;
    ::close(signalDescriptor);
    return std::unexpected(error);
  }
  return std::unique_ptr<PlatformRunLoop>(
      new PlatformRunLoop(inputDescriptor, wakeDescriptor, signalDescriptor));
}

PlatformRunLoop::PlatformRunLoop(int inputDescriptor, int wakeDescriptor, int signalDescriptor)
    : _inputDescriptor(inputDescriptor),
      _wakeDescriptor(wakeDescriptor),
      _signalDescriptor(signalDescriptor) {
  ::sigemptyset(&_signals);
}

PlatformRunLoop::~PlatformRunLoop() {
  ::close(_wakeDescriptor);
  ::close(_signalDescriptor);
}

std::expected<PlatformRunLoop::Ready, int> PlatformRunLoop::wait() {
  // poll() takes regular files and /dev/null as input, which epoll refuses. A negative descriptor
  // is passed over, hang-ups included.
  pollfd descriptors[] = {
      {.fd = _wakeDescriptor, .events = POLLIN, .revents = 0},
      {.fd = _signalDescriptor, .events = POLLIN, .revents = 0},
      {.fd = _watchesInput ? _inputDescriptor : -1, .events = POLLIN, .revents = 0},
  };
  while (::poll(descriptors, std::size(descriptors), -1) < 0) {
    if (errno != EINTR) {
      return std::unexpected(errno);
    }
  }
  if (descriptors[0].revents != 0) {
    uint64_t wakes = 0;
    static_cast<void>(!::read(_wakeDescriptor, &wakes, sizeof wakes));
  }
  return Ready{.input = descriptors[2].revents != 0, .signals = descriptors[1].revents != 0};
}

void PlatformRunLoop::wake() {
  // The only failure is a counter that is full, which is awake enough.
  const uint64_t once = 1;
  static_cast<void>(!::write(_wakeDescriptor, &once, sizeof once));
}

std::expected<std::optional<size_t>, int> PlatformRunLoop::readInput(std::span<std::byte> bytes) {
  for (;;) {
    const ssize_t count = ::read(_inputDescriptor, bytes.data(), bytes.size());
    if (count >= 0) {
      return static_cast<size_t>(count);
    }
    if (errno == EAGAIN) {
      return std::nullopt;
    }
    if (errno != EINTR) {
      return std::unexpected(errno);
    }
  }
}

std::expected<void, int> PlatformRunLoop::watchSignal(int number) {
  sigset_t one;
  ::sigemptyset(&one);
  if (::sigaddset(&one, number) != 0) {
    return std::unexpected(errno);
  }
  ::sigaddset(&_signals, number);
  // Blocked first: between the two steps the signal waits instead of taking its default effect.
  if (const int error = ::pthread_sigmask(SIG_BLOCK, &one, nullptr); error != 0) {
    return std::unexpected(error);
  }
  if (::signalfd(_signalDescriptor, &_signals, SFD_NONBLOCK | SFD_CLOEXEC) < 0) {
    return std::unexpected(errno);
  }
  return {};
}

std::optional<int> PlatformRunLoop::nextSignal() {
  signalfd_siginfo info{};
  ssize_t count = 0;
  do {
    count = ::read(_signalDescriptor, &info, sizeof info);
  } while (count < 0 && errno == EINTR);
  if (count != static_cast<ssize_t>(sizeof info)) {
    return std::nullopt;
  }
  return static_cast<int>(info.ssi_signo);
}
