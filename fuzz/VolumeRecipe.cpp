#include "VolumeRecipe.hpp"

#include <algorithm>
#include <array>

#include "HFSPlus/HFSPlusByteOrder.hpp"
#include "HFSPlus/HFSPlusFlushRecord.hpp"
#include "HFSPlus/HFSPlusRunLocator.hpp"
#include "LWKit/LWChecksum.hpp"
#include "support/SeededRandom.hpp"

namespace fuzz {

namespace {

constexpr uint64_t kHeaderOffset = kHFSPlusVolumeHeaderOffset;
constexpr size_t kLinkBytes = 8;  // before what a run holds of a record

// Scenario bits.
constexpr uint8_t kRewritingMask = 0x03;
constexpr uint8_t kMountedBits = 0x0C;   // both set: mounted
constexpr uint8_t kReadOnlyBits = 0x30;  // both set: read-only
constexpr uint8_t kReportsLaterBit = 0x40;
constexpr uint8_t kKeepsChecksumsBit = 0x80;

// The order is part of what a recipe means.
enum class Operation : uint8_t {
  Set,
  Add,
  FlipBit,
  SetNotable,
  Copy,
  Swap,
  CopyOther,
  Zero,
  Ones,
  DropRecord,
  SwapRecords,
  Resize,
  SetByteAnywhere,
  PlantLocator,
  Count
};
constexpr uint8_t kOperationMask = 0x3F;
constexpr uint8_t kPrimaryOnlyBit = 0x80;  // leaves the alternate header as it is

struct Edit {
  PlaceKind kind;
  Operation operation;
  bool primaryOnly;
  uint16_t place;
  uint32_t value;
};

Edit editOf(Input bytes) {
  const auto at = [&](size_t index) { return uint32_t{bytes[index]}; };
  return {.kind = static_cast<PlaceKind>(at(0) % static_cast<uint32_t>(PlaceKind::Count)),
          .operation = static_cast<Operation>((at(1) & kOperationMask) %
                                              static_cast<uint32_t>(Operation::Count)),
          .primaryOnly = (at(1) & kPrimaryOnlyBit) != 0,
          .place = static_cast<uint16_t>(at(2) << 8 | at(3)),
          .value = at(4) << 24 | at(5) << 16 | at(6) << 8 | at(7)};
}

/// Carries out edits on a device.
class Surgeon {
 public:
  Surgeon(const VolumeBase& base, FuzzDevice& device)
      : _base(base), _device(device), _volumeStart(volumeStart()) {}

  void carryOut(const Edit& edit);
  void mendChecksums();

 private:
  using Bytes = std::vector<std::byte>;

  uint64_t volumeStart() const;
  uint64_t volumeEnd() const;
  const Place* place(PlaceKind kind, uint32_t number) const;
  Bytes read(const Place& place) const { return _device.peek(place.offset, place.size); }
  void write(const Place& place, const Bytes& bytes, bool primaryOnly = false);
  uint32_t headerNumber(size_t offset) const;
  uint32_t notable(uint32_t choice) const;
  Bytes changed(Bytes bytes, const Edit& edit) const;
  Bytes set(Bytes bytes, uint32_t value) const;
  void editNode(const Place& node, const Edit& edit);
  void plantLocator(const Edit& edit);
  void mendLocatorAt(uint64_t offset);

