#include "Tasks/HFSPlusRewritingTurn.hpp"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>

namespace {

/// Everybody who has or wants a turn, by volume; the first in each line has it.
struct Lines {
  std::mutex lock;
  std::condition_variable changed;
  std::map<const XRDefragVolume*, std::deque<uint64_t>> tickets;
  uint64_t nextTicket = 0;
};

Lines& lines() {
  static Lines theLines;
  return theLines;
}

}  // namespace

std::optional<HFSPlusRewritingTurn> HFSPlusRewritingTurn::wait(
    const XRDefragVolume& volume, const std::function<bool()>& cancelled) {
  Lines& all = lines();
  std::unique_lock lock(all.lock);
  std::deque<uint64_t>& line = all.tickets[&volume];
  const uint64_t ticket = all.nextTicket++;
  line.push_back(ticket);
  all.changed.wait(lock, [&] { return line.front() == ticket || cancelled(); });
  if (line.front() == ticket && !cancelled()) {
    return HFSPlusRewritingTurn(volume);
  }
  std::erase(line, ticket);
  if (line.empty()) {
    all.tickets.erase(&volume);
  }
  all.changed.notify_all();
  return std::nullopt;
}

void HFSPlusRewritingTurn::wakeWaiters() {
  Lines& all = lines();
  // Under the lock, so that nobody is between asking and going to sleep.
  const std::lock_guard lock(all.lock);
  all.changed.notify_all();
}

HFSPlusRewritingTurn::~HFSPlusRewritingTurn() {
  if (_volume == nullptr) {
    return;
  }
  Lines& all = lines();
  const std::lock_guard lock(all.lock);
  const auto line = all.tickets.find(_volume);
  line->second.pop_front();
  if (line->second.empty()) {
    all.tickets.erase(line);
  }
  all.changed.notify_all();
}
