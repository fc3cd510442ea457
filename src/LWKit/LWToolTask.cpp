#include "LWKit/LWToolTask.hpp"

#include <system_error>

#include "LWKit/LWDebug.hpp"

namespace {

thread_local LWToolTask* currentTask = nullptr;

}  // namespace

LWToolTask::~LWToolTask() {
  LW_ASSERT(!_thread.joinable());
}

std::expected<void, int> LWToolTask::start() {
  std::condition_variable_any running;
  std::unique_lock lock(_lock);
  LW_ASSERT(!_started);
  try {
    _thread = std::thread([this, &running] { _start(running); });
  } catch (const std::system_error& error) {
    return std::unexpected(error.code().value());
  }
  running.wait(lock, [this] { return _started; });
  return {};
}

void LWToolTask::_start(std::condition_variable_any& running) {
  currentTask = this;
  {
    // The starter's condition lives until the starter has this lock back.
    const std::lock_guard lock(_lock);
    _started = true;
    running.notify_one();
  }
  runTask();
  if (_didTerminate) {
    _didTerminate(*this);
  }
  if (_event) {
    _event->complete();
  }
  currentTask = nullptr;
}

void LWToolTask::join() {
  if (_thread.joinable()) {
    _thread.join();
  }
}

void LWToolTask::abort() {
  const std::lock_guard lock(_lock);
  _aborted = true;
}

LWToolTask* LWToolTask::currentToolTask() {
  return currentTask;
}
