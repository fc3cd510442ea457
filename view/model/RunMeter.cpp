#include "model/RunMeter.hpp"

#include <algorithm>

namespace view {

namespace {

constexpr double kWindow = 5.0;
constexpr double kSampleInterval = 0.1;

}  // namespace

void RunMeter::advance(double now, int percent, uint64_t blocks) {
  _percent = std::max(_percent, percent);
  if (blocks > 0) {
    ++_moves;
  }
  _blocksMoved += blocks;
  if (!_samples.empty() && now - _samples.back().time < kSampleInterval) {
    return;
  }
  _samples.push_back({now, _blocksMoved});
  while (_samples.size() > 2 && now - _samples[1].time > kWindow) {
    _samples.pop_front();
  }
}

double RunMeter::rate(double now) const {
  Sample from = {_startedAt, 0};
  if (elapsed(now) > kWindow && !_samples.empty()) {
    from = _samples.front();
    for (const Sample& sample : _samples) {
      if (now - sample.time >= kWindow) {
        from = sample;
      }
    }
  }
  const double seconds = now - from.time;
  return seconds < kSampleInterval ? 0
                                   : static_cast<double>(_blocksMoved - from.blocksMoved) / seconds;
}

std::optional<double> RunMeter::remaining(double now) const {
  constexpr double kTooEarly = 1.0;
  if (_percent <= 0 || elapsed(now) < kTooEarly) {
    return std::nullopt;
  }
  return elapsed(now) * (100 - _percent) / _percent;
}

}  // namespace view
