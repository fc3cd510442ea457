#include "ReportCapture.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "FuzzTargets.hpp"
#include "XRDefragReport.hpp"

namespace fuzz {

namespace {

// A volume of a fuzzer's size has no more to tell.
constexpr off_t kMostReported = off_t{64} << 20;

/// The file that standard output is led into.
int captureFile() {
  static const int file = ::memfd_create("report", MFD_CLOEXEC);
  FUZZ_CHECK(file >= 0, "no memory for reports");
  return file;
}

}  // namespace

ReportCapture::ReportCapture()
    : _standardOutput(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)) {
  FUZZ_CHECK(::dup2(captureFile(), STDOUT_FILENO) == STDOUT_FILENO, "standard output stays");
  takeLines();
}

ReportCapture::~ReportCapture() {
  takeLines();
  ::dup2(_standardOutput, STDOUT_FILENO);
  ::close(_standardOutput);
}

std::vector<std::string> ReportCapture::takeLines() {
  XRDefragReport::shared().printAndFlush({});
  const off_t size = ::lseek(captureFile(), 0, SEEK_CUR);
  FUZZ_CHECK(size >= 0 && size <= kMostReported, "a report without end");
  std::string reported(static_cast<size_t>(size), '\0');
  FUZZ_CHECK(::pread(captureFile(), reported.data(), reported.size(), 0) == size, "a lost report");
  FUZZ_CHECK(::lseek(captureFile(), 0, SEEK_SET) == 0, "a lost report");
  FUZZ_CHECK(reported.empty() || reported.back() == '\n', "a report line without its end");
  std::vector<std::string> lines;
  for (size_t start = 0; start < reported.size();) {
    const size_t end = reported.find('\n', start);
    lines.push_back(reported.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

void checkTaskLines(const std::vector<std::string>& lines, std::string_view name) {
  const std::string prefix = std::string(name) + ",";
  FUZZ_CHECK(!lines.empty() && lines.front() == prefix + "START", "no START line");
  FUZZ_CHECK(lines.size() > 1 && lines.back() == prefix + "DONE", "no DONE line");
}

std::string errorOf(const std::vector<std::string>& lines) {
  constexpr std::string_view kError = ",ERROR,";
  for (const std::string& line : lines) {
    const size_t comma = line.find(',');
    if (comma != std::string::npos && line.substr(comma).starts_with(kError)) {
      return line.substr(comma + kError.size());
    }
  }
  return {};
}

}  // namespace fuzz
