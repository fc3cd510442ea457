#pragma once

#include <functional>
#include <mutex>
#include <vector>

/// Calls that other threads leave for the main thread, made there in the order they were left.
class LWMainThread {
 public:
  using Call = std::function<void()>;

  static LWMainThread& shared();

  /// Whether the calling thread is the process's first one.
  static bool isCurrent();

  /// Leaves a call for the main thread and wakes it. Any thread; never waits for the call.
  void perform(Call call);

  /// Main thread: makes the calls left so far. One that a call leaves is made by the next round.
  void drain();

  /// Who is told that calls wait; set by the run loop while there is one.
  void setWakeUp(Call wakeUp);

 private:
  std::mutex _lock;
  std::vector<Call> _calls;
  Call _wakeUp;
};