  const VolumeBase& _base;
  FuzzDevice& _device;
  uint64_t _volumeStart;
};

uint64_t Surgeon::volumeStart() const {
  return _base.places[static_cast<size_t>(PlaceKind::Header)].front().offset - kHeaderOffset;
}

uint64_t Surgeon::volumeEnd() const {
  // The locator's own place is 512 bytes before the end.
  const auto& reserved = _base.places[static_cast<size_t>(PlaceKind::Reserved)];
  return _volumeStart == 0 ? _base.image.sizeBytes() : reserved.front().offset / 512 * 512 + 512;
}

const Place* Surgeon::place(PlaceKind kind, uint32_t number) const {
  const auto& places = _base.places[static_cast<size_t>(kind)];
  return places.empty() ? nullptr : &places[number % places.size()];
}

void Surgeon::write(const Place& place, const Bytes& bytes, bool primaryOnly) {
  _device.poke(bytes, place.offset);
  const uint64_t header = _volumeStart + kHeaderOffset;
  if (place.offset >= header && place.offset < header + sizeof(HFSPlusVolumeHeader) &&
      !primaryOnly) {
    const uint64_t alternate = volumeEnd() - kHFSPlusAlternateVolumeHeaderDistance;
    _device.poke(bytes, place.offset - header + alternate);
  }
}

uint32_t Surgeon::headerNumber(size_t offset) const {
  return readBigEndian<uint32_t>(_device.peek(_volumeStart + kHeaderOffset + offset, 4).data());
}

/// Numbers at which something may tip over.
uint32_t Surgeon::notable(uint32_t choice) const {
  const uint32_t totalBlocks = headerNumber(offsetof(HFSPlusVolumeHeader, totalBlocks));
  const std::array<uint32_t, 24> numbers = {0,
                                            1,
                                            2,
                                            3,
                                            4,
                                            5,
                                            6,
                                            8,
                                            16,
                                            255,
                                            256,
                                            512,
                                            4096,
                                            0x7FFF,
                                            0x8000,
                                            0xFFFF,
                                            0x7FFFFFFF,
                                            0x80000000,
                                            0xFFFFFFFF,
                                            totalBlocks,
                                            totalBlocks - 1,
                                            totalBlocks + 1,
                                            headerNumber(offsetof(HFSPlusVolumeHeader, freeBlocks)),
                                            headerNumber(offsetof(HFSPlusVolumeHeader, blockSize))};
  return numbers[choice % numbers.size()];
}

Surgeon::Bytes Surgeon::set(Bytes bytes, uint32_t value) const {
  if (bytes.size() == 8) {
    // An extent somewhere on the volume, rather than a huge number.
    const uint32_t total = headerNumber(offsetof(HFSPlusVolumeHeader, totalBlocks));
    writeBigEndian(bytes.data(), static_cast<uint32_t>((value >> 8) % (uint64_t{total} + 2)));
    writeBigEndian(bytes.data() + 4, value & 0xFF);
    return bytes;
  }
  for (size_t i = 0; i < bytes.size() && i < 4; ++i) {
    bytes[bytes.size() - 1 - i] = static_cast<std::byte>(value >> (8 * i));
  }
  return bytes;
}

Surgeon::Bytes Surgeon::changed(Bytes bytes, const Edit& edit) const {
  switch (edit.operation) {
    case Operation::Add: {
      uint32_t carry = static_cast<uint32_t>(static_cast<int32_t>(static_cast<int8_t>(edit.value)));
      for (size_t i = bytes.size(); i > 0 && i + 8 > bytes.size(); --i) {
        carry += std::to_integer<uint32_t>(bytes[i - 1]);
        bytes[i - 1] = static_cast<std::byte>(carry);
        carry = static_cast<uint32_t>(static_cast<int32_t>(carry) >> 8);
      }
      return bytes;
    }
    case Operation::FlipBit: {
      const size_t bit = edit.value % (bytes.size() * 8);
      bytes[bit / 8] ^= static_cast<std::byte>(0x80 >> bit % 8);
      return bytes;
    }
    case Operation::SetNotable:
      return bytes.size() == 8 ? bytes : set(std::move(bytes), notable(edit.value));
    case Operation::Zero:
      std::ranges::fill(bytes, std::byte{0});
      return bytes;
    case Operation::Ones:
      std::ranges::fill(bytes, std::byte{0xFF});
      return bytes;
    default:
      return set(std::move(bytes), edit.value);
  }
}

/// Drops a record of a node, or exchanges two, as if whoever wrote it had done so.
void Surgeon::editNode(const Place& node, const Edit& edit) {
  Bytes bytes = read(node);
  const auto records = readBigEndian<uint16_t>(&bytes[10]);
  if (records < 2 || records > node.size / 4) {
    return;
  }
  const auto offsetAt = [&](uint32_t record) { return &bytes[node.size - 2 * (record + 1)]; };
  const uint32_t record = edit.value % records;
  if (edit.operation == Operation::SwapRecords) {
    std::swap_ranges(offsetAt(record), offsetAt(record) + 2, offsetAt((record + 1) % records));
  } else {
    for (uint32_t i = record; i < records; ++i) {
      std::copy_n(offsetAt(i + 1), 2, offsetAt(i));
    }
    writeBigEndian(&bytes[10], static_cast<uint16_t>(records - 1));
  }
  write(node, bytes);
}

/// Makes the volume look as if a run had been interrupted, whose record would write where the value
/// says.
void Surgeon::plantLocator(const Edit& edit) {
  HFSPlusVolumeHeader header = [&] {
    DiskOrder<HFSPlusVolumeHeader> disk;
    const Bytes bytes = _device.peek(_volumeStart + kHeaderOffset, sizeof disk);
    std::ranges::copy(bytes, disk.bytes.begin());
    return toHost(disk);
  }();
  if (header.blockSize < 512 || header.totalBlocks == 0) {
    return;
  }
  header.attributes = (header.attributes & ~kHFSVolumeUnmountedMask) | kHFSVolumeInconsistentMask;
  const auto disk = toDisk(header);
  write({_volumeStart + kHeaderOffset, sizeof disk}, Bytes(disk.bytes.begin(), disk.bytes.end()),
        true);

  HFSPlusRunLocator locator;
  locator.runID = edit.value;
  locator.sequence = 1;
  locator.attributes = header.attributes | kHFSVolumeUnmountedMask;
  locator.writeCount = header.writeCount;
  locator.headerBefore = locator.headerAfter = LWChecksum::of(disk.bytes);
  if (edit.value % 4 != 0) {
    HFSPlusFlushPlan plan;
    const Place* target = place(edit.kind, edit.place);
    const uint64_t offset =
        target && target->offset >= _volumeStart ? target->offset - _volumeStart : edit.value;
    const Bytes content(edit.value % 64 + 1, static_cast<std::byte>(edit.value >> 8));
    plan.add(offset, content, HFSPlusFlushPlan::Kind::SpecialFile);
    const HFSPlusRunIdentity identity = {.runID = locator.runID,
                                         .signature = header.signature,
                                         .version = header.version,
                                         .createDate = header.createDate,
                                         .blockSize = header.blockSize,
                                         .totalBlocks = header.totalBlocks,
                                         .writeCount = locator.writeCount};
    const Bytes record = HFSPlusFlushRecord::toDisk(plan, identity, locator.sequence);
    locator.recordBlock = (edit.value >> 8) % header.totalBlocks;
    locator.recordBytes = static_cast<uint32_t>(record.size());
    locator.runBlocks =
        static_cast<uint32_t>((kLinkBytes + record.size() - 1) / header.blockSize + 1);
    const uint64_t run = _volumeStart + uint64_t{locator.recordBlock} * header.blockSize;
    _device.poke(std::array<std::byte, kLinkBytes>{}, run);
    _device.poke(record, run + kLinkBytes);
  }
  const auto bytes = locator.toDisk();
  _device.poke(bytes, volumeEnd() - 512);
}

void Surgeon::carryOut(const Edit& edit) {
  if (edit.operation == Operation::Resize) {
    const uint64_t sectors = (edit.value & 0xFFFF) % (2 * _device.blockCount() + 2);
    _device.resize(sectors * _device.blockSize());
    return;
  }
  if (edit.operation == Operation::PlantLocator) {
    plantLocator(edit);
    return;
  }
  if (edit.operation == Operation::SetByteAnywhere) {
    static_assert(FuzzImage::kPageBytes == 4096);
    const std::vector<uint64_t> pages = _base.image.pageNumbers();
    const uint64_t page = pages[edit.place % pages.size()];
    const std::byte byte{static_cast<uint8_t>(edit.value)};
    _device.poke(std::span(&byte, 1), page * FuzzImage::kPageBytes + (edit.value >> 8) % 4096);
    return;
  }
  const Place* target = place(edit.kind, edit.place);
  if (target == nullptr) {
    return;
  }
  if (edit.kind == PlaceKind::Node &&
      (edit.operation == Operation::DropRecord || edit.operation == Operation::SwapRecords)) {
    editNode(*target, edit);
    return;
  }
  const bool fromOther = edit.operation == Operation::CopyOther;
  if (fromOther || edit.operation == Operation::Copy || edit.operation == Operation::Swap) {
    const auto kind =
        fromOther
            ? static_cast<PlaceKind>((edit.value >> 16) % static_cast<uint32_t>(PlaceKind::Count))
            : edit.kind;
    const Place* source = place(kind, edit.value & 0xFFFF);
    if (source == nullptr) {
      return;
    }
    const Place from{source->offset, std::min(source->size, target->size)};
    const Place to{target->offset, from.size};
    const Bytes bytes = read(from);
    if (edit.operation == Operation::Swap) {
      write(from, read(to), edit.primaryOnly);
    }
    write(to, bytes, edit.primaryOnly);
    return;
  }
  if (target->size <= 512 || edit.operation == Operation::FlipBit ||
      edit.operation == Operation::Zero) {
    write(*target, changed(read(*target), edit), edit.primaryOnly);
  }
}

void Surgeon::mendChecksums() {
  for (const Place& place : _base.places[static_cast<size_t>(PlaceKind::Reserved)]) {
    if (place.size == 8) {
      mendLocatorAt(place.offset);
    }
  }
}

/// Nothing unless a locator begins at the offset.
void Surgeon::mendLocatorAt(uint64_t offset) {
  Bytes locator = _device.peek(offset, HFSPlusRunLocator::kBytes);
  if (readBigEndian<uint64_t>(locator.data()) != HFSPlusRunLocator::kMagic) {
    return;
  }
  const uint64_t header =
      LWChecksum::of(_device.peek(_volumeStart + kHeaderOffset, sizeof(HFSPlusVolumeHeader)));
  if (header != readBigEndian<uint64_t>(&locator[40])) {
    writeBigEndian(&locator[32], header);
  }
  constexpr size_t kChecksum = 56;  // in the record and in the locator
  const uint64_t blockSize = headerNumber(offsetof(HFSPlusVolumeHeader, blockSize));
  // A record in several runs keeps its checksum as it is.
  const uint64_t recordOffset =
      _volumeStart + readBigEndian<uint32_t>(&locator[20]) * blockSize + kLinkBytes;
  const auto recordBytes = readBigEndian<uint32_t>(&locator[28]);
  if (recordBytes >= HFSPlusFlushRecord::kHeaderBytes && recordBytes < (1 << 20)) {
    Bytes record = _device.peek(recordOffset, recordBytes);
    if (readBigEndian<uint64_t>(record.data()) == HFSPlusFlushRecord::kMagic) {
      writeBigEndian(&record[kChecksum], uint64_t{0});
      writeBigEndian(&record[kChecksum], LWChecksum::of(record));
      _device.poke(record, recordOffset);
    }
  }
  writeBigEndian(&locator[kChecksum], LWChecksum::of(std::span(locator).first(kChecksum)));
  _device.poke(locator, offset);
}

uint8_t byteAt(Input input, size_t index) {
  return index < input.size() ? input[index] : uint8_t{0};
}

}  // namespace

VolumeRecipe::VolumeRecipe(Input input) : base(volumeBase(byteAt(input, 0) % volumeBaseCount())) {
  const uint8_t scenario = byteAt(input, 1);
  rewriting = static_cast<Rewriting>(scenario & kRewritingMask);
  mounted = (scenario & kMountedBits) == kMountedBits;
  readOnly = (scenario & kReadOnlyBits) == kReadOnlyBits;
  reportsFirst = (scenario & kReportsLaterBit) == 0;
  mendsChecksums = (scenario & kKeepsChecksumsBit) == 0;
  copyBufferBlocks = byteAt(input, 2);
  mapCapacity = uint64_t{16} * byteAt(input, 3);
  _edits = input.subspan(std::min(input.size(), kHeaderBytes));
  _edits = _edits.first(std::min(_edits.size() / kEditBytes, kMostEdits) * kEditBytes);
}

std::shared_ptr<FuzzDevice> VolumeRecipe::makeDevice() const {
  auto device = std::make_shared<FuzzDevice>(base.image);
  Surgeon surgeon(base, *device);
  for (Input rest = _edits; !rest.empty(); rest = rest.subspan(kEditBytes)) {
    surgeon.carryOut(editOf(rest));
  }
  if (mendsChecksums) {
    surgeon.mendChecksums();
  }
  return device;
}

size_t mutateRecipe(std::span<uint8_t> buffer, size_t size, uint32_t seed) {
  using Recipe = VolumeRecipe;
  support::SeededRandom random(seed);
  const auto byte = [&] { return static_cast<uint8_t>(random.next()); };
  if (buffer.size() < Recipe::kHeaderBytes + Recipe::kEditBytes) {
    return size;
  }
  if (size < Recipe::kHeaderBytes) {
    std::ranges::generate(buffer.first(Recipe::kHeaderBytes), byte);
    size = Recipe::kHeaderBytes;
  }
  size_t edits = (size - Recipe::kHeaderBytes) / Recipe::kEditBytes;
  const size_t mostEdits =
      std::min(Recipe::kMostEdits, (buffer.size() - Recipe::kHeaderBytes) / Recipe::kEditBytes);
  const auto editAt = [&](size_t index) {
    return buffer.subspan(Recipe::kHeaderBytes + index * Recipe::kEditBytes, Recipe::kEditBytes);
  };
  const auto draw = [&](std::span<uint8_t> edit) {
    std::ranges::generate(edit, byte);
    edit[0] = static_cast<uint8_t>(random.below(static_cast<uint64_t>(PlaceKind::Count)));
    edit[1] = static_cast<uint8_t>(random.below(static_cast<uint64_t>(Operation::Count)) |
                                   (random.chance(10) ? kPrimaryOnlyBit : 0));
  };
  const uint64_t choice = random.below(100);
  if (choice < 45 && edits < mostEdits) {
    draw(editAt(edits++));
  } else if (choice < 55 && edits > 0) {
    std::ranges::copy(editAt(edits - 1), editAt(random.below(edits)).begin());
    --edits;
  } else if (choice < 65 && edits > 0) {
    draw(editAt(random.below(edits)));
  } else if (choice < 75 && edits > 0) {
    editAt(random.below(edits))[4 + random.below(4)] = byte();
  } else if (choice < 85 && edits > 0) {
    editAt(random.below(edits))[2 + random.below(2)] = byte();
  } else {
    buffer[random.below(Recipe::kHeaderBytes)] = random.chance(30) ? uint8_t{0} : byte();
  }
  return Recipe::kHeaderBytes + edits * Recipe::kEditBytes;
}

}  // namespace fuzz
