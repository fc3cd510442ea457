#include "support/VolumeCheckerState.hpp"

namespace volumecheck {

namespace {

constexpr std::uint32_t kJournaled = 1U << 13;
constexpr std::uint32_t kUnmountedCleanly = 1U << 8;
constexpr std::uint32_t kInThisVolume = 0x1;
constexpr std::uint32_t kOnOtherDevice = 0x2;
constexpr std::uint32_t kNeedsInitialising = 0x4;
constexpr std::size_t kInfoSize = 180;
constexpr std::size_t kJournalHeaderSize = 44;
constexpr std::size_t kChecksumOffset = 36;
constexpr std::uint32_t kJournalMagic = 0x4A4E4C78;
constexpr std::uint32_t kEndianMagic = 0x12345678;

// The journal's header is in the byte order of whoever wrote it.
std::uint64_t fieldAt(Bytes bytes, std::size_t offset, std::size_t width, bool littleEndian) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < width; ++i) {
    const std::size_t at = littleEndian ? offset + width - 1 - i : offset + i;
    value = (value << 8) | u8At(bytes, at);
  }
  return value;
}

std::uint32_t checksumOf(Bytes header) {
  std::uint32_t sum = 0;
  for (std::size_t i = 0; i < header.size(); ++i) {
    const bool inChecksum = i >= kChecksumOffset && i < kChecksumOffset + 4;
    const std::uint32_t byte = inChecksum ? 0 : header[i];
    sum = (sum << 8) ^ (sum + byte);
  }
  return ~sum;
}

const Fork* forkAtPath(const VolumeTruth& truth, const char* path) {
  const CatalogItem* item = truth.findItem(path);
  return item == nullptr ? nullptr : truth.findFork(item->cnid, ForkType::Data);
}

void checkPlace(VolumeCheckerState& state, const char* path, std::uint64_t offset,
                std::uint64_t size) {
  const Fork* fork = forkAtPath(state.truth, path);
  const std::uint64_t blockSize = state.blockSize();
  const bool fits = fork != nullptr && fork->extents.size() == 1 &&
                    fork->extents[0].startBlock * blockSize == offset &&
                    fork->extents[0].blockCount * blockSize >= size && fork->logicalSize >= size;
  if (!fits) {
    state.log.add(FindingKind::JournalInfo,
                  "There is no file %s in one piece of %llu bytes at byte %llu.", path,
                  static_cast<unsigned long long>(size), static_cast<unsigned long long>(offset));
  }
}

void checkJournalHeader(VolumeCheckerState& state) {
  JournalTruth& journal = state.truth.journal;
  std::vector<std::uint8_t> header(kJournalHeaderSize);
  if (!state.source.read(journal.offset, header)) {
    state.log.add(FindingKind::JournalHeader, "The journal at byte %llu lies outside the volume.",
                  static_cast<unsigned long long>(journal.offset));
    return;
  }
  const bool little = u32At(header, 4) != kEndianMagic;
  const std::uint64_t start = fieldAt(header, 8, 8, little);
  const std::uint64_t end = fieldAt(header, 16, 8, little);
  const std::uint64_t size = fieldAt(header, 24, 8, little);
  const std::uint64_t blockHeaderSize = fieldAt(header, 32, 4, little);
  const std::uint64_t sectorSize = fieldAt(header, 40, 4, little);
  const bool magic = fieldAt(header, 0, 4, little) == kJournalMagic &&
                     fieldAt(header, 4, 4, little) == kEndianMagic;
  const bool sizes = size == journal.size && sectorSize >= 512 && sectorSize % 512 == 0 &&
                     blockHeaderSize >= sectorSize && blockHeaderSize % sectorSize == 0 &&
                     start >= sectorSize && start <= size && end >= sectorSize && end <= size;
  if (!magic || !sizes) {
    state.log.add(FindingKind::JournalHeader,
                  "The journal's header is malformed: from %llu to %llu of %llu bytes, sectors of "
                  "%llu, block headers of %llu.",
                  static_cast<unsigned long long>(start), static_cast<unsigned long long>(end),
                  static_cast<unsigned long long>(size),
                  static_cast<unsigned long long>(sectorSize),
                  static_cast<unsigned long long>(blockHeaderSize));
    return;
  }
  const auto stored = static_cast<std::uint32_t>(fieldAt(header, kChecksumOffset, 4, little));
  if (stored != checksumOf(header)) {
    state.log.add(FindingKind::JournalChecksum,
                  "The journal's header has checksum 0x%08X instead of 0x%08X.", stored,
                  checksumOf(header));
  }
  journal.empty = start == end;
  const bool clean = (state.truth.header.attributes & kUnmountedCleanly) != 0;
  if (clean && !journal.empty) {
    state.log.add(FindingKind::JournalNotEmpty,
                  "The journal holds bytes %llu to %llu, though the volume was unmounted cleanly.",
                  static_cast<unsigned long long>(start), static_cast<unsigned long long>(end));
  }
}

}  // namespace

void checkJournal(VolumeCheckerState& state) {
  if ((state.truth.header.attributes & kJournaled) == 0) {
    return;
  }
  const std::uint32_t block = state.truth.header.journalInfoBlock;
  const std::uint64_t offset = std::uint64_t{block} * state.blockSize();
  std::vector<std::uint8_t> info(kInfoSize);
  if (block == 0 || block >= state.totalBlocks() || !state.source.read(offset, info)) {
    state.log.add(FindingKind::JournalInfo, "The journal info block is block %u of %u.", block,
                  state.totalBlocks());
    return;
  }
  checkPlace(state, "/.journal_info_block", offset, kInfoSize);
  JournalTruth& journal = state.truth.journal;
  journal.present = true;
  journal.flags = u32At(info, 0);
  journal.offset = u64At(info, 36);
  journal.size = u64At(info, 44);
  const bool here = (journal.flags & kInThisVolume) != 0;
  const bool elsewhere = (journal.flags & kOnOtherDevice) != 0;
  const bool known = (journal.flags & ~(kInThisVolume | kOnOtherDevice | kNeedsInitialising)) == 0;
  if (here == elsewhere || !known) {
    state.log.add(FindingKind::JournalInfo, "The journal info block has flags 0x%X.",
                  journal.flags);
  }
  if (!here) {
    return;
  }
  checkPlace(state, "/.journal", journal.offset, journal.size);
  if ((journal.flags & kNeedsInitialising) == 0) {
    checkJournalHeader(state);
  }
}

}  // namespace volumecheck
