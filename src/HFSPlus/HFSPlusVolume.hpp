#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "HFSPlus/HFSPlusBlockRanges.hpp"
#include "HFSPlus/HFSPlusByteOrder.hpp"
#include "HFSPlus/HFSPlusFlushPlan.hpp"
#include "HFSPlus/HFSPlusForkDataRegistry.hpp"
#include "HFSPlus/HFSPlusHeldWrites.hpp"
#include "HFSPlus/HFSPlusMetadataZone.hpp"
#include "HFSPlus/HFSPlusRunLog.hpp"
#include "HFSPlus/HFSPlusRunRecovery.hpp"
#include "HFSPlus/HFSPlusVolumeAccess.hpp"
#include "XRDefragVolume.hpp"

class HFSPlusAllocation;
class HFSPlusAttributes;
class HFSPlusCatalog;
class HFSPlusCatalogScanDelegate;
class HFSPlusExtents;
class HFSPlusFileForkSet;

/// Whether an HFSX volume of version 5 is worked on, or recognised and refused.
enum class HFSXVolumes { Refused, Accepted };

/// The HFS Plus file system on a device: its header, its special files, the way from a fork's bytes
/// to the device's, and the one place from which metadata reaches the device.
///
/// Invariants:
///   1. Between two flushes no metadata is written; the special files hand their changed bytes to
///      heldWrites(), and flush() writes all of them and the headers, or reports an error.
///   2. During a rewriting run nothing is written before the on-disk header says that the volume is
///      in flux, and every header on disk says so until endRewriting() has written everything else.
///   3. Data written since the last flush is on stable storage before the first metadata of the
///      next flush is, and that before flush() returns.
///
/// Used by one thread at a time, which holds the gate.
class HFSPlusVolume final : public XRDefragVolume,
                            public HFSPlusVolumeAccess,
                            public HFSPlusForkDataRegistry {
 public:
  /// Whether the device holds a volume of a known signature and version. Device errors.
  [[nodiscard]] static Result<bool> probe(XRDefragVolume& device);

  /// Opens the volume on a device, which it goes on sharing. Fails for an unsupported version, a
  /// volume that was not unmounted cleanly, and whatever its header or special files get wrong.
  [[nodiscard]] static Result<std::unique_ptr<HFSPlusVolume>> open(
      const XRDefragVolume& device, HFSXVolumes hfsxVolumes = HFSXVolumes::Refused);

  ~HFSPlusVolume() override;

  /// Transfers at a byte offset from the volume's start, which lies inside the device when an HFS
  /// wrapper surrounds it. Writing is for file data; metadata goes through the special files.
  [[nodiscard]] Result<> read(std::span<std::byte> bytes, uint64_t offset) override;
  [[nodiscard]] Result<> write(std::span<const std::byte> bytes, uint64_t offset) override;
  [[nodiscard]] Result<> readAll(std::span<const Transfer> transfers, const MayGoOn&) override;
  [[nodiscard]] Result<> writeAll(std::span<const Transfer> transfers, const MayGoOn&) override;

  // What the volume's files see of it.
  [[nodiscard]] Result<> readVolume(std::span<std::byte> bytes, uint64_t offset) override;
  const HFSPlusVolumeHeader& hostVolumeHeader() const override { return _hostVolumeHeader; }
  const HFSPlusForkData* hostForkData(uint32_t fileID) const override;
  [[nodiscard]] Result<HFSPlusTranslation> translateOffset(
      uint64_t offset, uint32_t fileID, uint8_t forkType, const HFSPlusForkData& forkData) override;
  HFSPlusHeldWrites& heldWrites() override { return _heldWrites; }
  uint32_t blockSizeOfDevice() const override { return deviceBlockSize(); }
  bool isHFSX() const override { return _HFSX; }
  void updateFreeBlocks(int64_t delta) override;

  HFSPlusExtents& extents() { return *_extents; }
  HFSPlusAllocation& allocation() { return *_allocation; }
  HFSPlusCatalog& catalog() { return *_catalog; }
  /// None when the volume has no attributes file.
  HFSPlusAttributes* attributes() { return _attributes.get(); }

  bool isJournaled() const;
  bool hasSparedBlocks() const;
  bool hasMetadataZone() const { return _metadata.startBlock != 0; }
  /// Whether the ID is one of the files that the header describes: 3, 4, 6, 7 or 8.
  bool isSpecialFile(uint32_t fileID) const;
  /// The first allocation block past the metadata zone or, without one, past the boot area.
  uint32_t firstDataBlock() const;
  /// Byte offset of the volume on the device.
  uint64_t volumeStartOffset() const { return _volumeStartOffset; }
  /// Bytes from the volume's start to the end of its alternate header's area.
  uint64_t volumeSizeBytes() const { return _volumeSizeBytes; }

  void cacheHostForkData(const HFSPlusForkData& forkData, uint32_t fileID) override;
  void uncacheHostForkData(uint32_t fileID) override;

  /// Points a special file of a writable volume at new extents, in host order; the header is
  /// written by the next flush. An internal error for any other file.
  [[nodiscard]] Result<> updateForkExtents(const HFSPlusExtentRecord& host, uint32_t fileID);

  /// The forks that must never be moved: the journal's and, if asked for, the hot files that lie
  /// below the first data block. Errors of the hot files tree.
  [[nodiscard]] Result<HFSPlusFileForkSet> immutableForkIDs(bool includeHotFiles);

  /// Hands every file record of the catalog to the delegate.
  [[nodiscard]] Result<> scanCatalogFiles(HFSPlusCatalogScanDelegate& delegate);

  /// Writes every metadata change since the last flush, and the header when it changed; the first
  /// flush after the first write of the process raises the header's write count. Writes nothing
  /// when there is nothing to write. In a rewriting run all of it happens or none: NoRoomForRecord,
  /// with nothing written, when no free blocks can hold the record that this takes. After an error
  /// in the midst of writing the flush stays unfinished: the next flush(), discardChanges() or
  /// endRewriting() completes it first.
  enum class FlushOutcome { Flushed, NoRoomForRecord };
  [[nodiscard]] Result<FlushOutcome> flush() { return flush({}); }
  /// A flush in the midst of a batch: its record keeps off free blocks that data has been written
  /// to whose forks are not pointed there yet.
  [[nodiscard]] Result<FlushOutcome> flush(const HFSPlusBlockRanges& pendingBlocks);

  /// From here the first write of anything marks the on-disk header as in flux first, and every
  /// flush makes the header's free-block count agree with the bitmap.
  void beginRewriting() { _rewriting = true; }

  /// Flushes and takes the mark off the headers on disk. To be called whatever ended the run; after
  /// an error the mark stays. Fails with "The amount of free space is insufficient." when there is
  /// no room for the record of that flush; what it would have written is forgotten.
  [[nodiscard]] Result<> endRewriting();

  /// Forgets every metadata change since the last flush: everything reads as it is on disk. After
  /// an error in reading it again, a special file cannot be used until reread() succeeds.
  [[nodiscard]] Result<> discardChanges();

  /// Reads again what discardChanges() could not, if there is any such thing. For the beginning of
  /// a run: what went wrong in the one before it may have passed.
  [[nodiscard]] Result<> reread() { return _mustReread ? discardChanges() : Result<>(); }

 private:
  /// Whether the header on disk says that the volume is in flux.
  enum class FluxMark { Absent, Uncertain, Present };

  explicit HFSPlusVolume(const XRDefragVolume& device);

  Result<> _open(HFSXVolumes hfsxVolumes);
  Result<> _prepareWrite(uint64_t size, uint64_t offset);
  Result<> _readHeader();
  Result<> _checkSignatureAndVersion(HFSXVolumes hfsxVolumes);
  Result<> _checkAttributes();
  Result<> _checkGeometry() const;
  Result<> _findInterruptedRun();
  Result<> _openSpecialFiles();
  Result<> _recoverInterruptedRun();
  Result<HFSPlusBlockRanges> _specialFileBlocks();
  void _logVolumeInfo() const;
  HFSPlusForkData* _specialForkData(uint32_t fileID);

  // Writing (HFSPlusVolumeFlush.cpp).
  Result<> _flushSpecialFiles();
  void _settleFreeBlocks();
  Result<HFSPlusFlushPlan> _planFlush();
  Result<> _planHeldWrites(HFSPlusFlushPlan& plan);
  void _planHeaders(HFSPlusFlushPlan& plan);
  Result<std::optional<HFSPlusRecordPlace>> _findRecordPlace(
      uint64_t bytes, const HFSPlusBlockRanges& pendingBlocks);
  Result<> _finishFlush();
  Result<> _writePlan(const HFSPlusFlushPlan& plan);
  Result<> _markInFlux();
  Result<> _unmark();
  HFSPlusVolumeHeader _onDiskHeader(const HFSPlusVolumeHeader& host) const;
  Result<> _writeHeader(const HFSPlusVolumeHeader& host, uint64_t offset);
  uint64_t _alternateOffset() const;

  // The format aligns the headers' fields naturally, as long as the headers are.
  alignas(8) HFSPlusVolumeHeader _hostVolumeHeader{};
  alignas(8) HFSPlusVolumeHeader _flushedHeader{};  // the host header as the last flush left it
  std::string _name;
  uint32_t _version = 0;
  bool _HFSPlus = false;
  bool _HFSX = false;
  bool _willBumpWriteCount = false;  // something was, or will be, written by this process
  bool _didBumpWriteCount = false;
  bool _dirty = false;  // the host header differs from the one on disk

  uint64_t _volumeStartOffset = 0;
  uint64_t _volumeSizeBytes = 0;
  HFSPlusMetadataZone _metadata;
  std::map<uint32_t, std::unique_ptr<HFSPlusForkData>> _hostForkDataCache;

  std::optional<HFSPlusRunRecovery> _recovery;  // laid over what is read
  std::unique_ptr<HFSPlusRunLog> _runLog;       // during a rewriting run, from its first write on
  HFSPlusHeldWrites _heldWrites;
  std::optional<HFSPlusFlushPlan> _unfinishedFlush;  // some of its writes may have been done
  bool _rewriting = false;
  bool _mustReread = false;  // a special file is not in memory as it is on disk
  FluxMark _fluxMark = FluxMark::Absent;
  bool _alternateWritten = false;  // since the mark was set, so it carries the mark as well

  // Last, so that they go first: they refer to everything above.
  std::unique_ptr<HFSPlusExtents> _extents;
  std::unique_ptr<HFSPlusAllocation> _allocation;
  std::unique_ptr<HFSPlusCatalog> _catalog;
  std::unique_ptr<HFSPlusAttributes> _attributes;
};
