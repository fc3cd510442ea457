#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "protocol/ReportLine.hpp"

namespace view {

/// Who listens to xrdefrag's report lines. Tasks are known by their name ("SCAN"); what a listener
/// does not care for it leaves alone.
class ReportListener {
 public:
  virtual ~ReportListener() = default;

  /// The device is open. It comes no earlier than a task's first line, whatever was waited for.
  virtual void reportReady() {}
  /// The tool as a whole refuses something: before READY its start, afterwards a command.
  virtual void reportToolError(const std::string& /*message*/) {}
  virtual void reportStart(const std::string& /*task*/) {}
  virtual void reportProgress(const std::string& /*task*/, const ProgressLine& /*progress*/) {}
  /// The task failed; reportDone still follows.
  virtual void reportTaskError(const std::string& /*task*/, const std::string& /*message*/) {}
  virtual void reportDone(const std::string& /*task*/) {}
  virtual void reportFile(const std::string& /*task*/, const FileLine& /*file*/) {}
  /// Any other line of a task; the first field is its name.
  virtual void reportData(const std::string& /*task*/, const std::vector<std::string>& /*fields*/) {
  }
};

/// Cuts xrdefrag's standard output into report lines and hands each to the listener.
///
/// A file name may hold a newline, and the line is then torn in two: the parts of a FILE line are
/// put together again (nothing else can come between them), so that no name can pass for a report
/// line.
class ReportReader {
 public:
  /// The longest line that is read, in bytes. A file in millions of pieces stays far below it.
  static constexpr size_t kLineBytesMax = size_t{64} << 20;

  explicit ReportReader(ReportListener& listener) : _listener(listener) {}

  /// Takes the bytes that have come. False when a line is longer than any report line.
  bool feed(std::string_view bytes);

 private:
  void takeLine(std::string_view line);
  bool takeFileLine(std::string_view line);
  void dispatch(std::string_view line);

  ReportListener& _listener;
  std::string _partial;   // a line whose newline has not come
  std::string _tornLine;  // a FILE line that goes on behind its newline
  std::vector<std::string> _fields;
  FileLine _file;
};

}  // namespace view
