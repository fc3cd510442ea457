#include "protocol/ReportReader.hpp"

namespace view {

namespace {

/// Whether a line begins as a task's FILE line does.
bool beginsFileLine(std::string_view line) {
  constexpr std::string_view kMark = ",FILE,";
  const size_t comma = line.find(',');
  return comma != std::string_view::npos && comma > 0 && line.substr(comma).starts_with(kMark);
}

}  // namespace

bool ReportReader::feed(std::string_view bytes) {
  for (size_t newline = bytes.find('\n'); newline != std::string_view::npos;
       newline = bytes.find('\n')) {
    if (_partial.empty()) {
      takeLine(bytes.substr(0, newline));
    } else {
      _partial += bytes.substr(0, newline);
      const std::string whole = std::move(_partial);
      _partial.clear();
      takeLine(whole);
    }
    bytes.remove_prefix(newline + 1);
  }
  _partial += bytes;
  return _partial.size() <= kLineBytesMax && _tornLine.size() <= kLineBytesMax;
}

void ReportReader::takeLine(std::string_view line) {
  if (!_tornLine.empty()) {
    _tornLine += '\n';
    _tornLine += line;
    const std::string joined = std::move(_tornLine);
    _tornLine.clear();
    if (!takeFileLine(joined)) {
      _tornLine = joined;
    }
    return;
  }
  if (!beginsFileLine(line)) {
    dispatch(line);
  } else if (!takeFileLine(line)) {
    _tornLine = line;
  }
}

bool ReportReader::takeFileLine(std::string_view line) {
  splitReportLine(line, _fields);
  if (!parseFileLine(_fields, _file)) {
    return false;
  }
  _listener.reportFile(_fields.front(), _file);
  return true;
}

void ReportReader::dispatch(std::string_view line) {
  if (line == "READY") {
    _listener.reportReady();
    return;
  }
  splitReportLine(line, _fields);
  if (_fields.size() < 2) {
    return;
  }
  const std::string& task = _fields[0];
  const std::string& kind = _fields[1];
  if (task == "ERROR") {
    _listener.reportToolError(kind);
  } else if (kind == "ERROR" && _fields.size() >= 3) {
    _listener.reportTaskError(task, _fields[2]);
  } else if (kind == "START") {
    _listener.reportStart(task);
  } else if (kind == "DONE") {
    _listener.reportDone(task);
  } else if (kind == "PROGRESS") {
    if (const auto progress = parseProgressLine(_fields)) {
      _listener.reportProgress(task, *progress);
    }
  } else {
    _listener.reportData(task, _fields);
  }
}

}  // namespace view
