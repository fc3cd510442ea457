#include "session/Session.hpp"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace view {

namespace {

/// At most this much is taken at a time, so that a screen stays alive while a million lines come.
constexpr size_t kBytesAtOnceMax = size_t{4} << 20;
constexpr int kEndPatience = 2000;  // milliseconds
constexpr int kExitNotRoot = 13;

std::string describe(const ChildProcess::End* end) {
  if (end == nullptr) {
    return "closed its output";
  }
  if (end->bySignal) {
    const char* name = ::sigabbrev_np(end->number);
    return "was killed by signal " + std::to_string(end->number) +
           (name == nullptr ? "" : std::string(" (SIG") + name + ")");
  }
  return "ended with status " + std::to_string(end->number);
}

}  // namespace

Outcome<std::unique_ptr<Session>> Session::open(const Launch& launch) {
  Outcome<ChildProcess> child = ChildProcess::start(launch);
  if (!child) {
    return std::unexpected(child.error());
  }
  return std::unique_ptr<Session>(new Session(std::move(*child), launch.privilege));
}

void Session::addListener(ReportListener& listener) {
  _listeners.push_back(&listener);
}

void Session::removeListener(ReportListener& listener) {
  std::erase(_listeners, &listener);
}

void Session::ask(std::string_view line) {
  _child.write(std::string(line) + "\n");
}

void Session::quit() {
  if (_quitting) {
    return;
  }
  _quitting = true;
  _child.write("QUIT\n");
  _child.closeInput();
  _child.askToEnd();
}

void Session::receive() {
  static std::array<char, 65536> buffer;
  if (_child.diagnosticsDescriptor() >= 0) {
    _child.readDiagnostics();
  }
  for (size_t taken = 0; !_outputEnded && taken < kBytesAtOnceMax;) {
    const ssize_t bytes = ::read(_child.outputDescriptor(), buffer.data(), buffer.size());
    if (bytes < 0 && errno == EINTR) {
      continue;
    }
    if (bytes < 0 && errno == EAGAIN) {
      return;
    }
    if (bytes <= 0) {
      _outputEnded = true;
      return;
    }
    taken += static_cast<size_t>(bytes);
    if (!_reader.feed({buffer.data(), static_cast<size_t>(bytes)})) {
      _garbled = true;
      _outputEnded = true;
      quit();
    }
  }
}

std::optional<Failure> Session::trouble() {
  if (!_outputEnded || (_quitting && !_garbled)) {
    return std::nullopt;
  }
  if (_garbled) {
    return Failure{ExitStatus::Lost, "xrdefrag sent something that is no report line."};
  }
  const std::optional<ChildProcess::End> end = _child.waitForEnd(kEndPatience);
  if (_child.diagnosticsDescriptor() >= 0) {
    _child.readDiagnostics();
  }
  if (!_refusal.empty()) {
    return Failure{ExitStatus::Refused, _refusal};
  }
  if (!hasAnswered()) {
    return startTrouble(end ? &*end : nullptr);
  }
  std::string message = "xrdefrag " + describe(end ? &*end : nullptr) + " before it had answered.";
  if (!_child.diagnostics().empty()) {
    message += "\n" + _child.diagnostics();
  }
  return Failure{ExitStatus::Lost, message};
}

Failure Session::startTrouble(const ChildProcess::End* end) {
  if (!_child.diagnostics().empty()) {
    return {ExitStatus::NotStarted, _child.diagnostics()};
  }
  if (end != nullptr && !end->bySignal && end->number == kExitNotRoot) {
    return {ExitStatus::NotStarted,
            "xrdefrag must be root, and with " + _privilege + " it is not."};
  }
  return {ExitStatus::NotStarted,
          "xrdefrag, started with " + _privilege + ", " + describe(end) + " without a word."};
}

bool Session::finish(int milliseconds) {
  constexpr int kStep = 50;
  for (int waited = 0; waited < milliseconds && !_outputEnded; waited += kStep) {
    std::array<pollfd, 2> ready = {pollfd{outputDescriptor(), POLLIN, 0},
                                   pollfd{diagnosticsDescriptor(), POLLIN, 0}};
    ::poll(ready.data(), ready.size(), kStep);
    receive();
  }
  return _outputEnded && _child.waitForEnd(milliseconds).has_value();
}

void Session::reportReady() {
  _ready = true;
  tell([](ReportListener& listener) { listener.reportReady(); });
}

void Session::reportToolError(const std::string& message) {
  if (!_ready) {
    _refusal = message;
  }
  tell([&](ReportListener& listener) { listener.reportToolError(message); });
}

void Session::reportStart(const std::string& task) {
  tell([&](ReportListener& listener) { listener.reportStart(task); });
}

void Session::reportProgress(const std::string& task, const ProgressLine& progress) {
  tell([&](ReportListener& listener) { listener.reportProgress(task, progress); });
}

void Session::reportTaskError(const std::string& task, const std::string& message) {
  tell([&](ReportListener& listener) { listener.reportTaskError(task, message); });
}

void Session::reportDone(const std::string& task) {
  tell([&](ReportListener& listener) { listener.reportDone(task); });
}

void Session::reportFile(const std::string& task, const FileLine& file) {
  tell([&](ReportListener& listener) { listener.reportFile(task, file); });
}

void Session::reportData(const std::string& task, const std::vector<std::string>& fields) {
  tell([&](ReportListener& listener) { listener.reportData(task, fields); });
}

}  // namespace view
