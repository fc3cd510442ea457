#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <vector>

#include "Tasks/HFSPlusDefragPreparation.hpp"
#include "Tasks/HFSPlusDefragStretch.hpp"
#include "support/VolumeBuilder.hpp"
#include "support/doubles/TestVolume.hpp"

/// A volume of 2000 blocks, described by the test, and the stretch of a run on it.
struct StretchSetting {
  explicit StretchSetting(const support::VolumeDescription& description)
      : StretchSetting(support::buildVolume(description)) {}
  explicit StretchSetting(support::BuiltVolume builtVolume)
      : built(std::move(builtVolume)), volume(built.image), opened(volume.open()) {
    EXPECT_EQ(doubles::messageOf(opened), "");
    stretch = std::make_unique<HFSPlusDefragStretch>(*volume, [] { return false; });
  }

  Result<std::optional<uint32_t>> prepare(bool compact = false) {
    return HFSPlusDefragPreparation(*volume, *stretch, profile, "DEFRAG").prepareForRun(compact);
  }
  uint32_t firstBlock() { return stretch->map().firstEntry()->entry->start; }
  HFSPlusExtentRun runAt(uint32_t block) {
    const auto run = stretch->map().findEntry(block);
    EXPECT_TRUE(run);
    return *run;
  }

  support::BuiltVolume built;
  doubles::TestVolume volume;
  Result<> opened;
  std::unique_ptr<HFSPlusDefragStretch> stretch;
  std::optional<HFSPlusFileForkSet> profile;
};

inline support::VolumeDescription plainStretchVolume(uint32_t blockSize = 4096) {
  support::VolumeDescription description;
  description.blockSize = blockSize;
  description.size = uint64_t{2000} * blockSize;
  return description;
}

/// Adds a file that lies exactly there and fills it; its ID.
inline uint32_t addFileAt(support::VolumeDescription& description, const char* name,
                          std::vector<support::BlockExtent> extents) {
  uint64_t blocks = 0;
  for (const support::BlockExtent& extent : extents) {
    blocks += extent.count;
  }
  const uint64_t bytes = blocks * description.blockSize;
  return description.root().addFile(name, support::forkAt(std::move(extents), bytes)).id;
}
