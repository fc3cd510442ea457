#pragma once

#include <cstdio>
#include <string>

namespace view {

/// A line on standard error that tells how far the work is: rewritten in place in a terminal, a new
/// line for each ten percent elsewhere.
class ProgressDisplay {
 public:
  explicit ProgressDisplay(std::FILE* stream);
  ProgressDisplay(const ProgressDisplay&) = delete;
  ProgressDisplay& operator=(const ProgressDisplay&) = delete;
  ~ProgressDisplay() { clear(); }

  /// Shows a stage, its percentage and what else there is to say.
  void show(const std::string& stage, int percent, const std::string& details);

  /// Takes the line away, so that something else can be printed.
  void clear();

 private:
  std::FILE* _stream;
  bool _inPlace;
  bool _shown = false;
  std::string _stage;
  int _tens = -1;
};

}  // namespace view
