#pragma once

#include <cstddef>
#include <functional>

/// Calls `job(index)` for every index below `count`. Up to `threads` jobs run at once and begin in
/// ascending order; the calling thread does its share, and asks `goOn` between two of its jobs.
/// Once a job or goOn() answers false, no further job begins. Returns when all that have begun have
/// ended. With one thread, and when the system has no more to give, the jobs follow each other.
void LWRunSideBySide(size_t count, unsigned threads, const std::function<bool(size_t index)>& job,
                     const std::function<bool()>& goOn);
