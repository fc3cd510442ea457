#include "XRDefragReport.hpp"

#include <unistd.h>

#include <system_error>
#include <utility>

#include "LWKit/LWMainThread.hpp"
#include "Platform/PlatformOutput.hpp"

namespace {

/// Printed lines beyond this many bytes leave without waiting for a flushed one. Many enough that
/// the two threads need not wake each other all the time.
constexpr size_t kPrintedBytes = size_t{128} << 10;

/// Room for that and for the piece that makes it due. Buffers that grow step by step take fresh
/// pages at every step.
constexpr size_t kBufferBytes = kPrintedBytes + (size_t{64} << 10);

}  // namespace

XRDefragReport& XRDefragReport::shared() {
  static PlatformOutput output = [] {
    PlatformOutput standardOutput(STDOUT_FILENO);
    standardOutput.widenPipe(kBacklogBytes);
    return standardOutput;
  }();
  static XRDefragReport report([](std::string_view lines) { output.write(lines); },
                               output.isTerminal() ? Buffering::ByLine : Buffering::UntilFlushed,
                               [](std::string_view lines) { return output.writeAtOnce(lines); });
  return report;
}

XRDefragReport::XRDefragReport(Sink sink, Buffering buffering, SinkAtOnce sinkAtOnce)
    : _sink(std::move(sink)), _buffering(buffering), _sinkAtOnce(std::move(sinkAtOnce)) {}

XRDefragReport::~XRDefragReport() {
  {
    const std::lock_guard lock(_lock);
    static_cast<void>(_send());
    _ends = true;
  }
  _dueChanged.notify_one();
  if (_writer.joinable()) {
    _writer.join();
  }
}

void XRDefragReport::print(std::string_view lines) {
  _append(lines, _buffering == Buffering::ByLine);
}

void XRDefragReport::printAndFlush(std::string_view lines) {
  _append(lines, true);
}

void XRDefragReport::_append(std::string_view lines, bool flush) {
  const bool mayWait = !LWMainThread::isCurrent();
  std::unique_lock lock(_lock);
  _printed.reserve(kBufferBytes);
  if (mayWait) {
    _roomChanged.wait(lock, [this] { return _hasRoom(); });
  }
  _printed += lines;
  if (flush && _leaveAtOnce()) {
    return;
  }
  const bool isDue = (flush || _printed.size() >= kPrintedBytes) && _send();
  const uint64_t sent = _sent;
  lock.unlock();
  if (!isDue) {
    return;
  }
  _dueChanged.notify_one();
  if (flush && mayWait) {
    lock.lock();
    _writtenChanged.wait(lock, [&] { return _written >= sent || !_waits; });
  }
}

/// Has what is printed leave right here, if nothing is on its way and the reader has room: with
/// short commands, two threads that wake each other take longer than all the rest.
bool XRDefragReport::_leaveAtOnce() {
  if (!_sinkAtOnce || _written != _sent || !_sinkAtOnce(_printed)) {
    return false;
  }
  _sent += _printed.size();
  _written = _sent;
  _printed.clear();
  return true;
}

/// Sends what is printed on its way; whether that is now the writing thread's to do.
bool XRDefragReport::_send() {
  if (_printed.empty()) {
    return false;
  }
  const bool inBackground = _hasWriter();
  _sent += _printed.size();
  if (!inBackground) {
    _sink(_printed);
  } else if (_due.empty()) {
    _due.swap(_printed);
  } else {
    _due += _printed;
  }
  _printed.clear();
  return inBackground;
}

bool XRDefragReport::_hasWriter() {
  if (_inBackground && !_writer.joinable()) {
    try {
      _writer = std::thread([this] { _write(); });
    } catch (const std::system_error&) {
      _inBackground = false;
    }
  }
  return _inBackground;
}

/// The writing thread.
void XRDefragReport::_write() {
  std::string lines;
  std::unique_lock lock(_lock);
  for (;;) {
    _dueChanged.wait(lock, [this] { return !_due.empty() || _ends; });
    if (_due.empty()) {
      return;
    }
    lines.swap(_due);
    for (const auto& call : std::exchange(_wantRoom, {})) {
      call();
    }
    lock.unlock();
    _roomChanged.notify_all();
    _sink(lines);
    lock.lock();
    _written += lines.size();
    lines.clear();
    _writtenChanged.notify_all();
  }
}

void XRDefragReport::writeInBackground() {
  const std::lock_guard lock(_lock);
  _inBackground = true;
}

void XRDefragReport::stopWaiting() {
  {
    const std::lock_guard lock(_lock);
    _waits = false;
    _wantRoom.clear();
  }
  _roomChanged.notify_all();
  _writtenChanged.notify_all();
}

void XRDefragReport::whenThereIsRoom(std::function<void()> call) {
  {
    const std::lock_guard lock(_lock);
    if (!_hasRoom()) {
      _wantRoom.push_back(std::move(call));
      return;
    }
  }
  call();
}

std::string outputSafeString(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (const char character : text) {
    switch (character) {
      case '\\':
        result += "\\\\";
        break;
      case ',':
        result += "\\,";
        break;
      case '\0':
        result += "\\xC0\\x80";
        break;
      default:
        result += character;
    }
  }
  return result;
}
