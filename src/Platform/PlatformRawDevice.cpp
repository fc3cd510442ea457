#include "Platform/PlatformRawDevice.hpp"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "Platform/PlatformDirectTransfers.hpp"
#include "Platform/PlatformStorage.hpp"

namespace {

constexpr uint32_t kImageFileBlockSize = 512;
constexpr size_t kDirectTransferMin = size_t{16} << 10;
constexpr int kLockTries = 20;
constexpr timespec kLockPause = {.tv_sec = 0, .tv_nsec = 50'000'000};

bool meansNotWritable(int error) {
  return error == EACCES || error == EROFS || error == EPERM;
}

std::expected<void, int> lockDescriptor(int descriptor, int operation) {
  while (::flock(descriptor, operation | LOCK_NB) != 0) {
    if (errno == EWOULDBLOCK) {
      return std::unexpected(EBUSY);
    }
    if (errno != EINTR) {
      return {};  // a file system without locks keeps nobody out, us included
    }
  }
  return {};
}

/// What opening something that is neither a block device nor a file, or asking it for its sectors,
/// would answer.
int errorOfNoDevice(mode_t mode) {
  return S_ISDIR(mode) ? EISDIR : S_ISSOCK(mode) ? ENXIO : ENOTTY;
}

/// Whoever probes new devices locks them for a moment; that is not a user of the device.
std::expected<void, int> lockBlockDevice(int descriptor, int operation) {
  for (int tries = kLockTries; tries > 1; --tries) {
    if (lockDescriptor(descriptor, operation)) {
      return {};
    }
    ::nanosleep(&kLockPause, nullptr);
  }
  return lockDescriptor(descriptor, operation);
}

/// Locks an image file both ways, since programs look at one or the other.
std::expected<void, int> lockImageFile(int descriptor, bool exclusive) {
  if (auto locked = lockDescriptor(descriptor, exclusive ? LOCK_EX : LOCK_SH); !locked) {
    return locked;
  }
  struct flock whole = {};
  whole.l_type = exclusive ? F_WRLCK : F_RDLCK;
  whole.l_whence = SEEK_SET;
  if (::fcntl(descriptor, F_OFD_SETLK, &whole) != 0 && (errno == EAGAIN || errno == EACCES)) {
    return std::unexpected(EBUSY);
  }
  return {};
}

/// Takes the other devices and files that show the same bytes: a loop device's backing file, an
/// image's loop devices. Fails only when somebody uses one of them.
std::expected<std::vector<PlatformDescriptor>, int> holdSameBytes(const std::string& path) {
  std::vector<PlatformDescriptor> held;
  for (const PlatformStorage::Place& other : PlatformStorage::placesOfSameBytes(path)) {
    auto file = PlatformDescriptor::open(
        other.path, O_RDONLY | O_NONBLOCK | (other.isBlockDevice ? O_EXCL : 0));
    if (!file) {
      if (file.error() == EBUSY) {
        return std::unexpected(EBUSY);
      }
      continue;
    }
    if (!other.isBlockDevice) {
      if (auto locked = lockDescriptor(file->descriptor(), LOCK_EX); !locked) {
        return std::unexpected(locked.error());
      }
    }
    held.push_back(std::move(*file));
  }
  return held;
}

/// Repeats a call that signals interrupt; its count, or errno.
template <typename Call>
std::expected<size_t, int> repeatInterrupted(Call call) {
  for (;;) {
    const ssize_t count = call();
    if (count >= 0) {
      return static_cast<size_t>(count);
    }
    if (errno != EINTR) {
      return std::unexpected(errno);
    }
  }
}

std::expected<size_t, int> readFrom(const PlatformDescriptor& file, std::span<std::byte> bytes,
                                    uint64_t offset) {
  return repeatInterrupted([&] {
    return ::pread(file.descriptor(), bytes.data(), bytes.size(), static_cast<off_t>(offset));
  });
}

std::expected<size_t, int> writeTo(const PlatformDescriptor& file, std::span<const std::byte> bytes,
                                   uint64_t offset) {
  return repeatInterrupted([&] {
    return ::pwrite(file.descriptor(), bytes.data(), bytes.size(), static_cast<off_t>(offset));
  });
}

}  // namespace

std::expected<std::shared_ptr<PlatformRawDevice>, int> PlatformRawDevice::open(
    const std::string& path, Access access) {
  // Opening a FIFO waits and opening a character device may do anything, so look first, and open
  // the very thing that was looked at.
  auto place = PlatformDescriptor::open(path, O_PATH);
  if (!place) {
    return std::unexpected(place.error());
  }
  struct stat status = {};
  if (::fstat(place->descriptor(), &status) != 0) {
    return std::unexpected(errno);
  }
  if (!S_ISBLK(status.st_mode) && !S_ISREG(status.st_mode)) {
    return std::unexpected(errorOfNoDevice(status.st_mode));
  }
  const bool blockDevice = S_ISBLK(status.st_mode);
  std::shared_ptr<PlatformRawDevice> device(new PlatformRawDevice);
  if (auto opened = device->openFile(*place, blockDevice, access); !opened) {
    return std::unexpected(opened.error());
  }
  if (device->_writable) {
    auto held = holdSameBytes(path);
    if (!held) {
      return std::unexpected(held.error());
    }
    device->_held = std::move(*held);
  }
  if (auto measured = device->measure(blockDevice); !measured) {
    return std::unexpected(measured.error());
  }
  device->openForDirectTransfers();
  return device;
}

