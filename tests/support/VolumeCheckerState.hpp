#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/VolumeChecker.hpp"

namespace volumecheck {

// A record of the extents overflow file.
struct OverflowRecord {
  std::uint32_t fileID = 0;
  ForkType type = ForkType::Data;
  std::uint32_t startBlock = 0;
  Extent extents[8];
  std::uint32_t node = 0;  // the leaf node it lies in
  bool used = false;       // a fork has claimed it
};

// Blocks that somebody owns. CNID 0: the reserved areas at both ends of the volume.
struct OwnedRun {
  std::uint32_t startBlock = 0;
  std::uint32_t blockCount = 0;
  std::uint32_t cnid = 0;
  ForkType type = ForkType::Data;
};

// What the phases of a check hand on to each other.
struct VolumeCheckerState {
  const VolumeCheckerSource& source;
  const CheckOptions& options;
  FindingLog log;
  VolumeTruth truth;
  std::vector<OverflowRecord> overflow;  // by file, fork type, start block
  std::vector<OwnedRun> owned;

  std::uint32_t blockSize() const { return truth.header.blockSize; }
  std::uint32_t totalBlocks() const { return truth.header.totalBlocks; }
  VolumeCheckerForkReader readerOf(const Fork& fork) const {
    return {source, blockSize(), fork.extents};
  }
};

// "data fork of file 23"
std::string describeFork(std::uint32_t cnid, ForkType type);

// The phases, in the order in which they run. Without headers nothing after them makes sense: the
// first one then returns false. It narrows the source to a volume embedded in a wrapper.
bool checkHeaders(VolumeCheckerState& state, VolumeCheckerSource& source);
void checkExtentsTree(VolumeCheckerState& state);
void checkSpecialForks(VolumeCheckerState& state);
void checkCatalog(VolumeCheckerState& state);
void checkBadBlocks(VolumeCheckerState& state);
void checkHardLinks(VolumeCheckerState& state);
void checkAttributes(VolumeCheckerState& state);
void checkUnclaimedOverflow(VolumeCheckerState& state);
void checkJournal(VolumeCheckerState& state);
void checkHotFiles(VolumeCheckerState& state);
void checkSpace(VolumeCheckerState& state);
void hashForks(VolumeCheckerState& state);

// Puts a fork together from its first eight extents and its overflow records, checks them, and
// enters its blocks as owned.
Fork resolveFork(VolumeCheckerState& state, std::uint32_t cnid, ForkType type,
                 const ForkData& data);

// Appends eight descriptors to `fork`, checking that empty ones stand at the end only and that the
// rest lies in the volume. True when all eight were in use.
bool appendExtents(VolumeCheckerState& state, Fork& fork, const Extent (&extents)[8],
                   const std::string& owner);
// Checks the fork's sums and enters its blocks as owned.
void settleFork(VolumeCheckerState& state, Fork& fork, const std::string& owner);

}  // namespace volumecheck
