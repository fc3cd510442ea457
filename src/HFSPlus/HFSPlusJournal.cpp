#include "HFSPlus/HFSPlusJournal.hpp"

#include <algorithm>
#include <vector>

#include "HFSPlus/HFSPlusByteOrder.hpp"
#include "HFSPlus/HFSPlusVolume.hpp"

namespace {

// The journal info block: where its fields lie, and what its flags say.
constexpr size_t kInfoBytes = 180;
constexpr size_t kInfoFlags = 0;
constexpr size_t kInfoOffset = 36;
constexpr size_t kInfoSize = 44;
constexpr uint32_t kInVolumeMask = 0x1;
constexpr uint32_t kNeedsInitialisingMask = 0x4;

// The header that the journal begins with, in the byte order of whoever wrote it. What lies from
// the start to the end is still to be written into the metadata.
constexpr size_t kHeaderBytes = 44;
constexpr size_t kHeaderMagic = 0;
constexpr size_t kHeaderStart = 8;
constexpr size_t kHeaderEnd = 16;
constexpr uint32_t kMagic = 0x4A4E4C78;

bool holdsTransactions(const std::vector<std::byte>& header) {
  const auto magic = readBigEndian<uint32_t>(&header[kHeaderMagic]);
  // Whether start and end differ can be told in either byte order.
  return (magic == kMagic || magic == std::byteswap(kMagic)) &&
         readBigEndian<uint64_t>(&header[kHeaderStart]) !=
             readBigEndian<uint64_t>(&header[kHeaderEnd]);
}

}  // namespace

Result<std::optional<HFSPlusJournal>> HFSPlusFindJournal(HFSPlusVolume& volume) {
  const HFSPlusVolumeHeader& header = volume.hostVolumeHeader();
  const uint64_t blockSize = header.blockSize;
  const size_t deviceBlockSize = volume.deviceBlockSize();
  std::vector<std::byte> info(std::max(deviceBlockSize, kInfoBytes));
  TRY(volume.read(info, header.journalInfoBlock * blockSize));
  const auto flags = readBigEndian<uint32_t>(&info[kInfoFlags]);
  if ((flags & kInVolumeMask) == 0) {
    return std::nullopt;
  }
  HFSPlusJournal journal{.offset = readBigEndian<uint64_t>(&info[kInfoOffset]),
                         .size = readBigEndian<uint64_t>(&info[kInfoSize]),
                         .hasTransactions = false};
  const uint64_t volumeBytes = header.totalBlocks * blockSize;
  if (journal.offset > volumeBytes || journal.size > volumeBytes) {
    return std::unexpected(
        XRDefragError::localized("Allocation block %1$lu is out of range.",
                                 std::max(journal.offset, journal.size) / blockSize));
  }
  std::vector<std::byte> journalHeader(std::max(deviceBlockSize, kHeaderBytes));
  const bool hasHeader = (flags & kNeedsInitialisingMask) == 0 &&
                         journal.size >= journalHeader.size() &&
                         journal.size <= volumeBytes - journal.offset;
  if (hasHeader) {
    TRY(volume.read(journalHeader, journal.offset));
    journal.hasTransactions = holdsTransactions(journalHeader);
  }
  return journal;
}
