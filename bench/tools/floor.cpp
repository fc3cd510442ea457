// The least that a piece of work could cost, done bare:
//
//   floor write BYTES         writes so many bytes to standard output, 64 KiB at a time
//   floor copy TRACE FILE     carries out the transfers of file data of a recorded run, one after
//                             the other as the run did, and its syncs, with nothing between them;
//                             prints the seconds that took
//
// "copy" writes what it has read, at other places: FILE is of no use afterwards.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string_view>
#include <vector>

#include "TransferTrace.hpp"

namespace {

constexpr size_t kWriteBytes = 64 << 10;
constexpr size_t kBufferBytes = 64 << 20;
constexpr size_t kAlignment = 4096;
constexpr size_t kLargePage = 2 << 20;

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "floor: %s: %s\n", what, std::strerror(errno));
  std::exit(1);
}

int writeBytes(uint64_t bytes) {
  const std::vector<char> text(kWriteBytes, 'x');
  while (bytes > 0) {
    const ssize_t count =
        ::write(STDOUT_FILENO, text.data(), std::min<uint64_t>(bytes, kWriteBytes));
    if (count < 0) {
      fail("write");
    }
    bytes -= static_cast<uint64_t>(count);
  }
  return 0;
}

std::vector<TransferRecord> readTrace(const char* path) {
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  std::vector<TransferRecord> records(static_cast<size_t>(file.tellg()) / sizeof(TransferRecord));
  file.seekg(0);
  file.read(reinterpret_cast<char*>(records.data()),
            static_cast<std::streamsize>(records.size() * sizeof(TransferRecord)));
  if (!file) {
    fail(path);
  }
  return records;
}

/// The transfers of file data and, from the first of them on, the syncs.
std::vector<TransferRecord> copiesOf(const std::vector<TransferRecord>& trace) {
  std::vector<TransferRecord> copies;
  for (const TransferRecord& record : trace) {
    if (record.isFileData || (record.kind == TransferRecord::Sync && !copies.empty())) {
      copies.push_back(record);
    }
  }
  return copies;
}

void carryOut(const TransferRecord& record, int cached, int direct, char* memory) {
  const int file = record.isDirect ? direct : cached;
  const auto offset = static_cast<off_t>(record.offset);
  ssize_t count = 0;
  switch (record.kind) {
    case TransferRecord::Read:
      count = ::pread(file, memory, record.size, offset);
      break;
    case TransferRecord::Write:
      count = ::pwrite(file, memory, record.size, offset);
      break;
    case TransferRecord::Sync:
      if (::fdatasync(cached) != 0) {
        fail("fdatasync");
      }
      return;
  }
  if (count != static_cast<ssize_t>(record.size)) {
    fail("transfer");
  }
}

int copy(const char* tracePath, const char* path) {
  const std::vector<TransferRecord> copies = copiesOf(readTrace(tracePath));
  const int cached = ::open(path, O_RDWR);
  const int direct = ::open(path, O_RDWR | O_DIRECT);
  if (cached < 0 || direct < 0) {
    fail(path);
  }
  const std::unique_ptr<char, decltype(&std::free)> buffer(
      static_cast<char*>(std::aligned_alloc(kLargePage, kBufferBytes)), &std::free);
  ::madvise(buffer.get(), kBufferBytes, MADV_HUGEPAGE);
  std::fill_n(buffer.get(), kBufferBytes, 'x');

  // Walks through the buffer as the run did, reading and then writing.
  size_t used = 0;
  TransferRecord::Kind phase = TransferRecord::Read;
  const auto start = std::chrono::steady_clock::now();
  for (const TransferRecord& record : copies) {
    if (record.kind != phase || used + record.size > kBufferBytes) {
      used = 0;
      phase = record.kind;
    }
    carryOut(record, cached, direct, buffer.get() + used);
    used += (record.size + kAlignment - 1) / kAlignment * kAlignment;
  }
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
  std::printf("%.6f\n", seconds.count());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view work = argc > 1 ? argv[1] : "";
  if (work == "write" && argc == 3) {
    return writeBytes(std::strtoull(argv[2], nullptr, 10));
  }
  if (work == "copy" && argc == 4) {
    return copy(argv[2], argv[3]);
  }
  std::fputs("Usage: floor write BYTES | floor copy TRACE FILE\n", stderr);
  return 2;
}
