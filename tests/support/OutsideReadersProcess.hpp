#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace outsidereaders {

struct ProcessResult {
  bool started = false;   // false: the program is not installed
  bool timedOut = false;  // it was killed after the time limit
  int status = -1;        // exit status, or 128 + the signal that ended it
  std::string output;     // standard output, unless a sink took it
  std::string errors;     // standard error, its first 64 KiB

  bool succeeded() const { return started && !timedOut && status == 0; }
};

using OutputSink = std::function<void(std::span<const std::uint8_t>)>;

// Runs a program found through PATH (and the system administrator's directories) with an empty
// standard input, and waits for its end. With a sink, standard output goes there piece by piece.
ProcessResult runProgram(const std::vector<std::string>& words, const OutputSink& sink = {},
                         int secondsMax = 300);

}  // namespace outsidereaders
