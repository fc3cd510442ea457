#include "support/doubles/PowerCut.hpp"

#include <algorithm>
#include <random>

namespace doubles {

namespace {

constexpr size_t kSectorSize = 512;

void applyWhole(const RecordingDevice::Record& write, std::vector<std::byte>& image) {
  std::ranges::copy(write.bytes, image.begin() + static_cast<ptrdiff_t>(write.offset));
}

void applyTorn(const RecordingDevice::Record& write, std::vector<std::byte>& image,
               std::mt19937_64& random) {
  size_t at = 0;
  while (at < write.bytes.size()) {
    // The parts are cut where the device's sectors are.
    const size_t part =
        std::min(write.bytes.size() - at, kSectorSize - (write.offset + at) % kSectorSize);
    if (random() % 2 == 0) {
      std::copy_n(write.bytes.begin() + static_cast<ptrdiff_t>(at), part,
                  image.begin() + static_cast<ptrdiff_t>(write.offset + at));
    }
    at += part;
  }
}

}  // namespace

void PowerCut::advanceTo(size_t point) {
  for (; _point < point; ++_point) {
    if (_changes[_point].call != RecordingDevice::Call::Sync || _point == _lie) {
      continue;
    }
    for (; _firstUnsynced < _point; ++_firstUnsynced) {
      if (_changes[_firstUnsynced].call == RecordingDevice::Call::Write) {
        applyWhole(_changes[_firstUnsynced], _stable);
      }
    }
    ++_firstUnsynced;
  }
}

std::vector<std::byte> PowerCut::image(Unsynced beforeLie, Unsynced sinceLie, uint64_t seed) const {
  std::vector<std::byte> image = _stable;
  std::mt19937_64 random(seed);
  for (size_t i = _firstUnsynced; i < _point; ++i) {
    const Unsynced unsynced = i < _lie ? beforeLie : sinceLie;
    if (unsynced == Unsynced::Kept) {
      applyWhole(_changes[i], image);
    } else if (unsynced == Unsynced::Torn) {
      applyTorn(_changes[i], image, random);
    }
  }
  return image;
}

}  // namespace doubles
