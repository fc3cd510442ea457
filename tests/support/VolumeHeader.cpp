#include "support/VolumeHeader.hpp"

#include <algorithm>

#include "support/CatalogRecords.hpp"
#include "support/SeededRandom.hpp"

namespace support {

namespace {

constexpr size_t kSectorSize = 512;
constexpr uint32_t kDate = 0xD0000000;

uint16_t embeddedSignature(const VolumeDescription& description) {
  return description.signature.value_or(description.hfsx ? kSignatureHFSX : kSignatureHFSPlus);
}

uint32_t attributeBits(const VolumeDescription& description) {
  uint32_t bits = kVolumeUnmounted;
  if (description.journalFile != nullptr)
    bits |= kVolumeJournaled;
  if (description.hasBadBlocks)
    bits |= kVolumeSparedBlocks;
  if (!description.catalog.junkInFreeNodes && !description.extentsTree.junkInFreeNodes &&
      !description.attributesTree.junkInFreeNodes)
    bits |= kVolumeUnusedNodesZeroed;
  return (bits | description.attributesSet) & ~description.attributesCleared;
}

}  // namespace

void VolumeHeader::write(const VolumeDescription& description, const VolumeGeometry& geometry,
                         VolumeImage& image) const {
  const bool journaled = description.journalFile != nullptr;
  Bytes header(kVolumeHeaderSize);
  ByteWriter writer(header);
  writer.u16(embeddedSignature(description))
      .u16(description.version.value_or(description.hfsx ? 5 : 4))
      .u32(attributeBits(description))
      .u32(journaled ? fourCharCode("HFSJ") : fourCharCode("10.0"))
      .u32(journalInfoBlock)
      .u32(kDate)  // created, changed, backed up, checked
      .u32(kDate)
      .u32(0)
      .u32(kDate)
      .u32(fileCount)
      .u32(folderCount)
      .u32(geometry.blockSize)
      .u32(geometry.totalBlocks)
      .u32(freeBlocks)
      .u32(nextAllocation)
      .u32(16 * geometry.blockSize)  // clump sizes
      .u32(16 * geometry.blockSize)
      .u32(nextCatalogID)
      .u32(1)  // writeCount
      .u64(1)  // the Roman encoding
      .zeros(24)
      .u64(mixBits(description.seed));  // the volume's unique ID
  for (const BuiltFork* fork : {&allocation, &extents, &catalog, &attributes, &startup})
    writeForkData(writer, *fork,
                  static_cast<uint32_t>(std::min<uint64_t>(fork->logicalSize, 1u << 24)));
  image.write(geometry.volumeStart + kVolumeHeaderOffset, header);
  image.write(geometry.volumeStart + geometry.volumeSize - kReservedBackBytes, header);
}

void writeWrapper(const VolumeDescription& description, const VolumeGeometry& geometry,
                  VolumeImage& image) {
  const auto blocks = static_cast<uint16_t>(geometry.wrapperStart + geometry.wrapperCount);
  const std::string_view name = "HFS wrapper";
  Bytes block(kSectorSize);
  ByteWriter writer(block);
  writer.u16(kSignatureHFS)
      .u32(kDate)
      .u32(kDate)
      .u16(0x0100 | 0x8000)  // unmounted, locked
      .u16(0)                // files in the root folder
      .u16(3)                // first sector of the bitmap
      .u16(0)
      .u16(blocks)
      .u32(geometry.wrapperBlockSize)
      .u32(geometry.wrapperBlockSize)
      .u16(geometry.wrapperFirstSector)
      .u32(kFirstUserID)
      .u16(0)  // free blocks
      .u8(static_cast<uint8_t>(name.size()))
      .bytes(std::as_bytes(std::span(name)));
  writer.seek(124)
      .u16(embeddedSignature(description))
      .u16(geometry.wrapperStart)
      .u16(geometry.wrapperCount);
  image.write(kVolumeHeaderOffset, block);
  image.write(geometry.imageSize - kReservedBackBytes, block);

  Bytes bitmap(dividedUp(blocks, 8));
  for (uint32_t i = 0; i < blocks; ++i)
    bitmap[i / 8] |= std::byte{0x80} >> (i % 8);
  image.write(3 * kSectorSize, bitmap);
}

}  // namespace support
