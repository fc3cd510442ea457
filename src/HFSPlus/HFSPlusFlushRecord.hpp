#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "HFSPlus/HFSPlusFlushPlan.hpp"
#include "HFSPlus/HFSPlusFormat.hpp"

/// What tells a volume from every other one, and a rewriting run from every other one.
struct HFSPlusRunIdentity {
  uint64_t runID = 0;
  uint16_t signature = 0;
  uint16_t version = 0;
  uint32_t createDate = 0;
  uint32_t blockSize = 0;
  uint32_t totalBlocks = 0;
  uint32_t writeCount = 0;  // the header's before the run

  friend bool operator==(const HFSPlusRunIdentity&, const HFSPlusRunIdentity&) = default;
};

/// A flush written down before it is carried out: every range of the volume that it writes, with
/// its new bytes. Once the record is on stable storage the flush happens, crash or no crash;
/// before, it never happened.
///
/// On disk, big-endian, in the runs of an HFSPlusRecordPlace:
///    0  magic u64           8  format version u32   12  sequence u32    16  run ID u64
///   24  signature u16      26  version u16          28  creation date u32
///   32  block size u32     36  total blocks u32     40  write count u32  44  range count u32
///   48  record bytes u64   56  CRC-64 of the whole record, with this field zero
///   64  the ranges, 16 bytes each: volume byte offset u64, length u64; then the bytes of each in
///       order, their zeros left out as LWPackZeros() does it
class HFSPlusFlushRecord {
 public:
  static constexpr uint64_t kMagic = 0x58526465664C6F67;  // "XRdefLog"
  static constexpr uint32_t kFormatVersion = 2;
  static constexpr size_t kHeaderBytes = 64;
  static constexpr size_t kRangeBytes = 16;
  /// The most that a record may take on disk, and the most that its ranges may have. Bytes.
  static constexpr uint64_t kBytesMax = 256ULL << 20;

  struct Range {
    uint64_t offset;  // bytes from the volume's start
    std::span<const std::byte> bytes;
  };

  // The ranges refer to the record's own bytes, which stay where they are when it is moved.
  HFSPlusFlushRecord(HFSPlusFlushRecord&&) = default;
  HFSPlusFlushRecord& operator=(HFSPlusFlushRecord&&) = default;
  HFSPlusFlushRecord(const HFSPlusFlushRecord&) = delete;
  HFSPlusFlushRecord& operator=(const HFSPlusFlushRecord&) = delete;

  /// The record of a plan as it is written to disk.
  [[nodiscard]] static std::vector<std::byte> toDisk(const HFSPlusFlushPlan& plan,
                                                     const HFSPlusRunIdentity& identity,
                                                     uint32_t sequence);

  /// Reads a record back; nothing unless it is whole, of this volume, run and sequence, and its
  /// ranges rise without overlap inside the volume's `volumeBytes`.
  [[nodiscard]] static std::optional<HFSPlusFlushRecord> fromDisk(
      std::span<const std::byte> bytes, const HFSPlusRunIdentity& identity, uint32_t sequence,
      uint64_t volumeBytes);

  /// The ranges by offset; their bytes belong to the record.
  const std::vector<Range>& ranges() const { return _ranges; }

  /// Lays every recorded byte of the range over `bytes`, read at an offset of the volume.
  void overlay(std::span<std::byte> bytes, uint64_t offset) const;

 private:
  HFSPlusFlushRecord() = default;

  std::vector<std::byte> _bytes;  // of all ranges
  std::vector<Range> _ranges;
};
