#pragma once

#include <cstdint>
#include <optional>

#include "Tasks/HFSPlusSourceMode.hpp"

class HFSPlusDefragStretch;
struct HFSPlusExtentRun;

/// Packs data towards the start of the volume: hands out every allocated run in volume order,
/// whosever it is, so that each slides down into the lowest free space.
class HFSPlusCompactMode final : public HFSPlusSourceMode {
 public:
  /// The stretch must outlive the mode.
  explicit HFSPlusCompactMode(HFSPlusDefragStretch& stretch) : _stretch(stretch) {}

  /// Fails with "Volume is too congested, unable to continue." when the map has been rebuilt twice
  /// and still ends below the cursor, and with internal errors.
  [[nodiscard]] Result<std::optional<HFSPlusSourceEntry>> getSourceEntry() override;
  [[nodiscard]] Result<> putSourceEntry(const HFSPlusSourceEntry& taken) override;
  void updateSource() override;
  void startOver(const HFSPlusFileFork& fork) override;
  void forgetFile(uint32_t fileID) override;

 private:
  struct State {
    uint32_t startBlock = 0;     // cursor: the next source is sought from here; 0: not placed yet
    uint32_t blockCount = 0;     // of the run now being moved
    uint32_t retries = 0;        // maps in a row that end below the cursor
    HFSPlusSourceEntry entry{};  // pending source; start 0: none
  };

  Result<std::optional<HFSPlusExtentRun>> _runAtCursor();

  HFSPlusDefragStretch& _stretch;
  State _state;
};
