#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

/// A recursive lock that is strictly first come, first served: who leaves it hands it to the thread
/// that has waited longest, before any newcomer can take it. A thread in the middle of long work
/// can yield it at a safe point, to let the others have a turn.
///
/// Invariants: threads wait only while the gate has an owner; `_refcnt` is 0 exactly when there is
/// none. Any thread may call anything; open() and yield() by a thread that does not own the gate do
/// nothing.
class LWThreadGate {
 public:
  LWThreadGate() = default;
  LWThreadGate(const LWThreadGate&) = delete;
  LWThreadGate& operator=(const LWThreadGate&) = delete;

  /// Enters the gate; waits for a turn unless the caller is inside already.
  void close();

  /// Leaves the gate once; the last leave of a nest hands it on.
  void open();

  /// Lets every thread that waits now have the gate, then takes it back as deep as it was. Returns
  /// at once when nobody waits.
  void yield();

 private:
  /// Lives on the stack of the thread that waits.
  struct Waiter {
    Waiter* next = nullptr;
    std::thread::id thread = std::this_thread::get_id();
    std::condition_variable signal;
  };

  bool isOwner() const { return _refcnt > 0 && _owner == std::this_thread::get_id(); }
  void appendWaiter(Waiter& waiter);
  void handToFirstWaiter();
  void waitForTurn(Waiter& waiter, std::unique_lock<std::mutex>& lock);

  std::mutex _lock;
  std::thread::id _owner;
  uint32_t _refcnt = 0;
  Waiter* _waitQHead = nullptr;
  Waiter* _waitQTail = nullptr;
};
