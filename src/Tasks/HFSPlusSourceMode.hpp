#pragma once

#include <cstdint>
#include <optional>

#include "HFSPlus/HFSPlusFileForkSet.hpp"
#include "XRDefragError.hpp"

/// A piece of a fork that is to be moved to the front of the extent map.
struct HFSPlusSourceEntry {
  uint32_t start;   // first block of the fork's extent that holds the piece
  uint32_t offset;  // blocks from there to the piece
  uint32_t count;   // blocks of the piece
  uint32_t cnid;
  uint8_t fork;  // kHFSDataForkType or kHFSResourceForkType
};

/// What a run moves next: the one thing in which defragmenting and compacting differ.
///
/// In each batch the copy engine gets a source, places as much of it as fits, and puts back how
/// much that was, until the batch is full; after the batch has been carried out the mode looks at
/// the volume anew. A source stays pending until all of it has been put back.
class HFSPlusSourceMode {
 public:
  virtual ~HFSPlusSourceMode() = default;

  /// The pending source or the next one; none when the map at hand has nothing to move.
  [[nodiscard]] virtual Result<std::optional<HFSPlusSourceEntry>> getSourceEntry() = 0;

  /// The source as it was taken: `count` is what was placed of it, from its beginning.
  [[nodiscard]] virtual Result<> putSourceEntry(const HFSPlusSourceEntry& taken) = 0;

  /// A batch has been carried out.
  virtual void updateSource() = 0;

  /// What has been got and put since the last updateSource() is not going to happen after all; the
  /// batch is planned anew, and begins with this fork as it did before.
  virtual void startOver(const HFSPlusFileFork& fork) = 0;

  /// A file that was movable is not any more.
  virtual void forgetFile(uint32_t fileID) = 0;
};
