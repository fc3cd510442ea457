#include "system/ProgramRunner.hpp"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pty.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace {

constexpr int kCannotStart = 127;
constexpr uid_t kNobody = 65534;

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

struct Pipe {
  int readEnd = -1;
  int writeEnd = -1;
};

Pipe makePipe() {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) {
    fail("pipe2");
  }
  return {ends[0], ends[1]};
}

void closeDescriptor(int& descriptor) {
  if (descriptor >= 0) {
    ::close(descriptor);
    descriptor = -1;
  }
}

/// The program's end of its input; ours in `ourEnd` where there is one.
int openInput(const ProgramSetup& setup, int& ourEnd) {
  switch (setup.input) {
    case ProgramSetup::Input::Pipe: {
      const Pipe pipe = makePipe();
      ourEnd = pipe.writeEnd;
      return pipe.readEnd;
    }
    case ProgramSetup::Input::Nothing:
      return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    case ProgramSetup::Input::File:
      return ::open(setup.inputFile.c_str(), O_RDONLY | O_CLOEXEC);
    case ProgramSetup::Input::Terminal: {
      int terminal = -1;
      if (::openpty(&ourEnd, &terminal, nullptr, nullptr, nullptr) != 0) {
        fail("openpty");
      }
      ::fcntl(ourEnd, F_SETFD, FD_CLOEXEC);
      ::fcntl(terminal, F_SETFD, FD_CLOEXEC);
      termios attributes{};
      ::tcgetattr(terminal, &attributes);
      attributes.c_lflag &= ~static_cast<tcflag_t>(ECHO);
      attributes.c_oflag &= ~static_cast<tcflag_t>(OPOST);
      ::tcsetattr(terminal, TCSANOW, &attributes);
      return terminal;
    }
    case ProgramSetup::Input::Closed:
      break;
  }
  return -1;
}

/// The program's end of its output; ours in `ourEnd` where there is one.
int openOutput(const ProgramSetup& setup, int& ourEnd) {
  constexpr int kCreate = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC;
  switch (setup.output) {
    case ProgramSetup::Output::Pipe:
    case ProgramSetup::Output::PipeThatDoesNotWait: {
      const Pipe pipe = makePipe();
      ourEnd = pipe.readEnd;
      if (setup.output == ProgramSetup::Output::PipeThatDoesNotWait) {
        ::fcntl(pipe.writeEnd, F_SETFL, O_NONBLOCK);
      }
      if (setup.outputPipeBytes > 0) {
        ::fcntl(pipe.writeEnd, F_SETPIPE_SZ, setup.outputPipeBytes);
      }
      return pipe.writeEnd;
    }
    case ProgramSetup::Output::File:
      return ::open(setup.outputFile.c_str(), kCreate, 0600);
    case ProgramSetup::Output::Closed:
      break;
  }
  return -1;
}

void putInPlace(int descriptor, int place) {
  if (descriptor >= 0) {
    ::dup2(descriptor, place);
  } else {
    ::close(place);
  }
}

std::vector<char*> pointers(std::vector<std::string>& strings) {
  std::vector<char*> result;
  for (std::string& string : strings) {
    result.push_back(string.data());
  }
  result.push_back(nullptr);
  return result;
}

std::vector<std::string> environmentWith(const std::map<std::string, std::string>& additions) {
  std::vector<std::string> result;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string_view variable = *entry;
    if (!additions.contains(std::string(variable.substr(0, variable.find('='))))) {
      result.emplace_back(variable);
    }
  }
  for (const auto& [name, value] : additions) {
    result.push_back(name + "=" + value);
  }
  return result;
}

void becomeNobody() {
  if (::geteuid() == 0 &&
      (::setgroups(0, nullptr) != 0 || ::setgid(kNobody) != 0 || ::setuid(kNobody) != 0)) {
    ::_exit(kCannotStart);
  }
}

/// Makes a new process what the setup says.
void takeSettings(const ProgramSetup& setup) {
  for (const int number : setup.ignoredSignals) {
    std::signal(number, SIG_IGN);
  }
  sigset_t blocked;
  ::sigemptyset(&blocked);
  for (const int number : setup.blockedSignals) {
    ::sigaddset(&blocked, number);
  }
  ::sigprocmask(SIG_BLOCK, &blocked, nullptr);
  if (setup.user == ProgramSetup::User::Nobody) {
    becomeNobody();
  }
}

}  // namespace

ProgramRunner::ProgramRunner(std::vector<std::string> arguments) {
  ProgramSetup setup;
  setup.arguments = std::move(arguments);
  start(setup);
}

ProgramRunner::ProgramRunner(const ProgramSetup& setup) {
  start(setup);
}

void ProgramRunner::start(const ProgramSetup& setup) {
  // By descriptor: nobody may not be allowed to walk to where the tests were built.
  int program = ::open(setup.program.c_str(), O_PATH | O_CLOEXEC);
  const bool onTerminal = setup.input == ProgramSetup::Input::Terminal;
  int input = openInput(setup, _input);
  int output = onTerminal ? input : openOutput(setup, _output);
  _diagnostics = ::memfd_create("diagnostics", MFD_CLOEXEC);
  if (program < 0 || _diagnostics < 0) {
    fail(setup.program.c_str());
  }
  std::vector<std::string> words = setup.arguments;
  words.insert(words.begin(), setup.program);
  std::vector<std::string> variables = environmentWith(setup.environment);
  const std::vector<char*> argv = pointers(words);
  const std::vector<char*> envp = pointers(variables);

  _process = ::fork();
  if (_process < 0) {
    fail("fork");
  }
  if (_process == 0) {
    putInPlace(input, STDIN_FILENO);
    putInPlace(output, STDOUT_FILENO);
    const int diagnostics = setup.outputIsDiagnosticsToo ? output : _diagnostics;
    putInPlace(output >= 0 ? diagnostics : -1, STDERR_FILENO);
    takeSettings(setup);
    ::fexecve(program, argv.data(), envp.data());
    ::_exit(kCannotStart);
  }
  closeDescriptor(program);
  if (onTerminal) {
    _terminal = input;
    _output = ::fcntl(_input, F_DUPFD_CLOEXEC, 0);
  } else {
    closeDescriptor(input);
    closeDescriptor(output);
  }
}

