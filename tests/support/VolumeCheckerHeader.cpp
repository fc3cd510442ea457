#include <bit>
#include <cstring>

#include "support/VolumeCheckerState.hpp"

namespace volumecheck {

namespace {

constexpr std::uint16_t kSignatureHFSPlus = 0x482B;
constexpr std::uint16_t kSignatureHFSX = 0x4858;
constexpr std::uint16_t kSignatureHFS = 0x4244;
constexpr std::size_t kHeaderSize = 512;
constexpr std::uint64_t kHeaderOffset = 1024;
constexpr std::uint64_t kReservedAtStart = 1536;
constexpr std::uint64_t kReservedAtEnd = 1024;

constexpr std::uint32_t kUnmountedCleanly = 1U << 8;
constexpr std::uint32_t kInconsistent = 1U << 11;
constexpr std::uint32_t kIDsReused = 1U << 12;
// Lock, clean, spared blocks, no caching, inconsistent, IDs reused, journaled, software lock,
// unused nodes zeroed; bits 29 and 30 belong to later systems.
constexpr std::uint32_t kKnownAttributes = 0xE000BF80;

using HeaderBytes = std::vector<std::uint8_t>;

bool isSignature(std::uint16_t signature) {
  return signature == kSignatureHFSPlus || signature == kSignatureHFSX;
}

// Steps into the volume embedded in an HFS wrapper. `source` is narrowed, which is why the caller
// hands over its own.
bool enterWrapper(VolumeCheckerState& state, VolumeCheckerSource& source, Bytes block) {
  const std::uint64_t wrapperBlock = u32At(block, 20);
  const std::uint64_t offset = u16At(block, 126) * wrapperBlock + u16At(block, 28) * 512ULL;
  const std::uint64_t size = u16At(block, 128) * wrapperBlock;
  if (!isSignature(u16At(block, 124)) || !source.narrow(offset, size)) {
    state.log.add(FindingKind::WrapperInvalid,
                  "The HFS wrapper has no embedded volume at byte %llu of %llu bytes.",
                  static_cast<unsigned long long>(offset), static_cast<unsigned long long>(size));
    return false;
  }
  state.truth.volumeOffset = offset;
  return true;
}

bool checkGeometry(VolumeCheckerState& state) {
  const HeaderTruth& header = state.truth.header;
  const std::uint64_t size = state.truth.volumeSize;
  if (!std::has_single_bit(header.blockSize) || header.blockSize < 512) {
    state.log.add(FindingKind::HeaderInvalid, "The block size is %u.", header.blockSize);
    return false;
  }
  const std::uint64_t blocks = size / header.blockSize;
  if (header.totalBlocks > blocks || header.totalBlocks == 0) {
    state.log.add(FindingKind::HeaderInvalid,
                  "The header counts %u blocks, there is room for %llu.", header.totalBlocks,
                  static_cast<unsigned long long>(blocks));
    return false;
  }
  if (header.totalBlocks != blocks) {
    state.log.add(FindingKind::HeaderInvalid,
                  "The header counts %u blocks of the %llu that there are.", header.totalBlocks,
                  static_cast<unsigned long long>(blocks));
  }
  return true;
}

void checkFields(VolumeCheckerState& state) {
  const HeaderTruth& header = state.truth.header;
  const std::uint16_t version = header.signature == kSignatureHFSX ? 5 : 4;
  if (header.version != version) {
    state.log.add(FindingKind::HeaderVersion, "The header has version %u instead of %u.",
                  header.version, version);
  }
  if ((header.attributes & kUnmountedCleanly) == 0) {
    state.log.add(FindingKind::NotCleanlyUnmounted,
                  "The volume was not cleanly unmounted (attributes 0x%08X).", header.attributes);
  }
  if ((header.attributes & kInconsistent) != 0) {
    state.log.add(FindingKind::MarkedInconsistent,
                  "The volume is marked inconsistent (attributes 0x%08X).", header.attributes);
  }
  if ((header.attributes & ~kKnownAttributes) != 0) {
    state.log.add(FindingKind::ReservedAttributeBits,
                  "The volume has reserved attribute bits 0x%08X.",
                  header.attributes & ~kKnownAttributes);
  }
  if ((header.encodingsBitmap & 1) == 0) {
    state.log.add(FindingKind::EncodingsBitmap, "The encodings bitmap lacks bit 0 (0x%016llX).",
                  static_cast<unsigned long long>(header.encodingsBitmap));
  }
  if (header.nextCatalogID < kFirstUserID && (header.attributes & kIDsReused) == 0) {
    state.log.add(FindingKind::NextCatalogID, "The next catalog ID is %u.", header.nextCatalogID);
  }
  if (header.nextAllocation > header.totalBlocks) {
    state.log.add(FindingKind::HeaderInvalid, "The next allocation is at block %u of %u.",
                  header.nextAllocation, header.totalBlocks);
  }
  if (header.freeBlocks > header.totalBlocks) {
    state.log.add(FindingKind::FreeBlocks, "The header counts %u free blocks of %u.",
                  header.freeBlocks, header.totalBlocks);
  }
}

// A byte range of the header and what it is; `maylag`: it may be older in the alternate header.
struct HeaderField {
  std::size_t offset, size;
  const char* name;
  bool mayLag;
};
constexpr HeaderField kHeaderFields[] = {{0, 4, "signature and version", false},
                                         {4, 4, "attributes", true},
                                         {8, 4, "last mounted version", true},
                                         {12, 4, "journal info block", false},
                                         {16, 4, "creation date", false},
                                         {20, 4, "modification date", true},
                                         {24, 4, "backup date", true},
                                         {28, 4, "check date", true},
                                         {32, 4, "file count", true},
                                         {36, 4, "folder count", true},
                                         {40, 4, "block size", false},
                                         {44, 4, "block count", false},
                                         {48, 4, "free block count", true},
                                         {52, 4, "next allocation", true},
                                         {56, 4, "resource clump size", true},
                                         {60, 4, "data clump size", true},
                                         {64, 4, "next catalog ID", true},
                                         {72, 8, "encodings bitmap", true},
                                         {80, 32, "Finder information", true},
                                         {112, 80, "allocation file", false},
                                         {192, 80, "extents file", false},
                                         {272, 80, "catalog file", false},
                                         {352, 80, "attributes file", false},
                                         {432, 80, "startup file", false}};

void checkAlternate(VolumeCheckerState& state, const HeaderBytes& primary) {
  HeaderBytes alternate(kHeaderSize);
  const std::uint64_t offset = state.truth.volumeSize - kReservedAtEnd;
  if (!state.source.read(offset, alternate) || !isSignature(u16At(alternate, 0))) {
    state.log.add(FindingKind::AlternateHeaderMissing, "There is no alternate header at byte %llu.",
                  static_cast<unsigned long long>(offset));
    return;
  }
  for (const HeaderField& field : kHeaderFields) {
    if (std::memcmp(&primary[field.offset], &alternate[field.offset], field.size) == 0) {
      continue;
    }
    if (!field.mayLag) {
      state.log.add(FindingKind::AlternateHeaderDiffers,
                    "The alternate header has another %s (at byte %zu).", field.name, field.offset);
    } else if (state.options.alternate == AlternateRule::MustAgree) {
      state.log.add(FindingKind::AlternateHeaderLags,
                    "The alternate header has another %s (at byte %zu).", field.name, field.offset);
    }
  }
}

void ownReservedAreas(VolumeCheckerState& state) {
  const std::uint64_t blockSize = state.blockSize();
  const auto own = [&](std::uint64_t first, std::uint64_t end) {
    end = std::min<std::uint64_t>(end, state.totalBlocks());
    if (first < end) {
      state.owned.push_back({static_cast<std::uint32_t>(first),
                             static_cast<std::uint32_t>(end - first), 0, ForkType::Data});
    }
  };
  // On a tiny volume of large blocks both areas can share one block.
  const std::uint64_t startEnd = (kReservedAtStart + blockSize - 1) / blockSize;
  // The last block is set aside for the alternate header also where that lies behind it, on a
  // volume that ends with a part of a block.
  const std::uint64_t endBlocks =
      std::min<std::uint64_t>((kReservedAtEnd + blockSize - 1) / blockSize, state.totalBlocks());
  const std::uint64_t endFirst = state.totalBlocks() - endBlocks;
  own(0, startEnd);
  own(std::max(endFirst, startEnd), state.totalBlocks());
}

}  // namespace

bool checkHeaders(VolumeCheckerState& state, VolumeCheckerSource& source) {
  HeaderBytes block(kHeaderSize);
  bool readable = source.read(kHeaderOffset, block);
  if (readable && u16At(block, 0) == kSignatureHFS) {
    if (!enterWrapper(state, source, block)) {
      return false;
    }
    readable = source.read(kHeaderOffset, block);
  }
  if (!readable || !isSignature(u16At(block, 0)) || source.size() < 4096) {
    state.log.add(FindingKind::NotAVolume, "There is no volume header (signature 0x%04X).",
                  u16At(block, 0));
    return false;
  }
  state.truth.volumeSize = source.size();
  state.truth.header = headerFrom(block);
  state.truth.hfsx = state.truth.header.signature == kSignatureHFSX;
  if (!checkGeometry(state)) {
    return false;
  }
  checkFields(state);
  checkAlternate(state, block);
  ownReservedAreas(state);
  return true;
}

}  // namespace volumecheck
