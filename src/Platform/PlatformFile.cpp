#include "Platform/PlatformFile.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace {

constexpr size_t kReadChunkBytes = size_t{64} << 10;

std::expected<std::string, int> readDescriptor(int descriptor, size_t limit) {
  std::string bytes;
  for (;;) {
    const size_t size = bytes.size();
    bytes.resize(size + kReadChunkBytes);
    const ssize_t count = ::read(descriptor, bytes.data() + size, kReadChunkBytes);
    if (count < 0 && errno != EINTR) {
      return std::unexpected(errno);
    }
    bytes.resize(size + static_cast<size_t>(count < 0 ? 0 : count));
    if (bytes.size() > limit) {
      return std::unexpected(EFBIG);
    }
    if (count == 0) {
      return bytes;
    }
  }
}

}  // namespace

std::expected<std::string, int> PlatformFile::readAll(const std::string& path, size_t limit) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
  if (descriptor < 0) {
    return std::unexpected(errno);
  }
  auto bytes = readDescriptor(descriptor, limit);
  ::close(descriptor);
  return bytes;
}