ProgramRunner::~ProgramRunner() {
  closeInput();
  closeOutput();
  if (isRunning()) {
    sendSignal(SIGKILL);
    reap(0);
  }
  closeDescriptor(_diagnostics);
  closeDescriptor(_terminal);
}

void ProgramRunner::write(std::string_view bytes) {
  const auto previous = std::signal(SIGPIPE, SIG_IGN);
  while (!bytes.empty()) {
    const ssize_t count = ::write(_input, bytes.data(), bytes.size());
    if (count < 0 && errno != EINTR) {
      break;
    }
    bytes.remove_prefix(static_cast<size_t>(std::max<ssize_t>(count, 0)));
  }
  std::signal(SIGPIPE, previous);
}

void ProgramRunner::writeLine(std::string_view line) {
  write(std::string(line) + "\n");
}

void ProgramRunner::closeInput() {
  closeDescriptor(_input);
}

void ProgramRunner::closeOutput() {
  closeDescriptor(_output);
}

/// Receives some output; false at its end or when time is over.
bool ProgramRunner::receive(Clock::time_point deadline) {
  if (_output < 0) {
    return false;
  }
  const auto left = std::chrono::ceil<Timeout>(deadline - Clock::now());
  pollfd descriptor{.fd = _output, .events = POLLIN, .revents = 0};
  if (::poll(&descriptor, 1, static_cast<int>(std::max<int64_t>(left.count(), 0))) <= 0) {
    return false;
  }
  char bytes[65536];
  const ssize_t count = ::read(_output, bytes, sizeof bytes);
  if (count <= 0) {
    closeOutput();
    return false;
  }
  _received.append(bytes, static_cast<size_t>(count));
  return true;
}

std::optional<std::string> ProgramRunner::takeLine() {
  const size_t newline = _received.find('\n', _taken);
  if (newline == std::string::npos) {
    _received.erase(0, _taken);
    _taken = 0;
    return std::nullopt;
  }
  std::string line = _received.substr(_taken, newline - _taken);
  _taken = newline + 1;
  return line;
}

std::optional<std::string> ProgramRunner::readLine(Timeout timeout) {
  const auto deadline = Clock::now() + timeout;
  for (;;) {
    if (auto line = takeLine()) {
      return line;
    }
    if (!receive(deadline)) {
      return std::nullopt;
    }
  }
}

std::vector<std::string> ProgramRunner::readUntil(std::string_view last, Timeout timeout) {
  const auto deadline = Clock::now() + timeout;
  std::vector<std::string> lines;
  do {
    const auto left = std::chrono::ceil<Timeout>(deadline - Clock::now());
    auto line = readLine(std::max(left, Timeout(0)));
    if (!line) {
      break;
    }
    lines.push_back(*std::move(line));
  } while (lines.back() != last);
  return lines;
}

std::vector<std::string> ProgramRunner::readAll(Timeout timeout) {
  const auto deadline = Clock::now() + timeout;
  while (receive(deadline)) {
  }
  std::vector<std::string> lines;
  while (auto line = takeLine()) {
    lines.push_back(*std::move(line));
  }
  return lines;
}

void ProgramRunner::sendSignal(int number) {
  if (isRunning()) {
    ::kill(_process, number);
  }
}

int ProgramRunner::waitForExit(Timeout timeout) {
  constexpr Timeout kStep(2);
  const auto deadline = Clock::now() + timeout;
  while (isRunning()) {
    if (Clock::now() >= deadline) {
      return kStillRunning;
    }
    if (!receive(Clock::now() + kStep) && _output < 0) {
      ::poll(nullptr, 0, static_cast<int>(kStep.count()));
    }
  }
  return *_exitStatus;
}

bool ProgramRunner::waitUntilClosed(std::string_view path, Timeout timeout) const {
  const std::string folder = "/proc/" + std::to_string(_process) + "/fd";
  const auto isOpen = [&] {
    std::error_code gone;
    for (const auto& entry : std::filesystem::directory_iterator(folder, gone)) {
      if (std::filesystem::read_symlink(entry.path(), gone) == path) {
        return true;
      }
    }
    return false;
  };
  const auto deadline = Clock::now() + timeout;
  while (isOpen()) {
    if (Clock::now() >= deadline) {
      return false;
    }
    ::poll(nullptr, 0, 2);
  }
  return true;
}

bool ProgramRunner::isRunning() {
  reap(WNOHANG);
  return !_exitStatus;
}

void ProgramRunner::reap(int options) {
  int status = 0;
  if (!_exitStatus && ::waitpid(_process, &status, options) == _process) {
    _exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }
}

std::string ProgramRunner::diagnostics() const {
  std::string text;
  char bytes[4096];
  ssize_t count = 0;
  while ((count = ::pread(_diagnostics, bytes, sizeof bytes, static_cast<off_t>(text.size()))) >
         0) {
    text.append(bytes, static_cast<size_t>(count));
  }
  return text;
}

std::string ProgramRunner::processStatus(std::string_view field) const {
  std::ifstream status("/proc/" + std::to_string(_process) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(std::string(field) + ":")) {
      const size_t value = line.find_first_not_of(" \t", field.size() + 1);
      return value == std::string::npos ? "" : line.substr(value);
    }
  }
  return "";
}
