// Writes down what a program transfers: preloaded into it, notes every positioned read and write
// and every sync, and writes them to the file that TRANSFER_TRACE names when the program exits.
//
// Transfers to and from the copy buffer are told from metadata by their address: nothing else that
// the program asks the system for is as large.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <map>
#include <mutex>
#include <vector>

#include "TransferTrace.hpp"

namespace {

constexpr size_t kRecordsUsual = 1 << 20;
constexpr size_t kCopyBufferBytesMin = 8 << 20;

class Recorder {
 public:
  Recorder() { _records.reserve(kRecordsUsual); }

  ~Recorder() {
    const char* path = std::getenv("TRANSFER_TRACE");
    const int file = path != nullptr ? ::open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644) : -1;
    if (file < 0) {
      return;
    }
    const auto* bytes = reinterpret_cast<const char*>(_records.data());
    for (size_t left = _records.size() * sizeof(TransferRecord); left > 0;) {
      const ssize_t written = ::write(file, bytes, left);
      if (written <= 0) {
        break;
      }
      bytes += written;
      left -= static_cast<size_t>(written);
    }
    ::close(file);
  }

  void noteCopyBuffer(void* start, size_t size) {
    const std::lock_guard lock(_lock);
    _copyBuffer = static_cast<char*>(start);
    _copyBufferSize = size;
  }

  void note(TransferRecord::Kind kind, int file, const void* memory, uint64_t offset, ssize_t size,
            uint64_t start) {
    const uint64_t end = now();
    const std::lock_guard lock(_lock);
    const bool isDirect = _isDirect(file);
    const auto* address = static_cast<const char*>(memory);
    const bool isFileData =
        address != nullptr && address >= _copyBuffer && address < _copyBuffer + _copyBufferSize;
    if (size >= 0) {
      _records.push_back(
          {start, end, offset, static_cast<uint32_t>(size), kind, isDirect, isFileData, 0});
    }
  }

  static uint64_t now() {
    timespec time = {};
    ::clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(time.tv_nsec);
  }

 private:
  /// Whether a descriptor bypasses the page cache. Asked once: the program opens its device's
  /// descriptors before the first transfer, and closes them after the last.
  bool _isDirect(int file) {
    const auto [known, isNew] = _directFiles.try_emplace(file, false);
    if (isNew) {
      known->second = (::fcntl(file, F_GETFL) & O_DIRECT) != 0;
    }
    return known->second;
  }

  std::mutex _lock;
  std::map<int, bool> _directFiles;
  std::vector<TransferRecord> _records;
  char* _copyBuffer = nullptr;
  size_t _copyBufferSize = 0;
};

Recorder& recorder() {
  static Recorder recorder;
  return recorder;
}

template <typename Function>
Function next(const char* name) {
  return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

ssize_t pread64(int file, void* bytes, size_t size, off64_t offset) {
  static const auto call = next<ssize_t (*)(int, void*, size_t, off64_t)>("pread64");
  const uint64_t start = Recorder::now();
  const ssize_t count = call(file, bytes, size, offset);
  recorder().note(TransferRecord::Read, file, bytes, static_cast<uint64_t>(offset), count, start);
  return count;
}

ssize_t pwrite64(int file, const void* bytes, size_t size, off64_t offset) {
  static const auto call = next<ssize_t (*)(int, const void*, size_t, off64_t)>("pwrite64");
  const uint64_t start = Recorder::now();
  const ssize_t count = call(file, bytes, size, offset);
  recorder().note(TransferRecord::Write, file, bytes, static_cast<uint64_t>(offset), count, start);
  return count;
}

int fdatasync(int file) {
  static const auto call = next<int (*)(int)>("fdatasync");
  const uint64_t start = Recorder::now();
  const int outcome = call(file);
  recorder().note(TransferRecord::Sync, file, nullptr, 0, 0, start);
  return outcome;
}

void* mmap64(void* place, size_t size, int protection, int flags, int file, off64_t offset) {
  static const auto call = next<void* (*)(void*, size_t, int, int, int, off64_t)>("mmap64");
  void* memory = call(place, size, protection, flags, file, offset);
  if (memory != MAP_FAILED && size >= kCopyBufferBytesMin) {
    recorder().noteCopyBuffer(memory, size);
  }
  return memory;
}
}
