#pragma once

#include <cstdint>
#include <optional>
#include <string>

/// What the kernel knows about this process and machine.
namespace PlatformProcess {

/// Whether the effective user is root.
bool isRoot();

/// Whether a debugger traces the process.
bool isTraced();

/// Whether the calling thread is the process's first one.
bool isMainThread();

/// The process ID.
uint32_t processID();

/// Base name of the running program, as its first argument gives it.
std::string programName();

/// Bytes of physical memory, or nothing when the system does not tell.
std::optional<uint64_t> physicalMemoryBytes();

/// Moves the whole process's disk transfers to the idle class, so that they yield to everybody
/// else's. Threads inherit it: call it before any thread exists.
void lowerIOPriority();

/// Puts /dev/null where standard input, output or error is closed, so that no file opened later can
/// be taken for one of them. Call it before anything is opened. False when that is impossible.
[[nodiscard]] bool openStandardDescriptors();

/// Has a write to a reader that is gone, or beyond the file size limit, fail instead of killing
/// the process.
void ignoreWriteSignals();

}  // namespace PlatformProcess
