#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// How a ProgramRunner starts its program.
struct ProgramSetup {
  /// What the program's standard input is. With Terminal it is its standard output as well; the
  /// terminal echoes nothing and changes nothing of what is written.
  enum class Input { Pipe, Nothing, File, Closed, Terminal };
  /// What its standard output is. One that does not wait is a pipe with O_NONBLOCK set.
  enum class Output { Pipe, PipeThatDoesNotWait, File, Closed };
  /// Whose rights it has. Nobody takes effect only when the tests run as root.
  enum class User { Same, Nobody };

  std::vector<std::string> arguments = {};
  Input input = Input::Pipe;
  std::string inputFile = {};  // for Input::File
  Output output = Output::Pipe;
  std::string outputFile = {};  // for Output::File
  int outputPipeBytes = 0;      // what the pipe holds, in whole pages; 0 for as much as usual
  User user = User::Same;
  std::map<std::string, std::string> environment = {};  // added to the tests' own
  bool outputIsDiagnosticsToo = false;                  // as after 2>&1
  std::vector<int> ignoredSignals = {};  // as a shell does for what it starts in the background
  std::vector<int> blockedSignals = {};
  std::string program = XRDEFRAG_PROGRAM;
};

/// A running program, driven over pipes as a front end drives it:
///
///     ProgramRunner program({imagePath});
///     program.writeLine("SCAN");
///     EXPECT_EQ(program.readLine(), "READY");
///     EXPECT_EQ(program.readUntil("SCAN,DONE").front(), "SCAN,START");
///     program.writeLine("QUIT");
///     EXPECT_EQ(program.waitForExit(), 0);
///
/// Everything that waits has a time-out; a program still running at the end is killed.
class ProgramRunner {
 public:
  using Timeout = std::chrono::milliseconds;
  static constexpr Timeout kPatience = std::chrono::seconds(60);

  /// What waitForExit() answers when the time is over; a program killed by signal n gives -n.
  static constexpr int kStillRunning = -1000;

  explicit ProgramRunner(std::vector<std::string> arguments);
  explicit ProgramRunner(const ProgramSetup& setup);
  ProgramRunner(const ProgramRunner&) = delete;
  ProgramRunner& operator=(const ProgramRunner&) = delete;
  ~ProgramRunner();

  /// Writes to the program's standard input. A program that is gone is no error.
  void write(std::string_view bytes);
  void writeLine(std::string_view line);

  /// Ends the program's standard input, unless that is a terminal: write its end of file there.
  void closeInput();

  /// Stops listening: what the program writes from now on fails.
  void closeOutput();

  /// The next line of standard output without its newline; none at the end or when time is over.
  std::optional<std::string> readLine(Timeout timeout = kPatience);

  /// The lines up to `last`, which is included; fewer when the output ends or time is over first.
  std::vector<std::string> readUntil(std::string_view last, Timeout timeout = kPatience);

  /// The lines up to the end of the output.
  std::vector<std::string> readAll(Timeout timeout = kPatience);

  void sendSignal(int number);

  /// Waits for the program's end and returns its exit status. Output is read meanwhile, and kept.
  int waitForExit(Timeout timeout = kPatience);

  /// Waits, reading nothing, until the program no longer has this file open; false when
  /// time is over.
  bool waitUntilClosed(std::string_view path, Timeout timeout = kPatience) const;

  bool isRunning();

  /// What the program has written to standard error so far.
  std::string diagnostics() const;

  /// The line numbered `field` of /proc/PID/status, "VmHWM" say, without the name; empty if none.
  std::string processStatus(std::string_view field) const;

  pid_t processID() const { return _process; }

  /// The program's end of its terminal, which stays open here for a look at its settings.
  int terminal() const { return _terminal; }

 private:
  using Clock = std::chrono::steady_clock;

  void start(const ProgramSetup& setup);
  bool receive(Clock::time_point deadline);
  std::optional<std::string> takeLine();
  void reap(int options);

  pid_t _process = -1;
  int _input = -1;
  int _output = -1;
  int _diagnostics = -1;
  int _terminal = -1;
  std::string _received;
  size_t _taken = 0;  // bytes of _received that have been handed out
  std::optional<int> _exitStatus;
};
