#include <algorithm>
#include <array>
#include <tuple>

#include "support/VolumeCheckerState.hpp"

namespace volumecheck {

namespace {

auto placeOf(const OverflowRecord& record) {
  return std::tuple(record.fileID, static_cast<std::uint8_t>(record.type), record.startBlock);
}

std::span<OverflowRecord> overflowOf(VolumeCheckerState& state, std::uint32_t cnid, ForkType type) {
  const auto first = std::lower_bound(
      state.overflow.begin(), state.overflow.end(),
      std::tuple(cnid, static_cast<std::uint8_t>(type), 0U),
      [](const OverflowRecord& record, const auto& place) { return placeOf(record) < place; });
  auto last = first;
  while (last != state.overflow.end() && last->fileID == cnid && last->type == type) {
    ++last;
  }
  return {first, last};
}

std::uint64_t blocksIn(const Fork& fork) {
  std::uint64_t blocks = 0;
  for (const Extent& extent : fork.extents) {
    blocks += extent.blockCount;
  }
  return blocks;
}

// Adds the overflow records to the fork; `full` says whether the eight extents before were in use.
void appendOverflow(VolumeCheckerState& state, Fork& fork, bool full, const std::string& owner) {
  std::uint64_t blocks = blocksIn(fork);
  std::uint32_t lastNode = 0;
  for (OverflowRecord& record : overflowOf(state, fork.cnid, fork.type)) {
    record.used = true;
    if (blocks >= fork.totalBlocks) {
      fork.strayRecords += 1;
      state.log.add(FindingKind::OverflowBeyondTotal,
                    "The %s has %u blocks, but an overflow record for block %u on.", owner.c_str(),
                    fork.totalBlocks, record.startBlock);
      continue;
    }
    if (!full) {
      state.log.add(FindingKind::OverflowUnneeded,
                    "The %s has an overflow record for block %u on, though the record before it "
                    "has room.",
                    owner.c_str(), record.startBlock);
    }
    if (record.startBlock != blocks) {
      state.log.add(FindingKind::OverflowStart,
                    "The %s has an overflow record for block %u on instead of block %llu.",
                    owner.c_str(), record.startBlock, static_cast<unsigned long long>(blocks));
      fork.sound = false;
    }
    full = appendExtents(state, fork, record.extents, owner);
    blocks = blocksIn(fork);
    fork.overflowRecords += 1;
    fork.overflowLeafNodes += record.node != lastNode ? 1 : 0;
    lastNode = record.node;
  }
  if (blocks < fork.totalBlocks && full) {
    state.log.add(FindingKind::OverflowMissing,
                  "The %s has %u blocks, its extents end after %llu without an overflow record.",
                  owner.c_str(), fork.totalBlocks, static_cast<unsigned long long>(blocks));
    fork.sound = false;
  }
}

}  // namespace

std::string describeFork(std::uint32_t cnid, ForkType type) {
  const std::string number = std::to_string(cnid);
  switch (cnid) {
    case 0:
      return "reserved area";
    case kExtentsFileID:
      return "extents file";
    case kCatalogFileID:
      return "catalog file";
    case kBadBlockFileID:
      return "bad block file";
    case kAllocationFileID:
      return "allocation file";
    case kStartupFileID:
      return "startup file";
    case kAttributesFileID:
      return "attributes file";
    default:
      break;
  }
  return (type == ForkType::Data       ? "data fork of file "
          : type == ForkType::Resource ? "resource fork of file "
                                       : "attribute fork of file ") +
         number;
}

bool appendExtents(VolumeCheckerState& state, Fork& fork, const Extent (&extents)[8],
                   const std::string& owner) {
  bool ended = false;
  for (std::uint32_t i = 0; i < 8; ++i) {
    const Extent& extent = extents[i];
    if (extent.blockCount == 0 || ended) {
      if (extent != Extent{}) {
        state.log.add(FindingKind::ForkEmptyDescriptor,
                      "The %s has descriptor %u (%u, %u) where an empty one belongs.",
                      owner.c_str(), i, extent.startBlock, extent.blockCount);
      }
      ended = true;
      continue;
    }
    if (std::uint64_t{extent.startBlock} + extent.blockCount > state.totalBlocks()) {
      state.log.add(FindingKind::ExtentOutOfRange,
                    "The %s has %u blocks from block %u on, the volume has %u.", owner.c_str(),
                    extent.blockCount, extent.startBlock, state.totalBlocks());
      fork.sound = false;
    }
    fork.extents.push_back(extent);
  }
  return !ended;
}

void settleFork(VolumeCheckerState& state, Fork& fork, const std::string& owner) {
  const std::uint64_t blocks = blocksIn(fork);
  if (blocks != fork.totalBlocks) {
    state.log.add(FindingKind::ForkBlockCount, "The %s counts %u blocks, its extents hold %llu.",
                  owner.c_str(), fork.totalBlocks, static_cast<unsigned long long>(blocks));
    fork.sound = false;
  }
  // More than the volume has means that it owns blocks twice; nobody needs to read that.
  if (blocks > state.totalBlocks()) {
    fork.sound = false;
  }
  const std::uint64_t room = std::uint64_t{fork.totalBlocks} * state.blockSize();
  if (fork.logicalSize > room) {
    state.log.add(FindingKind::ForkSize, "The %s has %llu bytes in %u blocks of %u bytes.",
                  owner.c_str(), static_cast<unsigned long long>(fork.logicalSize),
                  fork.totalBlocks, state.blockSize());
    fork.sound = false;
  }
  for (const Extent& extent : fork.extents) {
    if (std::uint64_t{extent.startBlock} + extent.blockCount <= state.totalBlocks()) {
      state.owned.push_back({extent.startBlock, extent.blockCount, fork.cnid, fork.type});
    }
  }
}

Fork resolveFork(VolumeCheckerState& state, std::uint32_t cnid, ForkType type,
                 const ForkData& data) {
  Fork fork;
  fork.cnid = cnid;
  fork.type = type;
  fork.logicalSize = data.logicalSize;
  fork.totalBlocks = data.totalBlocks;
  const std::string owner = describeFork(cnid, type);
  const bool full = appendExtents(state, fork, data.extents, owner);
  appendOverflow(state, fork, full, owner);
  settleFork(state, fork, owner);
  return fork;
}

void checkSpecialForks(VolumeCheckerState& state) {
  const HeaderTruth& header = state.truth.header;
  const std::tuple<std::uint32_t, const ForkData*, const char*> specials[] = {
      {kCatalogFileID, &header.catalogFile, "(HFS+ Catalog File)"},
      {kAllocationFileID, &header.allocationFile, "(HFS+ Allocation File)"},
      {kStartupFileID, &header.startupFile, "(HFS+ Startup File)"},
      {kAttributesFileID, &header.attributesFile, "(HFS+ Attributes File)"}};
  for (const auto& [cnid, data, path] : specials) {
    Fork fork = resolveFork(state, cnid, ForkType::Data, *data);
    fork.path = path;
    state.truth.forks.push_back(std::move(fork));
  }
}

void checkBadBlocks(VolumeCheckerState& state) {
  const Fork* known = state.truth.findFork(kBadBlockFileID, ForkType::Data);
  if (known != nullptr) {
    state.truth.badBlocks = known->extents;
    return;
  }
  // As a rule bad blocks have no file record: all their extents are in the overflow file then, and
  // their number follows from them.
  std::uint64_t badBlocks = 0;
  for (const OverflowRecord& record : overflowOf(state, kBadBlockFileID, ForkType::Data)) {
    for (const Extent& extent : record.extents) {
      badBlocks += extent.blockCount;
    }
  }
  if (badBlocks == 0) {
    return;
  }
  Fork fork;
  fork.cnid = kBadBlockFileID;
  fork.path = "(HFS+ Bad Block File)";
  fork.totalBlocks =
      static_cast<std::uint32_t>(std::min<std::uint64_t>(badBlocks, std::uint64_t{0xFFFFFFFF}));
  fork.logicalSize = std::uint64_t{fork.totalBlocks} * state.blockSize();
  const std::string owner = describeFork(fork.cnid, fork.type);
  appendOverflow(state, fork, true, owner);
  settleFork(state, fork, owner);
  state.truth.badBlocks = fork.extents;
  state.truth.forks.push_back(std::move(fork));
}

void checkUnclaimedOverflow(VolumeCheckerState& state) {
  for (const OverflowRecord& record : state.overflow) {
    if (!record.used) {
      state.log.add(FindingKind::OverflowOrphan,
                    "There is an overflow record for block %u of the %s, which does not exist.",
                    record.startBlock, describeFork(record.fileID, record.type).c_str());
    }
  }
}

void hashForks(VolumeCheckerState& state) {
  static constexpr std::size_t kBufferSize = 1 << 20;
  // Sound forks of an undamaged volume hold less than the volume does. More means that they
  // overlap, and then nobody is helped by reading the same blocks over and over.
  std::uint64_t budget = 2 * state.truth.volumeSize;
  std::vector<std::uint8_t> buffer;
  for (Fork& fork : state.truth.forks) {
    if (!fork.sound || fork.logicalSize > budget) {
      continue;
    }
    budget -= fork.logicalSize;
    StreamHasher hasher;
    std::uint64_t left = fork.logicalSize;
    bool readable = true;
    for (const Extent& extent : fork.extents) {
      std::uint64_t at = std::uint64_t{extent.startBlock} * state.blockSize();
      std::uint64_t size = std::min(left, std::uint64_t{extent.blockCount} * state.blockSize());
      left -= size;
      while (size > 0 && readable) {
        const std::uint64_t hole = std::min(state.source.holeEnd(at) - at, size);
        hasher.skipZeros(hole);
        const std::uint64_t part = std::min<std::uint64_t>(size - hole, kBufferSize);
        buffer.resize(std::max<std::size_t>(buffer.size(), part));
        readable = state.source.read(at + hole, std::span(buffer).first(part));
        hasher.update(Bytes(buffer).first(part));
        at += hole + part;
        size -= hole + part;
      }
    }
    if (!readable) {
      state.log.add(FindingKind::ReadFailed, "The %s cannot be read.",
                    describeFork(fork.cnid, fork.type).c_str());
      continue;
    }
    fork.hash = hasher.finish();
    fork.hashed = true;
  }
}

}  // namespace volumecheck
