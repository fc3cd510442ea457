#pragma once

#include <cstdint>
#include <functional>

#include "Tasks/HFSPlusCopyList.hpp"
#include "Tasks/HFSPlusCopyZone.hpp"
#include "Tasks/HFSPlusSourceMode.hpp"
#include "XRDefragError.hpp"

class HFSPlusCopyBuffer;
class HFSPlusDefragProgress;
class HFSPlusDefragStretch;
class HFSPlusVolume;

/// The run loop: fills the lowest free space of the volume with what the mode picks, batch by
/// batch, until the mode has nothing more.
///
///     stretch ──► zone ──► fill ──► carry out ──► update source ─┐
///       ▲  built    free or   planned   (HFSPlusCopyList)         │
///       │  anew     evicted   only                                │
///       └─────────────────────────────────────────────────────────┘
///
/// Everything below the map's front has its place; each batch takes the copy zone, at most a copy
/// buffer of blocks, off the front. The zone is free before anything is planned into it, so that
/// a destination never is a source of the same batch, and a batch never writes on blocks that the
/// last flush still refers to. Each batch that follows on an eviction settles as many blocks as the
/// eviction moved, so that a run moves its blocks about twice at most.
class HFSPlusCopyEngine {
 public:
  /// Everything handed over must outlive the engine, and the stretch be built. `cancelled` is asked
  /// between batches and transfers.
  HFSPlusCopyEngine(HFSPlusVolume& volume, HFSPlusDefragStretch& stretch, HFSPlusSourceMode& mode,
                    const HFSPlusCopyBuffer& buffer, HFSPlusDefragProgress& progress,
                    std::function<bool()> cancelled);

  /// Runs to the end. Fails with "The amount of free space is insufficient.", "Volume is too
  /// congested, unable to continue.", internal errors, when cancelled, and with the errors of
  /// everything that it uses.
  [[nodiscard]] Result<> run();

 private:
  enum class Outcome { GoOn, MapRebuilt, RunComplete };
  struct Zone {
    Outcome outcome;
    uint32_t blocks;
  };

  Result<> _run();
  Result<bool> _prepareStretch();
  Result<> _rebuildMap(uint32_t startBlock);
  Result<Zone> _prepareZone();
  Result<Outcome> _fillZone(uint32_t zoneBlocks);
  uint32_t _roomInZone(uint32_t zoneBlocks) const;
  Result<uint32_t> _placeSource(HFSPlusSourceEntry source, uint32_t room);
  Result<> _carryOut();
  uint32_t _blocksFrom(uint32_t entry) const;
  Result<> _planHalf(uint32_t entry);
  Result<> _planUpTo(uint32_t soundBlocks, uint32_t front);
  Result<> _leaveExtentsFile(uint32_t front);

  HFSPlusVolume& _volume;
  HFSPlusDefragStretch& _stretch;
  HFSPlusSourceMode& _mode;
  const HFSPlusCopyBuffer& _buffer;
  std::function<bool()> _cancelled;
  HFSPlusCopyList _copyList;
  HFSPlusCopyZone _zone;
  // Limits of a batch, in blocks.
  uint32_t _zoneLimit = UINT32_MAX;   // what could be evicted last
  uint32_t _flushLimit = UINT32_MAX;  // what could be flushed last
  uint32_t _fillLimit = UINT32_MAX;   // where a plan made anew for the extents file has to end
  bool _mapIsUsedUp = false;          // the mode found nothing in the map
  uint32_t _fruitlessBuilds = 0;      // rebuilds in a row without a block placed between them
};
