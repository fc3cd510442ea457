#include <fcntl.h>
#include <unistd.h>

#include <clocale>
#include <csignal>
#include <cstdio>

#include "CommandLine.hpp"
#include "base/Text.hpp"
#include "plain/PlainRun.hpp"
#include "terminal/ScreenRun.hpp"

namespace {

using namespace view;

/// No file opened later may become standard input, output or error.
void openStandardDescriptors() {
  int descriptor = ::open("/dev/null", O_RDWR);
  while (descriptor >= 0 && descriptor <= STDERR_FILENO) {
    descriptor = ::open("/dev/null", O_RDWR);
  }
  ::close(descriptor);
}

Outcome<> run(const CommandLine& line) {
  if (!line.compareFiles.empty()) {
    return runComparison(line);
  }
  const bool screenWanted = !line.output && !line.order && line.reportFile.empty() &&
                            line.saveFile.empty() && ::isatty(STDIN_FILENO) == 1 &&
                            ::isatty(STDOUT_FILENO) == 1;
  return screenWanted ? runScreen(line) : runPlain(line);
}

int complain(const Failure& failure) {
  std::fprintf(stderr, "xrdefrag-view: %s\n", visibleLines(failure.message).c_str());
  if (failure.status == ExitStatus::Usage) {
    std::fputs("Try --help.\n", stderr);
  }
  return static_cast<int>(failure.status);
}

}  // namespace

int main(int argc, char** argv) {
  openStandardDescriptors();
  std::setlocale(LC_CTYPE, "");
  std::signal(SIGPIPE, SIG_IGN);
  const Outcome<CommandLine> line = CommandLine::parse({argv, argv + argc});
  if (!line) {
    return complain(line.error());
  }
  if (line->help) {
    std::fputs(helpText().c_str(), stdout);
    return 0;
  }
  if (line->version) {
    std::puts("xrdefrag-view " XRDEFRAG_VERSION);
    return 0;
  }
  const Outcome<> outcome = run(*line);
  return outcome ? 0 : complain(outcome.error());
}
