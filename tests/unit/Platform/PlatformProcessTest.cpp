#include "Platform/PlatformProcess.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <functional>
#include <thread>

namespace {

/// What a call answers in a process of its own; -1 when that does not end by itself.
int inChild(const std::function<int()>& call) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::_exit(call());
  }
  int status = 0;
  return ::waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool isNullDevice(int descriptor) {
  struct stat status{};
  return ::fstat(descriptor, &status) == 0 && S_ISCHR(status.st_mode) &&
         status.st_rdev == makedev(1, 3);
}

}  // namespace

TEST(PlatformProcess, TheProcessKnowsItself) {
  EXPECT_EQ(PlatformProcess::isRoot(), ::geteuid() == 0);
  EXPECT_EQ(PlatformProcess::processID(), static_cast<uint32_t>(::getpid()));
  EXPECT_EQ(PlatformProcess::programName(), "unit_Platform");
  EXPECT_GT(PlatformProcess::physicalMemoryBytes().value_or(0), uint64_t{16} << 20);
}

TEST(PlatformProcess, OnlyTheFirstThreadIsTheMainThread) {
  EXPECT_TRUE(PlatformProcess::isMainThread());
  std::jthread([] { EXPECT_FALSE(PlatformProcess::isMainThread()); }).join();
}

TEST(PlatformProcess, ATracedProcessKnowsIt) {
  constexpr int kNotPermitted = 2;
  const int answer = inChild([] {
    if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) {
      return kNotPermitted;
    }
    return PlatformProcess::isTraced() ? 1 : 0;
  });
  if (answer == kNotPermitted) {
    GTEST_SKIP() << "tracing is not permitted here";
  }
  EXPECT_EQ(answer, 1);
}

TEST(PlatformProcess, ClosedStandardDescriptorsBecomeTheNullDevice) {
  EXPECT_EQ(inChild([] {
              ::close(STDIN_FILENO);
              ::close(STDERR_FILENO);
              if (!PlatformProcess::openStandardDescriptors()) {
                return 1;
              }
              const int next = ::open("/", O_RDONLY | O_CLOEXEC);
              return isNullDevice(STDIN_FILENO) && isNullDevice(STDERR_FILENO) && next > 2 ? 0 : 2;
            }),
            0);
}

TEST(PlatformProcess, WritesThatUsedToKillFail) {
  EXPECT_EQ(inChild([] {
              PlatformProcess::ignoreWriteSignals();
              int ends[2];
              if (::pipe2(ends, O_CLOEXEC) != 0) {
                return 1;
              }
              ::close(ends[0]);
              if (::write(ends[1], "x", 1) >= 0 || errno != EPIPE) {
                return 2;
              }
              const int file = ::open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
              const rlimit limit{.rlim_cur = 1, .rlim_max = 1};
              ::setrlimit(RLIMIT_FSIZE, &limit);
              return ::pwrite(file, "x", 1, 4096) < 0 && errno == EFBIG ? 0 : 3;
            }),
            0);
}

TEST(PlatformProcess, LoweringThePriorityOfTransfersDoesNoHarm) {
  EXPECT_EQ(inChild([] {
              PlatformProcess::lowerIOPriority();
              return 7;
            }),
            7);
}
