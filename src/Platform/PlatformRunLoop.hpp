#pragma once

#include <csignal>
#include <cstddef>
#include <expected>
#include <memory>
#include <optional>
#include <span>

/// What a main thread sleeps on: input, signals, and wake-ups from other threads.
///
/// Everything but wake() belongs to the thread that waits. Errors are errno values.
class PlatformRunLoop {
 public:
  /// What a wait has found; several at once are possible.
  struct Ready {
    bool input = false;
    bool signals = false;
  };

  /// A loop over an input descriptor of any kind: a pipe, a terminal, a regular file. The
  /// descriptor is watched from the start and stays the caller's.
  static std::expected<std::unique_ptr<PlatformRunLoop>, int> open(int inputDescriptor);

  PlatformRunLoop(const PlatformRunLoop&) = delete;
  PlatformRunLoop& operator=(const PlatformRunLoop&) = delete;
  ~PlatformRunLoop();

  /// Sleeps until input can be read (while it is watched), a signal came or somebody woke us.
  std::expected<Ready, int> wait();

  /// Ends the current wait or the next one. Any thread; wakes pile up to one and never block.
  void wake();

  /// Whether wait() looks at the input.
  void setWatchesInput(bool watches) { _watchesInput = watches; }

  /// Reads what input there is: 0 bytes at its end, none when there is nothing after all.
  std::expected<std::optional<size_t>, int> readInput(std::span<std::byte> bytes);

  /// From now on a signal only shows in nextSignal(). It is blocked in the calling thread and in
  /// every thread made later: call it before there are others.
  std::expected<void, int> watchSignal(int number);

  /// The next signal that came, or none.
  std::optional<int> nextSignal();

 private:
  PlatformRunLoop(int inputDescriptor, int wakeDescriptor, int signalDescriptor);

  int _inputDescriptor;
  int _wakeDescriptor;
  int _signalDescriptor;
  sigset_t _signals;
  bool _watchesInput = true;
};
