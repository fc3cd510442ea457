#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

/// The one writer of standard output. Lines come from several threads and leave in the order in
/// which they were printed, none inside another.
///
/// A reader that does not read must not keep the main thread from hearing a signal or QUIT, nor a
/// rewriting task from ending when it is told to. So a thread of the report's own does the writing.
/// A task waits until what it has flushed is written, and for room in front of that thread; the
/// main thread never waits, and once the tool is to end nobody does. Lines that a reader has room
/// for, with nothing in front of them, need no thread: whoever flushes them writes them. So do all
/// without that thread (see writeInBackground()).
class XRDefragReport {
 public:
  /// Takes whole lines to where they are read; called by one thread at a time.
  using Sink = std::function<void(std::string_view lines)>;
  /// Does so if that takes no waiting, with all of the lines or none; whether it did.
  using SinkAtOnce = std::function<bool(std::string_view lines)>;
  /// When a printed line leaves: with the next flushed one, or at once, as on a terminal.
  enum class Buffering { UntilFlushed, ByLine };

  /// Bytes that may wait for the writing thread before a task has to wait as well.
  static constexpr size_t kBacklogBytes = size_t{256} << 10;

  /// The report on standard output.
  static XRDefragReport& shared();

  explicit XRDefragReport(Sink sink, Buffering buffering = Buffering::UntilFlushed,
                          SinkAtOnce sinkAtOnce = {});
  XRDefragReport(const XRDefragReport&) = delete;
  XRDefragReport& operator=(const XRDefragReport&) = delete;
  /// Returns when all that was printed has been written.
  ~XRDefragReport();

  /// Prints lines, their newlines included. They leave the process with the next flushed line, or
  /// when many wait.
  void print(std::string_view lines);

  /// Prints lines, their newlines included, and sends them and all that waits on their way.
  void printAndFlush(std::string_view lines);

  /// From now on a thread of the report's own writes. It starts with the first flush, so that a
  /// process may still set up what threads inherit.
  void writeInBackground();

  /// Calls back once there is room: now, or later on the writing thread, which must not be kept.
  void whenThereIsRoom(std::function<void()> call);

  /// Has no thread wait any more, those that do included. No call is made after this.
  void stopWaiting();

 private:
  void _append(std::string_view lines, bool flush);
  bool _leaveAtOnce();
  bool _send();
  bool _hasRoom() const { return _due.size() < kBacklogBytes || !_waits; }
  bool _hasWriter();
  void _write();

  const Sink _sink;
  const Buffering _buffering;
  const SinkAtOnce _sinkAtOnce;
  std::mutex _lock;
  std::condition_variable _dueChanged;
  std::condition_variable _roomChanged;
  std::condition_variable _writtenChanged;
  std::string _printed;   // not yet to be written
  std::string _due;       // to be written by the thread
  uint64_t _sent = 0;     // bytes that were ever due
  uint64_t _written = 0;  // bytes of these that have been written
  std::vector<std::function<void()>> _wantRoom;
  bool _inBackground = false;
  bool _waits = true;
  bool _ends = false;
  std::thread _writer;
};

/// Free text as a field of a report line: "\" becomes "\\", "," becomes "\," and NUL becomes
/// "\xC0\x80" (eight characters). Order matters to no reader: a field ends at a bare comma.
[[nodiscard]] std::string outputSafeString(std::string_view text);
