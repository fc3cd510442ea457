#pragma once

#include <cstdint>
#include <functional>
#include <string_view>

#include "protocol/ReportLine.hpp"

namespace view {

/// Turns the hexadecimal text of BITMAP's DATA lines into runs of equal bits, over all lines: the
/// first bit of a digit is its most significant one.
class BitRuns {
 public:
  /// Called for each run when it is complete.
  using Sink = std::function<void(BlockRun run, bool isUsed)>;

  /// Bits beyond `bitCount` are padding and ignored.
  BitRuns(uint64_t bitCount, Sink sink) : _bitCount(bitCount), _sink(std::move(sink)) {}

  /// Takes one line's text. False when it is not hexadecimal.
  bool add(std::string_view digits);

  /// Hands over the last run.
  void finish();

 private:
  void extend(uint64_t bits, bool isUsed);

  uint64_t _bitCount;
  Sink _sink;
  BlockRun _run = {0, 0};
  bool _isUsed = false;
};

}  // namespace view
