// A run that is cancelled ends soon. How soon is counted in work, since a clock tells more of the
// machine than of the program. The cancel comes at moments all over the run.

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "support/SeededRandom.hpp"
#include "support/doubles/AilingDevice.hpp"
#include "support/doubles/RecordingDevice.hpp"
#include "unit/Tasks/RewritingRun.hpp"

namespace {

using doubles::AilingDevice;
using doubles::MemoryDevice;
using doubles::RecordingDevice;
using Call = RecordingDevice::Call;
using Records = std::vector<RecordingDevice::Record>;

constexpr uint32_t kBlockSize = 4096;

support::VolumeDescription scatteredVolume() {
  support::SeededRandom random(3);
  support::VolumeDescription volume;
  volume.blockSize = kBlockSize;
  volume.fillPercent = 60;
  volume.extentsTree.nodeSize = 1024;
  for (int i = 0; i < 60; ++i) {
    volume.root().addFile(
        "file " + std::to_string(i),
        support::fork(random.between(1, 60000), static_cast<uint32_t>(random.between(1, 9))));
  }
  return volume;
}

/// What ends a run takes: the headers, the reserved bytes, and reading on to the next place at
/// which it looks whether it is to end.
constexpr size_t kCallsOfEnding = 14;
/// The same of a run that has only just begun: finding reserved bytes and the mark come before its
/// only batch.
constexpr size_t kCallsAroundABatch = 16;
constexpr size_t kBytesOfEnding = 64 * 1024;

/// Calls of a device and the bytes that they transfer.
struct Work {
  size_t calls = 0;
  size_t bytes = 0;
};

Work workOf(std::span<const RecordingDevice::Record> records) {
  Work work{.calls = records.size()};
  for (const RecordingDevice::Record& record : records) {
    work.bytes += record.size;
  }
  return work;
}

/// One run, which can be cancelled at any call of its device.
class CancelledRun {
 public:
  CancelledRun(std::string line, uint64_t bufferBlocks)
      : _line(std::move(line)), _bufferBlocks(bufferBlocks), _run(scatteredVolume()) {
    const auto& image = _run.device().image();
    _image.assign(image.begin(), image.end());
    run(UINT64_MAX);
    _whole = _recording->records();
  }

  /// The calls of the run when it is not cancelled.
  const Records& whole() const { return _whole; }

  /// What the run still does when it is cancelled before its n-th call; nothing is lost.
  Work workAfter(uint64_t call) {
    run(call);
    EXPECT_EQ(_run.faultsIn(_memory->image()), "");
    EXPECT_EQ(RewritingRun::reservedBytes(_memory->image()), RewritingRun::reservedBytes(_image));
    const auto& records = _recording->records();
    return workOf(std::span(records).subspan(std::min(call, records.size())));
  }

  /// The most that is done from the first transfer of file data after a flush to the end of the
  /// next flush.
  Work largestBatch() const {
    Work largest;
    auto begin = std::ranges::find_if(_whole, &RecordingDevice::Record::isOnce);
    while (begin != _whole.end()) {
      auto end = begin;
      // The syncs of the record, of its naming and of its being applied.
      for (int syncs = 0; syncs < 3 && end != _whole.end(); ++end) {
        syncs += end->call == Call::Sync ? 1 : 0;
      }
      const Work work = workOf({begin, end});
      largest.calls = std::max(largest.calls, work.calls);
      largest.bytes = std::max(largest.bytes, work.bytes);
      begin = std::find_if(end, _whole.end(), std::mem_fn(&RecordingDevice::Record::isOnce));
    }
    return largest;
  }

 private:
  void run(uint64_t cancelledCall) {
    _memory = std::make_shared<MemoryDevice>(_image);
    const auto ailing = std::make_shared<AilingDevice>(_memory);
    _recording = std::make_shared<RecordingDevice>(ailing);
    _run.openThrough([&](std::shared_ptr<PlatformDevice>) { return _recording; });
    _recording->clear();
    const auto task = RewritingRun::taskOf(_run.volume(), _line);
    task->limitResources(_bufferBlocks * kBlockSize, 0x40000);
    ailing->at(cancelledCall, [&] { task->abort(); });
    const auto lines = RewritingRun::linesOf(*task);
    EXPECT_EQ(lines.back(), _line + ",DONE");
    EXPECT_EQ(RewritingRun::errorIn(lines), "");
  }

  std::string _line;
  uint64_t _bufferBlocks;
  RewritingRun _run;
  std::vector<std::byte> _image;
  std::shared_ptr<MemoryDevice> _memory;
  std::shared_ptr<RecordingDevice> _recording;
  Records _whole;
};

class Cancel : public testing::TestWithParam<const char*> {};

TEST_P(Cancel, EndsARunWithinOneBatch) {
  constexpr uint64_t kStride = 5;
  CancelledRun run(GetParam(), 16);
  const Work batch = run.largestBatch();
  ASSERT_LT(batch.calls * 10, run.whole().size());
  ASSERT_LT(batch.bytes * 10, workOf(run.whole()).bytes);
  for (uint64_t call = 0; call < run.whole().size() && !HasFailure(); call += kStride) {
    SCOPED_TRACE("cancelled at call " + std::to_string(call));
    const Work work = run.workAfter(call);
    EXPECT_LE(work.calls, batch.calls + kCallsAroundABatch);
    EXPECT_LE(work.bytes, batch.bytes + kBytesOfEnding);
  }
}

// All of the volume is one batch or two then, which takes long where a device is slow.
TEST_P(Cancel, EndsABatchWithinOneTransferOfFileData) {
  CancelledRun run(GetParam(), 100'000);
  const auto& calls = run.whole();
  uint64_t cancels = 0;
  for (uint64_t call = 0; call + 1 < calls.size() && !HasFailure(); ++call) {
    if (!calls[call].isOnce || !calls[call + 1].isOnce) {
      continue;
    }
    SCOPED_TRACE("cancelled at call " + std::to_string(call));
    const Work work = run.workAfter(call);
    EXPECT_LE(work.calls, 1 + kCallsOfEnding);
    EXPECT_LE(work.bytes, calls[call].size + kBytesOfEnding);
    ++cancels;
  }
  EXPECT_GT(cancels, 30U);
}

TEST_P(Cancel, EndsTheCheckingOfAVolumeWithinFewReads) {
  CancelledRun run(GetParam(), 16);
  const auto copying = std::ranges::find_if(run.whole(), &RecordingDevice::Record::isOnce);
  const auto checking = static_cast<uint64_t>(copying - run.whole().begin());
  ASSERT_GT(checking, 5U);
  for (uint64_t call = 0; call < checking && !HasFailure(); ++call) {
    SCOPED_TRACE("cancelled at call " + std::to_string(call));
    EXPECT_LE(run.workAfter(call).calls, kCallsOfEnding);
  }
}

INSTANTIATE_TEST_SUITE_P(Lines, Cancel, testing::Values("DEFRAG", "COMPACT"));

}  // namespace
