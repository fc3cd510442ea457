#include "LWKit/LWMainThread.hpp"

#include <utility>

#include "LWKit/LWDebug.hpp"
#include "Platform/PlatformProcess.hpp"

LWMainThread& LWMainThread::shared() {
  static LWMainThread mainThread;
  return mainThread;
}

bool LWMainThread::isCurrent() {
  return PlatformProcess::isMainThread();
}

void LWMainThread::perform(Call call) {
  const std::lock_guard lock(_lock);
  _calls.push_back(std::move(call));
  // Under the lock, so that a run loop that is going away is never woken afterwards.
  if (_wakeUp) {
    _wakeUp();
  }
}

void LWMainThread::drain() {
  LW_ASSERT(isCurrent());
  std::vector<Call> calls;
  {
    const std::lock_guard lock(_lock);
    calls.swap(_calls);
  }
  for (const Call& call : calls) {
    call();
  }
}

void LWMainThread::setWakeUp(Call wakeUp) {
  const std::lock_guard lock(_lock);
  _wakeUp = std::move(wakeUp);
}
