#pragma once

#include <atomic>
#include <condition_variable>
#include <expected>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "LWKit/LWToolResponder.hpp"

/// One unit of work (a command) on a worker thread of its own, tied to the event that asked for it.
///
/// Life: created, started, at work, termination announced, event completed, joined. The creator
/// holds it, starts it once and joins it before letting go of it; the termination handler is the
/// place to do so. abort() only asks: the work polls aborted() at its safe points and ends itself.
/// `_lock` guards what both the worker and other threads look at; it is recursive, because
/// operations that hold it call each other.
class LWToolTask : public LWToolResponder, public std::enable_shared_from_this<LWToolTask> {
 public:
  using TerminationHandler = std::function<void(LWToolTask&)>;

  LWToolTask() = default;
  LWToolTask(const LWToolTask&) = delete;
  LWToolTask& operator=(const LWToolTask&) = delete;
  ~LWToolTask() override;

  /// The command's words, the command itself first.
  const std::vector<std::string>& arguments() const { return _arguments; }
  void setArguments(std::vector<std::string> arguments) { _arguments = std::move(arguments); }

  /// The event that the task completes when it ends; none when it keeps none waiting.
  const std::shared_ptr<LWToolEvent>& event() const { return _event; }
  void setEvent(std::shared_ptr<LWToolEvent> event) { _event = std::move(event); }

  /// The first field of every line that the task reports.
  const std::string& name() const { return _name; }
  void setName(std::string name) { _name = std::move(name); }

  /// Called on the worker thread once the work is done, before the event is completed.
  void setTerminationHandler(TerminationHandler handler) { _didTerminate = std::move(handler); }

  /// Starts the worker thread; returns when it runs. An errno value when the system has no thread
  /// to give; the task is then as if never started. Starting twice is a programming error.
  [[nodiscard]] std::expected<void, int> start();

  /// Waits for the worker thread's end. Not from the worker thread itself.
  void join();

  /// Asks the work to end at its next safe point. Any thread.
  virtual void abort();
  bool aborted() const { return _aborted; }

  /// The task whose worker thread calls this, or null on any other thread.
  static LWToolTask* currentToolTask();

 protected:
  /// The work, on the worker thread.
  virtual void runTask() = 0;

  mutable std::recursive_mutex _lock;

 private:
  void _start(std::condition_variable_any& running);

  std::vector<std::string> _arguments;
  std::shared_ptr<LWToolEvent> _event;
  std::string _name;
  TerminationHandler _didTerminate;
  std::atomic<bool> _aborted = false;
  bool _started = false;
  std::thread _thread;
};
