#include "session/Rewrite.hpp"

#include <algorithm>
#include <chrono>

namespace view {

namespace {

constexpr double kNever = -1e9;

}  // namespace

std::string RewriteOrder::command() const {
  return profiles.empty() || compact ? task() : task() + " --profile " + profiles;
}

double steadySeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

Rewrite::Rewrite(Session& session, RewriteOrder order, TileMap& map, Clock clock)
    : _session(session),
      _order(std::move(order)),
      _map(map),
      _clock(std::move(clock)),
      _touched(map.tileCount(), kNever) {
  _session.addListener(*this);
  _meter.start(_clock());
  _session.ask(_order.command());
}

Rewrite::~Rewrite() {
  _session.removeListener(*this);
}

void Rewrite::cancel() {
  _cancelled = true;
  _session.quit();
}

void Rewrite::touch(BlockRun run) {
  if (run.count == 0 || run.start >= _map.blockCount()) {
    return;
  }
  const size_t last = _map.tileOf(std::min(run.start + run.count, _map.blockCount()) - 1);
  for (size_t tile = _map.tileOf(run.start); tile <= last; ++tile) {
    _touched[tile] = _clock();
  }
}

void Rewrite::reportToolError(const std::string& message) {
  _failure = Failure{ExitStatus::Refused, message};
  _over = true;
}

void Rewrite::reportStart(const std::string& task) {
  _started = _started || task == _order.task();
}

void Rewrite::reportProgress(const std::string& task, const ProgressLine& progress) {
  if (task != _order.task() || _over) {
    return;
  }
  _meter.advance(_clock(), progress.percent, progress.move ? progress.move->count : 0);
  if (progress.move) {
    _map.move(*progress.move, !_order.compact);
    touch({progress.move->from, progress.move->count});
    touch({progress.move->to, progress.move->count});
  }
}

void Rewrite::reportTaskError(const std::string& task, const std::string& message) {
  if (task == _order.task()) {
    _failure = Failure{ExitStatus::Refused, message};
  }
}

void Rewrite::reportDone(const std::string& task) {
  if (task == _order.task()) {
    _over = true;
  }
}

}  // namespace view
