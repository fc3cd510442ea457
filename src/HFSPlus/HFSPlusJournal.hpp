#pragma once

#include <cstdint>
#include <optional>

#include "XRDefragError.hpp"

class HFSPlusVolume;

/// The journal of a volume, in bytes from the volume's start.
struct HFSPlusJournal {
  uint64_t offset;
  uint64_t size;
  /// Whether it holds transactions, which the volume's own system will write into the metadata.
  bool hasTransactions;
};

/// The journal of a journaled volume; none when it is on another device. Fails with "Allocation
/// block %1$lu is out of range." when it would not lie in the volume's blocks.
[[nodiscard]] Result<std::optional<HFSPlusJournal>> HFSPlusFindJournal(HFSPlusVolume& volume);
