#pragma once

#include <span>
#include <string>

#include "XRDefragError.hpp"

/// What the words of the command line ask for.
struct XRDefragCommandLine {
  bool help = false;              // end at once, without a word
  bool quit = false;              // open and check the device, then end
  bool hfsx = false;              // work on HFSX volumes, too
  double progressInterval = 1.0;  // seconds between two PROGRESS lines, positive
  std::string device;

  /// Walks the words, the program's path first, up to a request for help or the first error.
  /// Two options take effect as they are met: the strings file, so that it serves the messages
  /// that follow, and the low I/O priority.
  [[nodiscard]] static Result<XRDefragCommandLine> parse(std::span<const std::string> words);
};
