#include "Platform/PlatformProcess.hpp"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <fstream>
#include <string_view>

namespace PlatformProcess {

namespace {

// ioprio_set(2). The C library has no wrapper, and the kernel's own header is not C++ in every
// version: since 6.1.192 a parameter in it is called "class".
constexpr int kIOPriorityOfProcess = 1;
constexpr int kIOPriorityClassIdle = 3;
constexpr int kIOPriorityClassShift = 13;

}  // namespace

bool isRoot() {
  return ::geteuid() == 0;
}

bool isTraced() {
  constexpr std::string_view kField = "TracerPid:";
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(kField)) {
      const size_t value = line.find_first_not_of(" \t", kField.size());
      return value != std::string::npos && line[value] != '0';
    }
  }
  return false;
}

bool isMainThread() {
  return ::gettid() == ::getpid();
}

uint32_t processID() {
  return static_cast<uint32_t>(::getpid());
}

std::string programName() {
  return program_invocation_short_name;
}

std::optional<uint64_t> physicalMemoryBytes() {
  const long pages = ::sysconf(_SC_PHYS_PAGES);
  const long pageSize = ::sysconf(_SC_PAGESIZE);
  if (pages <= 0 || pageSize <= 0) {
    return std::nullopt;
  }
  return static_cast<uint64_t>(pages) * static_cast<uint64_t>(pageSize);
}

void lowerIOPriority() {
  // An idle class that the kernel or the scheduler does not know leaves us as we are.
  constexpr int kIdlePriority = kIOPriorityClassIdle << kIOPriorityClassShift;
  static_cast<void>(::syscall(SYS_ioprio_set, kIOPriorityOfProcess, 0, kIdlePriority));
}

bool openStandardDescriptors() {
  for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
    if (::fcntl(descriptor, F_GETFD) >= 0) {
      continue;
    }
    // The lowest free number is the one that is missing.
    if (::open("/dev/null", O_RDWR) != descriptor) {
      return false;
    }
  }
  return true;
}

void ignoreWriteSignals() {
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
}

}  // namespace PlatformProcess
