#include "LWKit/LWToolApplication.hpp"

#include <array>
#include <utility>

#include "LWKit/LWDebug.hpp"
#include "LWKit/LWMainThread.hpp"
#include "Platform/PlatformTerminal.hpp"

namespace {

constexpr size_t kInputChunkBytes = 4096;

std::unique_ptr<PlatformRunLoop> openRunLoop(int inputDescriptor) {
  auto runLoop = PlatformRunLoop::open(inputDescriptor);
  if (!runLoop) {
    LWPanic("no run loop: error %d\n", runLoop.error());
  }
  return *std::move(runLoop);
}

}  // namespace

LWToolApplication::LWToolApplication(std::vector<std::string> arguments, int inputDescriptor)
    : _runLoop(openRunLoop(inputDescriptor)) {
  LW_ASSERT(LWMainThread::isCurrent());
  LWMainThread::shared().setWakeUp([this] { wakeUp(); });
  PlatformTerminal::saveAttributes();
  postEvent(std::make_shared<LWToolEvent>(std::move(arguments), completion()), true);
}

LWToolApplication::~LWToolApplication() {
  LWMainThread::shared().setWakeUp({});
}

int LWToolApplication::run() {
  LW_ASSERT(LWMainThread::isCurrent());
  while (!_terminated) {
    takeEvent();
    waitOnce();
  }
  // What the last threads left behind on their way out.
  LWMainThread::shared().drain();
  return _exitStatus;
}

void LWToolApplication::terminate() {
  _terminated = true;
  wakeUp();
}

void LWToolApplication::postEvent(std::shared_ptr<LWToolEvent> event, bool atStart) {
  {
    const std::lock_guard lock(_eventMutex);
    if (atStart) {
      _eventQueue.enqueueHeadObject(std::move(event));
    } else {
      _eventQueue.enqueueTailObject(std::move(event));
    }
  }
  wakeUp();
}

std::shared_ptr<LWToolEvent> LWToolApplication::currentEvent() const {
  const std::lock_guard lock(_eventMutex);
  return _currentEvent;
}

void LWToolApplication::takeEvent() {
  std::shared_ptr<LWToolEvent> event;
  {
    const std::lock_guard lock(_eventMutex);
    if (_currentEvent || _eventQueue.empty()) {
      return;
    }
    event = _currentEvent = *_eventQueue.dequeueHeadObject();
  }
  sendEvent(event);
}

void LWToolApplication::sendEvent(const std::shared_ptr<LWToolEvent>& event) {
  switch (event->type()) {
    case LWToolEvent::Type::Arguments:
      firstResponder()->argumentsEvent(event);
      break;
    case LWToolEvent::Type::String:
      firstResponder()->stringEvent(event);
      break;
    case LWToolEvent::Type::Character:
      firstResponder()->characterEvent(event);
      break;
  }
}

void LWToolApplication::_completeEvent(const std::shared_ptr<LWToolEvent>& event) {
  if (!LWMainThread::isCurrent()) {
    LWMainThread::shared().perform([this, event] { _completeEvent(event); });
    return;
  }
  {
    const std::lock_guard lock(_eventMutex);
    LW_ASSERT(event == _currentEvent);
    _currentEvent.reset();
  }
  _processInput({});
}

LWToolEvent::Completion LWToolApplication::completion() {
  return [this](const std::shared_ptr<LWToolEvent>& event) { _completeEvent(event); };
}

void LWToolApplication::waitOnce() {
  const auto ready = _runLoop->wait();
  if (!ready) {
    LWPanic("waiting failed: error %d\n", ready.error());
  }
  if (ready->signals) {
    _processSignals();
  }
  LWMainThread::shared().drain();
  if (ready->input) {
    _readInput();
  }
}

void LWToolApplication::_processSignals() {
  while (const auto number = _runLoop->nextSignal()) {
    if (const auto found = _signalHandlers.find(*number); found != _signalHandlers.end()) {
      found->second(*number);
    }
  }
}

void LWToolApplication::_readInput() {
  std::array<std::byte, kInputChunkBytes> bytes;
  const auto count = _runLoop->readInput(bytes);
  if (count && !*count) {
    return;
  }
  if (!count || **count == 0) {
    // Input that cannot be read any more, a terminal that hung up say, is as good as over.
    _inputEnded = true;
    _runLoop->setWatchesInput(false);
    terminate();
    return;
  }
  _processInput(std::span(bytes).first(**count));
}

void LWToolApplication::_processInput(std::span<const std::byte> bytes) {
  if (!bytes.empty()) {
    _runLoop->setWatchesInput(false);
    _input.append(bytes);
  }
  bool busy = false;
  {
    const std::lock_guard lock(_eventMutex);
    busy = _currentEvent || !_eventQueue.empty();
  }
  if (busy) {
    wakeUp();
  } else if (auto piece = _input.next()) {
    postEvent(std::make_shared<LWToolEvent>(_eventInputType, std::move(piece->text), completion()),
              false);
  } else {
    _runLoop->setWatchesInput(!_inputEnded);
  }
}

void LWToolApplication::setEventInputType(LWToolEvent::Type type) {
  _eventInputType = type;
  switch (type) {
    case LWToolEvent::Type::String:
      _input.setMode(LWToolInputBuffer::Mode::Lines);
      PlatformTerminal::deliverLines();
      break;
    case LWToolEvent::Type::Character:
      _input.setMode(LWToolInputBuffer::Mode::Characters);
      PlatformTerminal::deliverCharacters();
      break;
    case LWToolEvent::Type::Arguments:
      LWPanic("illegal event type: %@\n", "LWToolEventArgumentsType");
  }
  _processInput({});
}

void LWToolApplication::addSignalHandler(int number, SignalHandler handler) {
  LW_ASSERT(number >= 1 && number <= 31);
  _signalHandlers.insert_or_assign(number, std::move(handler));
  const auto watched = _runLoop->watchSignal(number);
  LW_ASSERT(watched.has_value());
}
