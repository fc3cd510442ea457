#include "Platform/PlatformOutput.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <string>
#include <thread>

namespace {

/// A pipe whose write end does not wait.
struct ImpatientPipe {
  ImpatientPipe() { EXPECT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0); }
  ~ImpatientPipe() {
    ::close(ends[0]);
    ::close(ends[1]);
  }
  int ends[2] = {-1, -1};
};

/// The size beyond which files do not grow, and whose signal is not heard, for as long as this
/// lives.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : _previous(std::signal(SIGXFSZ, SIG_IGN)) {
    ::getrlimit(RLIMIT_FSIZE, &_before);
    rlimit limit = _before;
    limit.rlim_cur = bytes;
    EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  }
  ~FileSizeLimit() {
    ::setrlimit(RLIMIT_FSIZE, &_before);
    std::signal(SIGXFSZ, _previous);
  }

 private:
  void (*_previous)(int);
  rlimit _before{};
};

}  // namespace

TEST(PlatformOutput, WaitsForAReaderEvenIfTheDescriptorDoesNot) {
  ImpatientPipe pipe;
  const std::string lines(1 << 20, 'x');
  std::string received;
  {
    std::jthread writer([&] { PlatformOutput(pipe.ends[1]).write(lines); });
    char bytes[1000];
    while (received.size() < lines.size()) {
      const ssize_t count = ::read(pipe.ends[0], bytes, sizeof bytes);
      received.append(bytes, static_cast<size_t>(std::max<ssize_t>(count, 0)));
    }
  }
  EXPECT_EQ(received, lines);
}

TEST(PlatformOutput, LinesForAReaderThatIsGoneAreLost) {
  const auto previous = std::signal(SIGPIPE, SIG_IGN);
  ImpatientPipe pipe;
  ::close(std::exchange(pipe.ends[0], -1));
  PlatformOutput output(pipe.ends[1]);
  output.write("gone\n");
  output.write("gone\n");
  EXPECT_FALSE(output.isTerminal());
  std::signal(SIGPIPE, previous);
}

TEST(PlatformOutput, NoLineContinuesOneThatWasCutOff) {
  const int file = ::memfd_create("output", MFD_CLOEXEC);
  PlatformOutput output(file);
  {
    const FileSizeLimit limit(9);
    output.write("first\nsecond\n");
    output.write("third\n");
  }
  output.write("fourth\n");
  char bytes[100];
  const ssize_t count = ::pread(file, bytes, sizeof bytes, 0);
  EXPECT_EQ(std::string(bytes, static_cast<size_t>(count)), "first\nsec\nfourth\n");
  ::close(file);
}

TEST(PlatformOutput, AFullPipeTakesNothingAtOnce) {
  ImpatientPipe pipe;
  PlatformOutput output(pipe.ends[1]);
  const std::string line(1000, 'x');
  size_t written = 0;
  while (output.writeAtOnce(line)) {
    written += line.size();
  }
  // A kernel that cannot tell takes nothing.
  EXPECT_LE(written, static_cast<size_t>(::fcntl(pipe.ends[1], F_GETPIPE_SZ)));
  std::string received(written + 1, '\0');
  EXPECT_EQ(::read(pipe.ends[0], received.data(), received.size()),
            written > 0 ? static_cast<ssize_t>(written) : -1);
}

TEST(PlatformOutput, OnlyShortLinesIntoAPipeAreWrittenAtOnce) {
  ImpatientPipe pipe;
  EXPECT_FALSE(PlatformOutput(pipe.ends[1]).writeAtOnce(std::string(PIPE_BUF + 1, 'x')));
  const int file = ::memfd_create("lines", MFD_CLOEXEC);
  EXPECT_FALSE(PlatformOutput(file).writeAtOnce("line\n"));
  EXPECT_EQ(::lseek(file, 0, SEEK_END), 0);
  ::close(file);
}

TEST(PlatformOutput, APipeIsWidenedButNeverNarrowed) {
  ImpatientPipe pipe;
  PlatformOutput output(pipe.ends[1]);
  const int before = ::fcntl(pipe.ends[1], F_GETPIPE_SZ);
  output.widenPipe(static_cast<size_t>(before) * 2);
  EXPECT_EQ(::fcntl(pipe.ends[1], F_GETPIPE_SZ), before * 2);
  output.widenPipe(static_cast<size_t>(before));
  EXPECT_EQ(::fcntl(pipe.ends[1], F_GETPIPE_SZ), before * 2);
}

TEST(PlatformOutput, WhatIsNoPipeIsNotWidened) {
  const int file = ::memfd_create("lines", MFD_CLOEXEC);
  PlatformOutput output(file);
  output.widenPipe(1 << 20);
  output.write("line\n");
  EXPECT_EQ(::lseek(file, 0, SEEK_END), 5);
  ::close(file);
}
