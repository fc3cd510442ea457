#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

/// Takes the program's report lines from standard output while it lives. One at a time.
class ReportCapture {
 public:
  ReportCapture();
  ~ReportCapture();
  ReportCapture(const ReportCapture&) = delete;
  ReportCapture& operator=(const ReportCapture&) = delete;

  /// What has been reported and not been taken; stops the process unless all of it is whole lines.
  std::vector<std::string> takeLines();

 private:
  int _standardOutput;
};

/// Stops the process unless these are the lines of one run of a task: "NAME,START" first,
/// "NAME,DONE" last, and nothing of others in between.
void checkTaskLines(const std::vector<std::string>& lines, std::string_view name);

/// The message of the ERROR line; empty without one.
std::string errorOf(const std::vector<std::string>& lines);

}  // namespace fuzz
