// The few files whose contents name places on the volume: they can be written only when every fork
// has its place.

#include <algorithm>
#include <bit>

#include "support/VolumePlan.hpp"

namespace support {

namespace {

constexpr size_t kJournalInfoSize = 180;
constexpr size_t kJournalHeaderSize = 44;
constexpr uint32_t kJournalSectorSize = 512;
constexpr uint32_t kPlaylistMagic = 0xA1B2C3D6;

uint64_t reversed(uint64_t value, size_t width) {
  return std::byteswap(value) >> (64 - 8 * width);
}

Bytes journalInfo(uint64_t offset, uint64_t size) {
  Bytes info(kJournalInfoSize);
  ByteWriter(info).u32(1).zeros(32).u64(offset).u64(size);
  return info;
}

// In little-endian order, as the machines of today write it.
Bytes journalHeader(uint64_t size) {
  const auto little32 = [](uint32_t value) { return std::byteswap(value); };
  const auto little64 = [](uint64_t value) { return std::byteswap(value); };
  Bytes header(kJournalHeaderSize);
  ByteWriter writer(header);
  writer.u32(little32(0x4A4E4C78))
      .u32(little32(0x12345678))
      .u64(little64(kJournalSectorSize))  // start and end: nothing between them
      .u64(little64(kJournalSectorSize))
      .u64(little64(size))
      .u32(little32(4096))  // bytes of a block list header
      .u32(0)
      .u32(little32(kJournalSectorSize));
  uint32_t sum = 0;
  for (const std::byte byte : header)
    sum = sum << 8 ^ (sum + static_cast<uint8_t>(byte));
  writer.seek(36).u32(little32(~sum));
  return header;
}

// Writes numbers in one byte order or the other.
class PlaylistWriter {
 public:
  PlaylistWriter(Bytes& into, bool swapped) : _writer(into), _swapped(swapped) {}
  PlaylistWriter& u32(uint32_t value) {
    _writer.u32(_swapped ? static_cast<uint32_t>(reversed(value, 4)) : value);
    return *this;
  }
  PlaylistWriter& u64(uint64_t value) {
    _writer.u64(_swapped ? reversed(value, 8) : value);
    return *this;
  }

 private:
  ByteWriter _writer;
  bool _swapped;
};

}  // namespace

void VolumePlan::setLiteral(const FileDescription* file, Bytes bytes) {
  const auto item = std::ranges::find(_items, file, &CatalogItem::file);
  if (item != _items.end() && item->dataFork != kNoFork)
    _forks[item->dataFork].literal = std::make_shared<const Bytes>(std::move(bytes));
}

void VolumePlan::fillInLiterals() {
  if (_description.journalFile != nullptr) {
    const auto item = std::ranges::find(_items, _description.journalFile, &CatalogItem::file);
    const BuiltFork& journal = _forks[item->dataFork];
    const uint64_t offset = uint64_t{journal.extents[0].start} * _geometry.blockSize;
    setLiteral(_description.journalInfoFile, journalInfo(offset, journal.logicalSize));
    setLiteral(_description.journalFile, journalHeader(journal.logicalSize));
  }
  if (_description.playlistFile != nullptr)
    fillInPlaylist();
}

void VolumePlan::fillInPlaylist() {
  Bytes bytes(_description.playlistFile->data.logicalSize);
  PlaylistWriter writer(bytes, _description.playlistSwapped);
  writer.u32(kPlaylistMagic).u32(static_cast<uint32_t>(_description.playlist.size())).u32(0);
  for (const PlaylistEntry& entry : _description.playlist) {
    uint64_t offset = entry.offset;
    uint64_t length = entry.length;
    const auto fork = std::ranges::find_if(_forks, [&](const BuiltFork& candidate) {
      return candidate.fileID == entry.fileID && candidate.forkType == entry.forkType &&
             !candidate.isAttribute;
    });
    if (entry.fileID != 0 && fork != _forks.end()) {
      const size_t index = std::min<size_t>(entry.extentIndex, fork->extents.size() - 1);
      offset = uint64_t{fork->extents[index].start} * _geometry.blockSize;
      length = uint64_t{fork->extents[index].count} * _geometry.blockSize;
    }
    writer.u64(offset).u64(length).u32(entry.batch);
  }
  setLiteral(_description.playlistFile, std::move(bytes));
}

}  // namespace support
