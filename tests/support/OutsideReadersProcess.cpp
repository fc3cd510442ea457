#include "support/OutsideReadersProcess.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>

namespace outsidereaders {

namespace {

constexpr std::size_t kErrorsMax = 64 * 1024;

struct Pipe {
  int readEnd = -1;
  int writeEnd = -1;

  bool open() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
      return false;
    }
    readEnd = ends[0];
    writeEnd = ends[1];
    return true;
  }
  void closeEnd(int& end) {
    if (end >= 0) {
      ::close(end);
    }
    end = -1;
  }
  ~Pipe() {
    closeEnd(readEnd);
    closeEnd(writeEnd);
  }
};

// A search path in which the readers are found also when the caller's lacks the directories of
// the system administrator, and a locale in which they print names as UTF-8.
std::vector<std::string> readerEnvironment() {
  const char* path = std::getenv("PATH");
  std::string search = "PATH=";
  search += path != nullptr ? path : "/usr/bin:/bin";
  search += ":/usr/sbin:/sbin";
  const char* home = std::getenv("HOME");
  std::string homeWord = "HOME=";
  homeWord += home != nullptr ? home : "/";
  return {search, homeWord, "LC_ALL=C.UTF-8", "TZ=UTC", "TERM=dumb"};
}

std::vector<char*> pointersTo(std::vector<std::string>& words) {
  std::vector<char*> pointers;
  for (std::string& word : words) {
    pointers.push_back(word.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

pid_t spawn(std::vector<std::string> words, Pipe& output, Pipe& errors) {
  std::vector<std::string> environment = readerEnvironment();
  // A bare name is looked up in the child's search path.
  words.insert(words.begin(), "/usr/bin/env");
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  ::posix_spawn_file_actions_adddup2(&actions, output.writeEnd, 1);
  ::posix_spawn_file_actions_adddup2(&actions, errors.writeEnd, 2);
  // The program's own threads may run with signals blocked; the readers shall not.
  posix_spawnattr_t attributes;
  ::posix_spawnattr_init(&attributes);
  sigset_t none;
  ::sigemptyset(&none);
  ::posix_spawnattr_setsigmask(&attributes, &none);
  ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  pid_t child = -1;
  const int error = ::posix_spawn(&child, words[0].c_str(), &actions, &attributes,
                                  pointersTo(words).data(), pointersTo(environment).data());
  ::posix_spawn_file_actions_destroy(&actions);
  ::posix_spawnattr_destroy(&attributes);
  return error == 0 ? child : -1;
}

// Reads both pipes until both have ended; false when the deadline came first.
bool drain(Pipe& output, Pipe& errors, ProcessResult& result, const OutputSink& sink,
           std::chrono::steady_clock::time_point deadline) {
  std::array<std::uint8_t, 64 * 1024> buffer;
  while (output.readEnd >= 0 || errors.readEnd >= 0) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      return false;
    }
    pollfd waits[2] = {{output.readEnd, POLLIN, 0}, {errors.readEnd, POLLIN, 0}};
    if (::poll(waits, 2, static_cast<int>(left.count())) < 0 && errno != EINTR) {
      return false;
    }
    for (Pipe* pipe : {&output, &errors}) {
      const bool ready = waits[pipe == &output ? 0 : 1].revents != 0;
      if (pipe->readEnd < 0 || !ready) {
        continue;
      }
      const ssize_t got = ::read(pipe->readEnd, buffer.data(), buffer.size());
      if (got <= 0) {
        pipe->closeEnd(pipe->readEnd);
        continue;
      }
      const auto size = static_cast<std::size_t>(got);
      const char* text = reinterpret_cast<const char*>(buffer.data());
      if (pipe == &errors) {
        result.errors.append(text, std::min(size, kErrorsMax - result.errors.size()));
      } else if (sink) {
        sink(std::span(buffer).first(size));
      } else {
        result.output.append(text, size);
      }
    }
  }
  return true;
}

}  // namespace

ProcessResult runProgram(const std::vector<std::string>& words, const OutputSink& sink,
                         int secondsMax) {
  ProcessResult result;
  Pipe output;
  Pipe errors;
  if (words.empty() || !output.open() || !errors.open()) {
    return result;
  }
  const pid_t child = spawn(words, output, errors);
  if (child < 0) {
    return result;
  }
  output.closeEnd(output.writeEnd);
  errors.closeEnd(errors.writeEnd);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(secondsMax);
  result.timedOut = !drain(output, errors, result, sink, deadline);
  if (result.timedOut) {
    ::kill(child, SIGKILL);
  }
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  // What env answers when it does not find the program.
  result.started = result.status != 127;
  return result;
}

}  // namespace outsidereaders
