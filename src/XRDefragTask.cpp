#include "XRDefragTask.hpp"

#include <chrono>

#include "LWKit/LWDebug.hpp"
#include "LWKit/LWMainThread.hpp"
#include "XRDefragReport.hpp"

double XRDefragTask::currentTime() const {
  using Seconds = std::chrono::duration<double>;
  return Seconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

void XRDefragTask::reportTaskStart() {
  {
    const std::lock_guard lock(_lock);
    _progressReported = currentTime();
    _timeSpent = -_progressReported;
  }
  XRDefragReport::shared().printAndFlush(LWFormat("%s,START\n", name()));
}

void XRDefragTask::updateTaskProgress(int percent) {
  const std::lock_guard lock(_lock);
  if (percent == _progressValue) {
    return;
  }
  _progressValue = percent;
  if (_progressPending || !(currentTime() - _progressReported > _progressInterval)) {
    return;
  }
  _progressPending = true;
  const auto self = std::static_pointer_cast<XRDefragTask>(shared_from_this());
  LWMainThread::shared().perform([task = std::weak_ptr(self)] {
    if (const auto alive = task.lock()) {
      alive->reportTaskProgress();
    }
  });
}

void XRDefragTask::reportTaskProgress() {
  // Printed under the lock: reportTaskDone() needs it before its line, so this one never follows.
  const std::lock_guard lock(_lock);
  if (!(_timeSpent < 0)) {
    return;
  }
  _progressReported = currentTime();
  _progressPending = false;
  if (_progressValue >= 0) {
    XRDefragReport::shared().printAndFlush(LWFormat("%s,PROGRESS,%d\n", name(), _progressValue));
  }
}

void XRDefragTask::reportTaskError(const XRDefragError& error) {
  if (!error.isUserCancelled()) {
    XRDefragReport::shared().printAndFlush(
        LWFormat("%s,ERROR,%s\n", name(), outputSafeString(error.description())));
  }
}

void XRDefragTask::reportTaskDone() {
  double timeSpent = 0;
  {
    const std::lock_guard lock(_lock);
    _timeSpent += currentTime();
    timeSpent = _timeSpent;
  }
  XRDefragReport::shared().printAndFlush(LWFormat("%s,DONE\n", name()));
  LWDebugLog(LWDebugLevel::Debug, "%@,DEBUG,Elapsed time %.03fs\n", name(), timeSpent);
}
