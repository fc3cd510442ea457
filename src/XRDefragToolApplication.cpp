#include "XRDefragToolApplication.hpp"

#include <csignal>
#include <string_view>
#include <utility>

#include "LWKit/LWMainThread.hpp"
#include "LWKit/LWStringUtilities.hpp"
#include "Platform/PlatformProcess.hpp"
#include "XRDefragReport.hpp"

namespace {

void reportError(const XRDefragError& error) {
  XRDefragReport::shared().printAndFlush(
      LWFormat("ERROR,%s\n", outputSafeString(error.description())));
}

}  // namespace

XRDefragToolApplication::XRDefragToolApplication(std::vector<std::string> arguments,
                                                 VolumeOpener openVolume, int inputDescriptor)
    : LWToolApplication(std::move(arguments), inputDescriptor), _openVolume(std::move(openVolume)) {
  setEventInputType(LWToolEvent::Type::String);
  // A debugger wants the signals for itself.
  if (!PlatformProcess::isTraced()) {
    for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
      addSignalHandler(number, [this](int received) { _handleSignal(received); });
    }
  }
}

void XRDefragToolApplication::argumentsEvent(const std::shared_ptr<LWToolEvent>& event) {
  const Result<Start> start = _start(event->arguments());
  if (!start) {
    reportError(start.error());
  }
  event->complete();
  if (!start || *start == Start::End) {
    terminate();
    return;
  }
  // Not flushed: a reader of a pipe sees it with the first line that a command produces.
  XRDefragReport::shared().print("READY\n");
}

Result<XRDefragToolApplication::Start> XRDefragToolApplication::_start(
    const std::vector<std::string>& arguments) {
  const XRDefragCommandLine line = TRY(XRDefragCommandLine::parse(arguments));
  if (line.help) {
    return Start::End;
  }
  _progressInterval = line.progressInterval;
  _volume = TRY(_openVolume(line));
  return line.quit ? Start::End : Start::Ready;
}

void XRDefragToolApplication::stringEvent(const std::shared_ptr<LWToolEvent>& event) {
  const std::string_view word = LWFirstComponent(event->string());
  if (_terminateRequestPending || word.empty()) {
    event->complete();
    return;
  }
  const std::string command = LWUppercaseASCII(word);
  if (command == "QUIT") {
    terminate();
    event->complete();
    return;
  }
  if (const auto task = _volume->makeTask(command, event)) {
    _startTask(task, event);
    return;
  }
  reportError(XRDefragError::localized("%1$@ is not a recognized command.", word));
  // A front end that does not read its answers gets no more of them.
  XRDefragReport::shared().whenThereIsRoom([event] { event->complete(); });
}

void XRDefragToolApplication::_startTask(const std::shared_ptr<XRDefragTask>& task,
                                         const std::shared_ptr<LWToolEvent>& event) {
  const bool inputWaits = task->event() != nullptr;
  if (!inputWaits) {
    task->setArguments(LWTrimmedComponents(event->string()));
  }
  task->setProgressReportInterval(_progressInterval);
  task->setTerminationHandler([this](LWToolTask& ended) {
    LWMainThread::shared().perform([this, &ended] { _toolTaskDidTerminate(ended); });
  });
  _tasks.insert(task);
  const bool isRunning = task->start().has_value();
  if (!isRunning) {
    _tasks.erase(task);
    reportError(XRDefragError::internalHere());
  }
  if (!isRunning || !inputWaits) {
    event->complete();
  }
}

void XRDefragToolApplication::terminate() {
  if (!std::exchange(_terminateRequestPending, true)) {
    XRDefragReport::shared().stopWaiting();
    for (const auto& task : _tasks) {
      task->abort();
    }
  }
  if (_tasks.empty()) {
    _volume.reset();
    LWToolApplication::terminate();
  }
}

void XRDefragToolApplication::_toolTaskDidTerminate(LWToolTask& task) {
  // The thread is on its last steps, none of which waits for this one.
  task.join();
  std::erase_if(_tasks, [&](const auto& other) { return other.get() == &task; });
  if (_terminateRequestPending) {
    terminate();
  }
}

void XRDefragToolApplication::_handleSignal(int number) {
  if (number != SIGHUP) {
    terminate();
  }
}
