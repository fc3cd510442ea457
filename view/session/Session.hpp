#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Outcome.hpp"
#include "child/ChildProcess.hpp"
#include "protocol/ReportReader.hpp"

namespace view {

/// A conversation with one xrdefrag: sends command lines, reads what comes back and hands it to
/// whoever listens.
///
/// Nothing waits here. A caller polls the two descriptors, calls receive() when one is readable,
/// and so can do other things meanwhile. READY is not waited for: it may come with the first answer
/// only.
class Session : private ReportListener {
 public:
  static Outcome<std::unique_ptr<Session>> open(const Launch& launch);

  /// Listeners are told in the order in which they came; they must leave before they die.
  void addListener(ReportListener& listener);
  void removeListener(ReportListener& listener);

  /// Sends one command line.
  void ask(std::string_view line);

  /// Asks xrdefrag to come to a safe point and end: by line, by the end of its input, by signal
  /// where it may be sent one. Its answers still come.
  void quit();
  bool isQuitting() const { return _quitting; }

  /// Standard output and error of the child; -1 when at its end.
  int outputDescriptor() const { return _outputEnded ? -1 : _child.outputDescriptor(); }
  int diagnosticsDescriptor() const { return _child.diagnosticsDescriptor(); }

  /// Takes what has come, a bounded amount.
  void receive();

  /// Whether anything has been said: until then a password may be asked for.
  bool hasAnswered() const { return _ready || _answered; }

  /// Whether the conversation is over: the child's output has ended.
  bool isOver() const { return _outputEnded; }

  /// Why it is over, unless it was meant to be. Waits a moment for the child's end.
  std::optional<Failure> trouble();

  /// Keeps reading until the child has ended, at most that long; true when it has.
  bool finish(int milliseconds);

 private:
  explicit Session(ChildProcess child, std::string privilege)
      : _child(std::move(child)), _privilege(std::move(privilege)), _reader(*this) {}

  Failure startTrouble(const ChildProcess::End* end);

  template <typename Tell>
  void tell(Tell tell) {
    _answered = true;
    const std::vector<ReportListener*> listeners = _listeners;
    for (ReportListener* listener : listeners) {
      tell(*listener);
    }
  }

  void reportReady() override;
  void reportToolError(const std::string& message) override;
  void reportStart(const std::string& task) override;
  void reportProgress(const std::string& task, const ProgressLine& progress) override;
  void reportTaskError(const std::string& task, const std::string& message) override;
  void reportDone(const std::string& task) override;
  void reportFile(const std::string& task, const FileLine& file) override;
  void reportData(const std::string& task, const std::vector<std::string>& fields) override;

  ChildProcess _child;
  std::string _privilege;
  ReportReader _reader;
  std::vector<ReportListener*> _listeners;
  std::string _refusal;  // the tool's own error before READY
  bool _ready = false;
  bool _answered = false;
  bool _quitting = false;
  bool _outputEnded = false;
  bool _garbled = false;
};

}  // namespace view
