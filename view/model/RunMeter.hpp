#pragma once

#include <cstdint>
#include <deque>
#include <optional>

namespace view {

/// Measures a rewriting run from its progress lines. Times are seconds on any clock that only goes
/// on.
class RunMeter {
 public:
  void start(double now) { *this = RunMeter(now); }

  /// A progress line: its percentage and the blocks that it says were copied.
  void advance(double now, int percent, uint64_t blocks);

  int percent() const { return _percent; }
  uint64_t moves() const { return _moves; }
  uint64_t blocksMoved() const { return _blocksMoved; }
  double elapsed(double now) const { return now - _startedAt; }

  /// Blocks copied a second over the last few seconds.
  double rate(double now) const;

  /// Seconds that are left if the run goes on as it has; nothing before there is anything to go by.
  std::optional<double> remaining(double now) const;

  RunMeter() = default;

 private:
  explicit RunMeter(double now) : _startedAt(now) {}

  struct Sample {
    double time;
    uint64_t blocksMoved;
  };

  double _startedAt = 0;
  int _percent = 0;
  uint64_t _moves = 0;
  uint64_t _blocksMoved = 0;
  std::deque<Sample> _samples;  // at most a few a second, over the last few seconds
};

}  // namespace view
