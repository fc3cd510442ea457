#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "LWKit/LWQueue.hpp"
#include "LWKit/LWToolEvent.hpp"
#include "LWKit/LWToolInputBuffer.hpp"
#include "LWKit/LWToolResponder.hpp"
#include "Platform/PlatformRunLoop.hpp"

/// The core of an event-driven command-line tool: the main thread's loop, which turns input into
/// events and signals into calls, and hands one event at a time to the first responder.
///
/// Invariants: at most one event is current; while one is, or one is queued, no further input is
/// framed, and while framed input waits in the buffer none is read. The command line is the first
/// event. Everything runs on the main thread but postEvent(), wakeUp(), currentEvent() and an
/// event's complete(), which any thread may call; `_eventMutex` guards the queue and the current
/// event.
class LWToolApplication : public LWToolResponder {
 public:
  using SignalHandler = std::function<void(int)>;

  /// Takes the command line, the program's path first, and the descriptor to read input from.
  LWToolApplication(std::vector<std::string> arguments, int inputDescriptor);
  LWToolApplication(const LWToolApplication&) = delete;
  LWToolApplication& operator=(const LWToolApplication&) = delete;
  ~LWToolApplication() override;

  /// Handles events until terminated; the process's exit status.
  int run();

  /// Ends run() when the event at hand has been dealt with. The end of the input calls it, too.
  virtual void terminate();

  /// Queues an event, before or after those that wait, and wakes the loop.
  void postEvent(std::shared_ptr<LWToolEvent> event, bool atStart);

  /// Has the loop look around once more.
  void wakeUp() { _runLoop->wake(); }

  /// The event being dealt with, or null.
  std::shared_ptr<LWToolEvent> currentEvent() const;

  /// Whether input comes as lines (Type::String, as at the start) or as characters.
  void setEventInputType(LWToolEvent::Type type);

  /// Has a signal (1 to 31) call the handler on the main thread instead of taking its effect;
  /// replaces the signal's previous handler. Call it before there are other threads.
  void addSignalHandler(int number, SignalHandler handler);

  LWToolResponder* firstResponder() { return _firstResponder; }

 private:
  void takeEvent();
  void sendEvent(const std::shared_ptr<LWToolEvent>& event);
  void waitOnce();
  void _processSignals();
  void _readInput();
  void _processInput(std::span<const std::byte> bytes);
  void _completeEvent(const std::shared_ptr<LWToolEvent>& event);
  LWToolEvent::Completion completion();

  std::unique_ptr<PlatformRunLoop> _runLoop;
  std::map<int, SignalHandler> _signalHandlers;
  LWToolInputBuffer _input;
  bool _inputEnded = false;
  LWToolEvent::Type _eventInputType = LWToolEvent::Type::String;
  mutable std::mutex _eventMutex;
  LWQueue<std::shared_ptr<LWToolEvent>> _eventQueue;
  std::shared_ptr<LWToolEvent> _currentEvent;
  LWToolResponder* _firstResponder = this;
  int _exitStatus = 0;
  bool _terminated = false;
};
