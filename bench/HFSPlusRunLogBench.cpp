// What it costs to make the batches of a run atomic: the same DEFRAG with the run's log, and with a
// device that keeps the log's writes and syncs to itself. The volume is a file in the folder for
// temporary files (TMPDIR), which should be on a real disk. To be repeated, in turn:
// --benchmark_filter=RunLog --benchmark_repetitions=9 --benchmark_enable_random_interleaving

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

#include "HFSPlus/HFSPlusByteOrder.hpp"
#include "HFSPlus/HFSPlusFlushRecord.hpp"
#include "HFSPlus/HFSPlusRunLocator.hpp"
#include "HFSPlus/HFSPlusVolume.hpp"
#include "Platform/PlatformRawDevice.hpp"
#include "Tasks/HFSPlusDefragTask.hpp"
#include "support/VolumeBuilder.hpp"
#include "support/VolumePresets.hpp"

namespace {

namespace fs = std::filesystem;

/// Tells the writes and syncs of a run's log from all others and, if asked to, leaves them out: the
/// record, the locator and the sync that follows on the locator. The sync that follows on a record
/// stays, since a batch's data has to be on stable storage before its metadata anyway.
///
/// Opening never sees what was left out, as the run comes to its end.
class LogWatchingDevice final : public PlatformDevice {
 public:
  enum class Log { Kept, LeftOut };

  LogWatchingDevice(std::shared_ptr<PlatformDevice> device, Log log)
      : _device(std::move(device)), _log(log) {}

  uint64_t bytes() const { return _bytes; }
  uint64_t logBytes() const { return _logBytes; }
  uint64_t syncs() const { return _syncs; }

  std::expected<size_t, int> readAt(std::span<std::byte> bytes, uint64_t offset) override {
    return _device->readAt(bytes, offset);
  }

  std::expected<size_t, int> writeAt(std::span<const std::byte> bytes, uint64_t offset) override {
    _lastWasLocator = offset / blockSize() == blockCount() - 1;
    if (_lastWasLocator || isRecord(bytes)) {
      _logBytes += bytes.size();
      if (_log == Log::LeftOut) {
        return bytes.size();
      }
    }
    _bytes += bytes.size();
    return _device->writeAt(bytes, offset);
  }

  std::expected<void, int> sync() override {
    if (std::exchange(_lastWasLocator, false) && _log == Log::LeftOut) {
      return {};
    }
    ++_syncs;
    return _device->sync();
  }

  uint32_t blockSize() const override { return _device->blockSize(); }
  uint64_t blockCount() const override { return _device->blockCount(); }

 private:
  /// A record comes in pieces of a transfer's size, the first of which begins with a link and the
  /// record's magic number, and has its length further on.
  bool isRecord(std::span<const std::byte> bytes) {
    constexpr size_t kLink = 8;
    constexpr size_t kLengthOffset = 48;
    if (_recordBytesLeft > 0) {
      _recordBytesLeft -= std::min<uint64_t>(_recordBytesLeft, bytes.size());
      return true;
    }
    if (bytes.size() < kLink + HFSPlusFlushRecord::kHeaderBytes ||
        readBigEndian<uint64_t>(&bytes[kLink]) != HFSPlusFlushRecord::kMagic) {
      return false;
    }
    const uint64_t length = kLink + readBigEndian<uint64_t>(&bytes[kLink + kLengthOffset]);
    _recordBytesLeft = length - std::min<uint64_t>(length, bytes.size());
    return true;
  }

  std::shared_ptr<PlatformDevice> _device;
  Log _log;
  bool _lastWasLocator = false;
  uint64_t _recordBytesLeft = 0;
  uint64_t _bytes = 0;
  uint64_t _logBytes = 0;
  uint64_t _syncs = 0;
};

/// Keeps the tasks' report lines off the benchmark's output while it lives.
class QuietOutput {
 public:
  QuietOutput() : _saved(::dup(STDOUT_FILENO)) {
    const int null = ::open("/dev/null", O_WRONLY);
    ::dup2(null, STDOUT_FILENO);
    ::close(null);
  }
  ~QuietOutput() {
    ::dup2(_saved, STDOUT_FILENO);
    ::close(_saved);
  }
  QuietOutput(const QuietOutput&) = delete;
  QuietOutput& operator=(const QuietOutput&) = delete;

 private:
  int _saved;
};

/// 192 MiB in pieces, in a folder of its own that goes away at the end.
class FragmentedVolume {
 public:
  FragmentedVolume() {
    support::PlainVolume plain;
    plain.size = 192 << 20;
    plain.files = 2000;
    plain.fragments = 8;
    plain.fillPercent = 70;
    std::string name = fs::temp_directory_path() / "xrdefrag-bench.XXXXXX";
    _folder = ::mkdtemp(name.data());
    support::buildVolume(support::plainVolume(plain), path());
  }
  ~FragmentedVolume() { fs::remove_all(_folder); }
  FragmentedVolume(const FragmentedVolume&) = delete;
  FragmentedVolume& operator=(const FragmentedVolume&) = delete;

  fs::path path() const { return _folder / "volume.hfs"; }

 private:
  fs::path _folder;
};

void runOnCopy(benchmark::State& state, LogWatchingDevice::Log log) {
  static const FragmentedVolume original;
  const fs::path copy = original.path().string() + ".run";
  for ([[maybe_unused]] auto iteration : state) {
    fs::copy_file(original.path(), copy, fs::copy_options::overwrite_existing);
    ::sync();
    auto raw = PlatformRawDevice::open(copy, PlatformRawDevice::Access::Exclusive);
    if (!raw) {
      state.SkipWithError("The volume's copy cannot be opened.");
      return;
    }
    const auto device = std::make_shared<LogWatchingDevice>(std::move(*raw), log);
    auto volume = HFSPlusVolume::open(XRDefragVolume(copy, device, false, true));
    if (!volume) {
      state.SkipWithError(volume.error().description().c_str());
      return;
    }
    const auto task = std::make_shared<HFSPlusDefragTask>(**volume, false);
    task->setArguments({"DEFRAG", "-q"});
    const QuietOutput quiet;
    const auto start = std::chrono::steady_clock::now();
    static_cast<void>(task->start());
    task->join();
    state.SetIterationTime(
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    state.counters["written"] = static_cast<double>(device->bytes());
    state.counters["log"] = static_cast<double>(device->logBytes());
    state.counters["syncs"] = static_cast<double>(device->syncs());
  }
  fs::remove(copy);
}

void defragWithLog(benchmark::State& state) {
  runOnCopy(state, LogWatchingDevice::Log::Kept);
}
BENCHMARK(defragWithLog)
    ->Name("RunLog/kept")
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);

void defragWithoutLog(benchmark::State& state) {
  runOnCopy(state, LogWatchingDevice::Log::LeftOut);
}
BENCHMARK(defragWithoutLog)
    ->Name("RunLog/left out")
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);

}  // namespace
