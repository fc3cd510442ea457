#include "LWKit/LWSideBySide.hpp"

#include <algorithm>
#include <atomic>
#include <system_error>
#include <thread>
#include <vector>

namespace {

/// Threads that work beside the calling one until this is destroyed.
class Helpers {
 public:
  Helpers(size_t count, const std::function<void()>& work) {
    _threads.reserve(count);
    // When there are no more to be had, those that there are and the calling thread do it all.
    while (_threads.size() < count && _start(work)) {
    }
  }

 private:
  bool _start(const std::function<void()>& work) {
    try {
      _threads.emplace_back(work);
      return true;
    } catch (const std::system_error&) {
      return false;
    }
  }

  std::vector<std::jthread> _threads;
};

}  // namespace

void LWRunSideBySide(size_t count, unsigned threads, const std::function<bool(size_t index)>& job,
                     const std::function<bool()>& goOn) {
  std::atomic<size_t> next = 0;
  std::atomic<bool> stopped = false;
  const auto runOne = [&] {
    const size_t index = next++;
    if (index >= count || stopped) {
      return false;
    }
    if (!job(index)) {
      stopped = true;
    }
    return true;
  };

  const Helpers helpers(std::min<size_t>(threads, count) - std::min<size_t>(count, 1), [&] {
    while (runOne()) {
    }
  });
  while (runOne()) {
    if (next < count && !stopped && !goOn()) {
      stopped = true;
    }
  }
}
