#include "Platform/PlatformDescriptor.hpp"

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>

PlatformDescriptor::~PlatformDescriptor() {
  if (_descriptor >= 0) {
    ::close(_descriptor);
  }
}

std::expected<PlatformDescriptor, int> PlatformDescriptor::open(const std::string& path,
                                                                int flags) {
  int descriptor = -1;
  do {
    descriptor = ::open(path.c_str(), flags | O_CLOEXEC | O_NOCTTY);
  } while (descriptor < 0 && errno == EINTR);
  if (descriptor < 0) {
    return std::unexpected(errno);
  }
  return PlatformDescriptor(descriptor);
}

std::expected<PlatformDescriptor, int> PlatformDescriptor::reopen(int flags) const {
  return open("/proc/self/fd/" + std::to_string(_descriptor), flags);
}
