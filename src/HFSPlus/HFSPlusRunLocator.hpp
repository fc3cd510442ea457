#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

/// Where a rewriting run keeps its flush record, written into the volume's reserved bytes for the
/// time of the run, so that the volume alone tells how to finish an interrupted flush.
///
/// On disk, 64 bytes, big-endian:
///    0  magic u64          8  run ID u64        16  sequence u32     20  record block u32
///   24  blocks u32        28  record bytes u32  32  header before u64  40  header after u64
///   48  attributes u32    52  write count u32    56  CRC-64 of the 56 bytes before it
struct HFSPlusRunLocator {
  static constexpr size_t kBytes = 64;
  static constexpr uint64_t kMagic = 0x58526465664C6F63;  // "XRdefLoc"

  uint64_t runID = 0;        // a random number of this run
  uint32_t sequence = 0;     // number of the run's last flush record; 0 before the first
  uint32_t recordBlock = 0;  // first allocation block of the record's first run
  uint32_t runBlocks = 0;    // blocks of that run, which links to the next
  uint32_t recordBytes = 0;  // 0 when there is no record or it is no longer needed
  // CRC-64 of the volume header on disk before the record is applied, and after: any other header
  // says that somebody else has written to the volume since.
  uint64_t headerBefore = 0;
  uint64_t headerAfter = 0;
  // The header's before the run.
  uint32_t attributes = 0;
  uint32_t writeCount = 0;

  friend bool operator==(const HFSPlusRunLocator&, const HFSPlusRunLocator&) = default;

  [[nodiscard]] std::array<std::byte, kBytes> toDisk() const;

  /// Nothing when the bytes are not a whole locator.
  [[nodiscard]] static std::optional<HFSPlusRunLocator> fromDisk(
      std::span<const std::byte, kBytes> bytes);
};
