// A whole DEFRAG that lays down the forks of a profile, on a volume in memory. The time per fork
// must not grow with their number.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include "HFSPlus/HFSPlusVolume.hpp"
#include "Tasks/HFSPlusDefragTask.hpp"
#include "support/VolumeBuilder.hpp"
#include "support/doubles/MemoryDevice.hpp"

namespace {

/// Sends standard output nowhere for as long as it lives: the tasks report there.
class Silence {
 public:
  Silence() : _output(::dup(STDOUT_FILENO)) {
    std::fflush(stdout);
    const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    ::dup2(nowhere, STDOUT_FILENO);
    ::close(nowhere);
  }
  ~Silence() {
    std::fflush(stdout);
    ::dup2(_output, STDOUT_FILENO);
    ::close(_output);
  }
  Silence(const Silence&) = delete;
  Silence& operator=(const Silence&) = delete;

 private:
  int _output;
};

/// Applications of one block each in nested folders, anywhere on the volume.
support::Bytes applicationsImage(int64_t files) {
  support::VolumeDescription volume;
  volume.blockSize = 512;
  volume.fillPercent = 60;
  support::FolderDescription* folder = nullptr;
  for (int64_t i = 0; i < files; ++i) {
    if (i % 2000 == 0) {
      folder = &volume.root().folderAt("Applications");
    }
    if (i % 100 == 0) {
      folder = &folder->addFolder("folder " + std::to_string(i));
    }
    folder->addFile("file " + std::to_string(i), support::fork(400));
  }
  return support::buildVolume(volume).image;
}

void layDownProfile(benchmark::State& state, const char* profile) {
  const support::Bytes image = applicationsImage(state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    const auto device = std::make_shared<doubles::MemoryDevice>(image);
    const auto volume = HFSPlusVolume::open(XRDefragVolume("/nowhere", device, false, true));
    const auto task = std::make_shared<HFSPlusDefragTask>(**volume, false);
    task->setArguments(profile ? std::vector<std::string>{"DEFRAG", "-q", "--profile", profile}
                               : std::vector<std::string>{"DEFRAG", "-q"});
    const Silence silence;
    state.ResumeTiming();
    if (!task->start()) {
      state.SkipWithError("The task could not be started.");
      return;
    }
    task->join();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK_CAPTURE(layDownProfile, app, "app")
    ->Name("DefragRun/profile")
    ->Arg(10'000)
    ->Arg(100'000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(layDownProfile, none, nullptr)
    ->Name("DefragRun/plain")
    ->Arg(10'000)
    ->Arg(100'000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