std::expected<void, int> PlatformRawDevice::openFile(const PlatformDescriptor& place,
                                                     bool blockDevice, Access access) {
  bool forWriting = access == Access::Exclusive;
  if (forWriting) {
    auto file = place.reopen(O_RDWR | (blockDevice ? O_EXCL : 0));
    if (file) {
      _file = std::move(*file);
    } else if (meansNotWritable(file.error())) {
      forWriting = false;
    } else {
      // A file that is being swapped to or run cannot be opened for writing.
      return std::unexpected(file.error() == ETXTBSY ? EBUSY : file.error());
    }
  }
  if (!forWriting) {
    auto file = place.reopen(O_RDONLY);
    if (!file) {
      return std::unexpected(file.error());
    }
    _file = std::move(*file);
  }
  _writable = forWriting;
  if (access == Access::Shared) {
    return {};
  }
  return blockDevice ? lockBlockDevice(_file.descriptor(), forWriting ? LOCK_EX : LOCK_SH)
                     : lockImageFile(_file.descriptor(), forWriting);
}

std::expected<void, int> PlatformRawDevice::measure(bool blockDevice) {
  if (!blockDevice) {
    struct stat status = {};
    if (::fstat(_file.descriptor(), &status) != 0) {
      return std::unexpected(errno);
    }
    _blockSize = kImageFileBlockSize;
    _blockCount = static_cast<uint64_t>(status.st_size) / _blockSize;
    return {};
  }
  int sectorSize = 0;
  uint64_t sizeBytes = 0;
  int readOnly = 0;
  if (::ioctl(_file.descriptor(), BLKSSZGET, &sectorSize) != 0 ||
      ::ioctl(_file.descriptor(), BLKGETSIZE64, &sizeBytes) != 0 ||
      ::ioctl(_file.descriptor(), BLKROGET, &readOnly) != 0) {
    return std::unexpected(errno);
  }
  if (sectorSize <= 0) {
    return std::unexpected(EINVAL);
  }
  _blockSize = static_cast<uint32_t>(sectorSize);
  _blockCount = sizeBytes / _blockSize;
  _writable = _writable && readOnly == 0;
  return {};
}

void PlatformRawDevice::openForDirectTransfers() {
  const auto alignment = PlatformDirectTransferAlignment(_file.descriptor());
  if (!alignment) {
    return;
  }
  if (auto file = _file.reopen((_writable ? O_RDWR : O_RDONLY) | O_DIRECT)) {
    _directFile = std::move(*file);
    _memoryAlignment = alignment->memory;
    _offsetAlignment = alignment->offset;
    _directWorks = true;
  }
}

bool PlatformRawDevice::goesDirectly(const void* address, size_t size, uint64_t offset) const {
  return size >= kDirectTransferMin && _directWorks.load(std::memory_order_relaxed) &&
         reinterpret_cast<uintptr_t>(address) % _memoryAlignment == 0 &&
         size % _offsetAlignment == 0 && offset % _offsetAlignment == 0;
}

std::expected<size_t, int> PlatformRawDevice::readAt(std::span<std::byte> bytes, uint64_t offset) {
  return readFrom(_file, bytes, offset);
}

std::expected<size_t, int> PlatformRawDevice::writeAt(std::span<const std::byte> bytes,
                                                      uint64_t offset) {
  return writeTo(_file, bytes, offset);
}

std::expected<size_t, int> PlatformRawDevice::readOnceAt(std::span<std::byte> bytes,
                                                         uint64_t offset) {
  if (goesDirectly(bytes.data(), bytes.size(), offset)) {
    const auto count = readFrom(_directFile, bytes, offset);
    if (count || count.error() != EINVAL) {
      return count;
    }
    _directWorks = false;
  }
  const auto count = readFrom(_file, bytes, offset);
  ::posix_fadvise(_file.descriptor(), static_cast<off_t>(offset), static_cast<off_t>(bytes.size()),
                  POSIX_FADV_DONTNEED);
  return count;
}

std::expected<size_t, int> PlatformRawDevice::writeOnceAt(std::span<const std::byte> bytes,
                                                          uint64_t offset) {
  if (goesDirectly(bytes.data(), bytes.size(), offset)) {
    const auto count = writeTo(_directFile, bytes, offset);
    if (count || count.error() != EINVAL) {
      return count;
    }
    _directWorks = false;
  }
  return writeTo(_file, bytes, offset);
}

std::expected<void, int> PlatformRawDevice::sync() {
  const auto synced = repeatInterrupted([&] { return ::fdatasync(_file.descriptor()); });
  if (!synced) {
    return std::unexpected(synced.error());
  }
  return {};
}
