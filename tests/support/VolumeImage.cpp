#include "support/VolumeImage.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace support {

namespace {

constexpr size_t kPendingLimit = 1 << 20;
// What a file system keeps a hole in.
constexpr size_t kHoleSize = 4096;

bool allZero(std::span<const std::byte> bytes) {
  return bytes.empty() || (bytes[0] == std::byte{0} &&
                           std::memcmp(bytes.data(), bytes.data() + 1, bytes.size() - 1) == 0);
}

}  // namespace

VolumeImage::VolumeImage(const std::filesystem::path& path, uint64_t size)
    : _path(path), _size(size) {
  _file = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (_file < 0)
    fail("cannot create " + path.string());
  else if (ftruncate(_file, static_cast<off_t>(size)) != 0)
    fail("cannot size " + path.string());
}

VolumeImage::VolumeImage(uint64_t size) : _size(size), _memory(size) {}

VolumeImage::~VolumeImage() {
  if (_file >= 0)
    ::close(_file);
}

void VolumeImage::write(uint64_t offset, std::span<const std::byte> bytes) {
  if (!_failure.empty() || bytes.empty())
    return;
  if (offset > _size || bytes.size() > _size - offset) {
    _failure = "write outside the image at " + std::to_string(offset);
    return;
  }
  if (_file < 0) {
    std::memcpy(_memory.data() + offset, bytes.data(), bytes.size());
    return;
  }
  if (offset != _pendingOffset + _pending.size() || _pending.size() + bytes.size() > kPendingLimit)
    flush();
  if (_pending.empty())
    _pendingOffset = offset;
  if (bytes.size() >= kPendingLimit)
    writeThrough(offset, bytes);
  else
    _pending.insert(_pending.end(), bytes.begin(), bytes.end());
}

std::string VolumeImage::close() {
  flush();
  const bool isFile = _file >= 0;
  if (isFile && ::close(_file) != 0)
    fail("cannot close the image");
  _file = -1;
  std::error_code ignored;
  if (isFile && !_failure.empty() && std::filesystem::is_regular_file(_path, ignored))
    std::filesystem::remove(_path, ignored);
  return _failure;
}

void VolumeImage::flush() {
  writeThrough(_pendingOffset, _pending);
  _pending.clear();
}

// The file is new, so that what is zero need not be written; skipping it keeps the file sparse.
void VolumeImage::writeThrough(uint64_t offset, std::span<const std::byte> bytes) {
  while (!bytes.empty() && _failure.empty()) {
    size_t count = std::min(bytes.size(), kHoleSize - static_cast<size_t>(offset % kHoleSize));
    if (allZero(bytes.first(count))) {
      offset += count;
      bytes = bytes.subspan(count);
      continue;
    }
    while (count < bytes.size()) {
      const size_t next = std::min(bytes.size() - count, kHoleSize);
      if (allZero(bytes.subspan(count, next)))
        break;
      count += next;
    }
    const ssize_t written = pwrite(_file, bytes.data(), count, static_cast<off_t>(offset));
    if (written <= 0) {
      fail("cannot write the image");
      return;
    }
    offset += static_cast<uint64_t>(written);
    bytes = bytes.subspan(static_cast<size_t>(written));
  }
}

void VolumeImage::fail(const std::string& what) {
  if (_failure.empty())
    _failure = what + ": " + std::strerror(errno);
}

}  // namespace support
