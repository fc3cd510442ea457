#include "LWKit/LWThreadGate.hpp"

void LWThreadGate::close() {
  std::unique_lock lock(_lock);
  if (_refcnt == 0 || isOwner()) {
    _owner = std::this_thread::get_id();
    ++_refcnt;
    return;
  }
  Waiter waiter;
  appendWaiter(waiter);
  waitForTurn(waiter, lock);
}

void LWThreadGate::open() {
  const std::unique_lock lock(_lock);
  if (!isOwner() || --_refcnt > 0) {
    return;
  }
  if (_waitQHead == nullptr) {
    _owner = {};
  } else {
    handToFirstWaiter();
  }
}

void LWThreadGate::yield() {
  std::unique_lock lock(_lock);
  if (!isOwner() || _waitQHead == nullptr) {
    return;
  }
  const uint32_t depth = _refcnt;
  Waiter waiter;
  appendWaiter(waiter);
  handToFirstWaiter();
  waitForTurn(waiter, lock);
  _refcnt = depth;
}

void LWThreadGate::appendWaiter(Waiter& waiter) {
  (_waitQTail == nullptr ? _waitQHead : _waitQTail->next) = &waiter;
  _waitQTail = &waiter;
}

void LWThreadGate::handToFirstWaiter() {
  Waiter& first = *_waitQHead;
  _waitQHead = first.next;
  if (_waitQHead == nullptr) {
    _waitQTail = nullptr;
  }
  _owner = first.thread;
  _refcnt = 1;
  // Under the lock: the waiter's record is gone as soon as its thread has seen the new owner.
  first.signal.notify_one();
}

void LWThreadGate::waitForTurn(Waiter& waiter, std::unique_lock<std::mutex>& lock) {
  waiter.signal.wait(lock, [&] { return _owner == waiter.thread; });
}
