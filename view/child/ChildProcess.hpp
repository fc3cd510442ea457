#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "base/Outcome.hpp"
#include "child/Privilege.hpp"

namespace view {

/// A started program with pipes to its standard input, output and error.
///
/// Whatever becomes of this process, the child notices: its input ends, which tells it to come to a
/// safe point and end. It is therefore never killed here; destruction closes the pipes and leaves
/// it to itself.
class ChildProcess {
 public:
  /// How the child ended.
  struct End {
    bool bySignal;
    int number;  // of the signal, or the exit status
  };

  /// Starts the program. The descriptors to read do not block. Fails when the namespace cannot be
  /// made or the program not be run.
  static Outcome<ChildProcess> start(const Launch& launch);

  ChildProcess(ChildProcess&& other) noexcept;
  ChildProcess& operator=(ChildProcess&&) = delete;
  ~ChildProcess();

  /// Writes to the child's standard input. A child that is gone is no error here; its output ends.
  void write(std::string_view text);
  void closeInput();

  /// Asks it to end by signal, where this user may send it one. A child behind sudo does not get
  /// it.
  void askToEnd();

  int outputDescriptor() const { return _output; }
  int diagnosticsDescriptor() const { return _diagnostics; }

  /// Takes what standard error has to say; it is kept, the last few kilobytes of it.
  void readDiagnostics();
  /// The lines on standard error, without the last newline.
  std::string diagnostics() const;

  /// Reaps the child when it has ended; nothing while it runs.
  std::optional<End> ended();
  /// Waits for its end, at most that long.
  std::optional<End> waitForEnd(int milliseconds);

 private:
  ChildProcess(pid_t process, int input, int output, int diagnostics)
      : _process(process), _input(input), _output(output), _diagnostics(diagnostics) {}

  pid_t _process = -1;
  int _input = -1;
  int _output = -1;
  int _diagnostics = -1;
  std::string _messages;
  std::optional<End> _end;
};

}  // namespace view
