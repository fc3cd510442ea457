#include "Platform/PlatformOutput.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <utility>

PlatformOutput::PlatformOutput(int descriptor)
    : _descriptor(descriptor), _isPipe(::fcntl(descriptor, F_GETPIPE_SZ) >= 0) {}

void PlatformOutput::write(std::string_view lines) {
  if (_lineIsCutOff && _writeSome("\n") == 0) {
    return;
  }
  _lineIsCutOff = false;
  char last = '\n';
  while (!lines.empty()) {
    const size_t count = _writeSome(lines);
    if (count == 0) {
      _lineIsCutOff = last != '\n';
      return;
    }
    last = lines[count - 1];
    lines.remove_prefix(count);
  }
}

/// Writes as many bytes as go out at once, at least one; 0 when none ever will.
size_t PlatformOutput::_writeSome(std::string_view bytes) const {
  for (;;) {
    const ssize_t count = ::write(_descriptor, bytes.data(), bytes.size());
    if (count >= 0) {
      return static_cast<size_t>(count);
    }
    if (errno == EAGAIN) {
      pollfd room{.fd = _descriptor, .events = POLLOUT, .revents = 0};
      static_cast<void>(::poll(&room, 1, -1));
    } else if (errno != EINTR) {
      return 0;
    }
  }
}

bool PlatformOutput::writeAtOnce(std::string_view lines) {
  if (!_isPipe || _lineIsCutOff || lines.size() > PIPE_BUF) {
    return false;
  }
  // Kernels that cannot tell for pipes refuse the flag.
  constexpr off_t kWhereItStands = -1;
  const iovec piece{.iov_base = const_cast<char*>(lines.data()), .iov_len = lines.size()};
  return std::cmp_equal(::pwritev2(_descriptor, &piece, 1, kWhereItStands, RWF_NOWAIT),
                        lines.size());
}

void PlatformOutput::widenPipe(size_t bytes) {
  const int size = ::fcntl(_descriptor, F_GETPIPE_SZ);
  if (size >= 0 && std::cmp_less(size, bytes)) {
    ::fcntl(_descriptor, F_SETPIPE_SZ, static_cast<int>(bytes));
  }
}

bool PlatformOutput::isTerminal() const {
  return ::isatty(_descriptor) != 0;
}
