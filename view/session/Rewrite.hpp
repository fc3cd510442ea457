#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "model/Picture.hpp"
#include "model/RunMeter.hpp"
#include "session/Session.hpp"

namespace view {

/// What a rewriting run is to do.
struct RewriteOrder {
  bool compact = false;
  std::string profiles;  // names for --profile, with commas; empty for none

  /// The task's name, "DEFRAG" or "COMPACT".
  std::string task() const { return compact ? "COMPACT" : "DEFRAG"; }
  /// The command line.
  std::string command() const;
};

/// Seconds on a clock that only goes on.
double steadySeconds();

/// A running DEFRAG or COMPACT, followed on the map move by move: every copy has its line, so the
/// map needs no bitmap in between (which knows of a copy only when the records that point to it are
/// written).
///
/// The run is over when DONE has come, whatever percentage was heard last.
class Rewrite : public ReportListener {
 public:
  using Clock = std::function<double()>;

  /// Begins at once. The session must outlive the run, and the map too.
  Rewrite(Session& session, RewriteOrder order, TileMap& map, Clock clock = steadySeconds);
  Rewrite(const Rewrite&) = delete;
  Rewrite& operator=(const Rewrite&) = delete;
  ~Rewrite() override;

  const RewriteOrder& order() const { return _order; }
  const RunMeter& meter() const { return _meter; }
  bool isOver() const { return _over; }
  bool hasStarted() const { return _started; }
  const std::optional<Failure>& failure() const { return _failure; }

  /// Asks xrdefrag to stop at the next safe point and end.
  void cancel();
  bool isCancelled() const { return _cancelled; }

  /// When blocks of a tile were last read or written by the run; before the run's start for never.
  double lastTouched(size_t tile) const { return _touched[tile]; }
  double now() const { return _clock(); }

 private:
  void touch(BlockRun run);

  void reportToolError(const std::string& message) override;
  void reportStart(const std::string& task) override;
  void reportProgress(const std::string& task, const ProgressLine& progress) override;
  void reportTaskError(const std::string& task, const std::string& message) override;
  void reportDone(const std::string& task) override;

  Session& _session;
  RewriteOrder _order;
  TileMap& _map;
  Clock _clock;
  RunMeter _meter;
  std::vector<double> _touched;
  std::optional<Failure> _failure;
  bool _started = false;
  bool _over = false;
  bool _cancelled = false;
};

}  // namespace view
