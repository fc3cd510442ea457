#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "FuzzDevice.hpp"
#include "FuzzTargets.hpp"
#include "VolumeBases.hpp"

namespace fuzz {

/// How to make a damaged volume, and what to do with it: a sound volume's number, what to run, and
/// a list of edits. A few bytes stand for a whole volume, so that the fuzzer's steps are changes of
/// structures, and a crash is a file to read.
///
/// 4 bytes: base, scenario bits, copy buffer in blocks (0: plenty), entries of the extent map in
/// units of 16 (0: plenty). Then edits of 8 bytes, big-endian:
/// kind of place u8, operation u8, place u16, value u32.
struct VolumeRecipe {
  static constexpr size_t kHeaderBytes = 4;
  static constexpr size_t kEditBytes = 8;
  static constexpr size_t kMostEdits = 40;
  static constexpr size_t kMostBytes = kHeaderBytes + kMostEdits * kEditBytes;

  enum class Rewriting : uint8_t { None, Defrag, DefragWithProfiles, Compact };

  explicit VolumeRecipe(Input input);

  /// The device with all edits on it.
  std::shared_ptr<FuzzDevice> makeDevice() const;

  const VolumeBase& base;
  Rewriting rewriting = Rewriting::None;
  bool mounted = false;
  bool readOnly = false;
  bool reportsFirst = true;  // so that the run begins with filled caches
  /// Makes the checksums of what an interrupted run left fit again after the edits.
  bool mendsChecksums = true;
  uint32_t copyBufferBlocks = 0;
  uint64_t mapCapacity = 0;

 private:
  Input _edits;
};

/// The target's mutation: adds, drops, changes or repeats edits, or changes what is run.
size_t mutateRecipe(std::span<uint8_t> buffer, size_t size, uint32_t seed);

}  // namespace fuzz
