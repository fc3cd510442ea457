#pragma once

#include "LWKit/LWToolTask.hpp"
#include "XRDefragError.hpp"
#include "XRDefragVolume.hpp"

/// A task of this tool: its common report lines, progress that is not reported too often, and the
/// time that it took.
///
/// Every task's work reports its start, does its work (progress and data lines), reports at most
/// one error, then done, which is its last line whatever happened. START, ERROR, DONE and data
/// lines are printed by the worker thread, PROGRESS by the main thread, so that it comes while the
/// input waits and never after DONE. `_lock` guards every member here but the volume.
class XRDefragTask : public LWToolTask {
 public:
  /// The volume must outlive the task.
  explicit XRDefragTask(XRDefragVolume& volume) : _volume(volume) {}

  /// Seconds that must pass between two PROGRESS lines. To be set before the task starts.
  double progressReportInterval() const { return _progressInterval; }
  void setProgressReportInterval(double seconds) { _progressInterval = seconds; }

  /// Prints "NAME,START" and starts the clock.
  void reportTaskStart();

  /// Notes how far the work is, in percent, and has the main thread print it when the last line
  /// is long enough ago. Cheap when nothing changed.
  void updateTaskProgress(int percent);

  /// Prints "NAME,ERROR,…"; a cancelled task reports no error.
  void reportTaskError(const XRDefragError& error);

  /// Prints "NAME,DONE" and stops the clock.
  void reportTaskDone();

 protected:
  XRDefragVolume& volume() { return _volume; }

  /// Seconds of a clock that only goes forward.
  virtual double currentTime() const;

 private:
  /// Main thread: prints the latest value, unless the task is done.
  void reportTaskProgress();

  XRDefragVolume& _volume;
  double _timeSpent = 0;  // minus the start while at work, then the seconds that it took
  double _progressInterval = 1.0;
  double _progressReported = 0;  // when START or the last PROGRESS line was printed
  bool _progressPending = false;
  int _progressValue = -1;
};
