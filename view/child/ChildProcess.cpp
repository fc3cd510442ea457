#include "child/ChildProcess.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>
#include <vector>

namespace view {

namespace {

constexpr size_t kMessagesBytesMax = 8192;

/// A descriptor that closes itself.
class Descriptor {
 public:
  explicit Descriptor(int number = -1) : _number(number) {}
  Descriptor(Descriptor&& other) noexcept : _number(std::exchange(other._number, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(_number, other._number);
    return *this;
  }
  ~Descriptor() {
    if (_number >= 0) {
      ::close(_number);
    }
  }
  int number() const { return _number; }
  int release() { return std::exchange(_number, -1); }

 private:
  int _number;
};

struct Pipe {
  Descriptor reading;
  Descriptor writing;
};

bool makePipe(Pipe& pipe) {
  std::array<int, 2> ends = {};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
    return false;
  }
  pipe = {Descriptor(ends[0]), Descriptor(ends[1])};
  return true;
}

bool writeWhole(const char* path, std::string_view text) {
  const Descriptor file(::open(path, O_WRONLY | O_CLOEXEC));
  return file.number() >= 0 &&
         ::write(file.number(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

/// Makes this process root of a user namespace in which only the user's own IDs exist.
bool becomeRootInNamespace(const std::string& userMap, const std::string& groupMap) {
  return ::unshare(CLONE_NEWUSER) == 0 && writeWhole("/proc/self/setgroups", "deny") &&
         writeWhole("/proc/self/uid_map", userMap) && writeWhole("/proc/self/gid_map", groupMap);
}

/// What the child tells its parent when it could not become the program.
struct StartTrouble {
  int error;
  bool inNamespace;  // else in starting the program
};

[[noreturn]] void becomeProgram(const Launch& launch, char* const* words,
                                const std::string& userMap, const std::string& groupMap,
                                const std::array<int, 3>& streams, int troubleDescriptor) {
  sigset_t none;
  sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  for (const int number : {SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGPIPE, SIGTSTP, SIGWINCH, SIGCHLD}) {
    std::signal(number, SIG_DFL);
  }
  // Away from the terminal's keys, so that neither ^C nor ^Z reaches into a running rewrite.
  if (!launch.mayAskAtTerminal) {
    ::setsid();
  }
  StartTrouble trouble = {0, true};
  if (!launch.inNamespace || becomeRootInNamespace(userMap, groupMap)) {
    trouble.inNamespace = false;
    for (int number = 0; number < 3; ++number) {
      ::dup2(streams[static_cast<size_t>(number)], number);
    }
    ::execv(words[0], words);
  }
  trouble.error = errno;
  [[maybe_unused]] const ssize_t told = ::write(troubleDescriptor, &trouble, sizeof trouble);
  ::_exit(127);
}

std::string sentenceFor(const StartTrouble& trouble, const std::string& program) {
  const std::string reason = std::strerror(trouble.error);
  if (trouble.inNamespace) {
    return "This system lets no ordinary user make a user namespace (" + reason +
           "). Run xrdefrag-view as root, or choose --privilege=sudo or --privilege=pkexec.";
  }
  return program + " could not be started: " + reason + ".";
}

}  // namespace

Outcome<ChildProcess> ChildProcess::start(const Launch& launch) {
  Pipe input;
  Pipe output;
  Pipe diagnostics;
  Pipe trouble;
  if (!makePipe(input) || !makePipe(output) || !makePipe(diagnostics) || !makePipe(trouble)) {
    return fail(ExitStatus::NotStarted, std::string("No pipe to be had: ") + std::strerror(errno));
  }
  std::vector<std::string> copies = launch.words;
  std::vector<char*> words;
  for (std::string& word : copies) {
    words.push_back(word.data());
  }
  words.push_back(nullptr);
  const std::string userMap = "0 " + std::to_string(::geteuid()) + " 1\n";
  const std::string groupMap = "0 " + std::to_string(::getegid()) + " 1\n";
  const std::array<int, 3> streams = {input.reading.number(), output.writing.number(),
                                      diagnostics.writing.number()};

  const pid_t process = ::fork();
  if (process < 0) {
    return fail(ExitStatus::NotStarted,
                std::string("No process to be had: ") + std::strerror(errno));
  }
  if (process == 0) {
    becomeProgram(launch, words.data(), userMap, groupMap, streams, trouble.writing.number());
  }
  trouble.writing = Descriptor();
  StartTrouble told = {};
  ssize_t bytes = 0;
  do {
    bytes = ::read(trouble.reading.number(), &told, sizeof told);
  } while (bytes < 0 && errno == EINTR);
  if (bytes == sizeof told) {
    ::waitpid(process, nullptr, 0);
    return fail(ExitStatus::NotStarted, sentenceFor(told, launch.words.front()));
  }
  for (const int number : {output.reading.number(), diagnostics.reading.number()}) {
    ::fcntl(number, F_SETFL, O_NONBLOCK);
  }
  return ChildProcess(process, input.writing.release(), output.reading.release(),
                      diagnostics.reading.release());
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept
    : _process(std::exchange(other._process, -1)),
      _input(std::exchange(other._input, -1)),
      _output(std::exchange(other._output, -1)),
      _diagnostics(std::exchange(other._diagnostics, -1)),
      _messages(std::move(other._messages)),
      _end(other._end) {}

ChildProcess::~ChildProcess() {
  closeInput();
  for (const int descriptor : {_output, _diagnostics}) {
    if (descriptor >= 0) {
      ::close(descriptor);
    }
  }
}

void ChildProcess::write(std::string_view text) {
  while (_input >= 0 && !text.empty()) {
    const ssize_t written = ::write(_input, text.data(), text.size());
    if (written < 0) {
      if (errno == EINTR) {
        continue;
      }
      return;
    }
    text.remove_prefix(static_cast<size_t>(written));
  }
}

void ChildProcess::closeInput() {
  if (_input >= 0) {
    ::close(std::exchange(_input, -1));
  }
}

void ChildProcess::askToEnd() {
  if (_process > 0 && !_end) {
    ::kill(_process, SIGTERM);
  }
}

void ChildProcess::readDiagnostics() {
  std::array<char, 4096> buffer = {};
  for (;;) {
    const ssize_t bytes = ::read(_diagnostics, buffer.data(), buffer.size());
    if (bytes > 0) {
      _messages.append(buffer.data(), static_cast<size_t>(bytes));
      if (_messages.size() > kMessagesBytesMax) {
        _messages.erase(0, _messages.size() - kMessagesBytesMax);
      }
      continue;
    }
    if (bytes < 0 && errno == EINTR) {
      continue;
    }
    if (bytes == 0) {
      ::close(std::exchange(_diagnostics, -1));
    }
    break;
  }
}

std::string ChildProcess::diagnostics() const {
  return _messages.substr(0, _messages.find_last_not_of('\n') + 1);
}

std::optional<ChildProcess::End> ChildProcess::ended() {
  int status = 0;
  if (!_end && _process > 0 && ::waitpid(_process, &status, WNOHANG) == _process) {
    _end = WIFSIGNALED(status) ? End{true, WTERMSIG(status)} : End{false, WEXITSTATUS(status)};
  }
  return _end;
}

std::optional<ChildProcess::End> ChildProcess::waitForEnd(int milliseconds) {
  constexpr int kStep = 10;
  for (int waited = 0; !ended() && waited < milliseconds; waited += kStep) {
    ::poll(nullptr, 0, kStep);
  }
  return _end;
}

}  // namespace view
