#include "HFSPlus/HFSPlusNameCompare.hpp"

#include <algorithm>
#include <cstring>

#include "HFSPlus/HFSPlusByteOrder.hpp"
#include "HFSPlus/HFSPlusUnicode.hpp"

namespace {

/// The units of a name, folded, without the ignored ones; ends with zeros.
class FoldedUnits {
 public:
  explicit FoldedUnits(std::span<const std::byte> name) : _rest(name) {}

  uint16_t next() {
    while (_rest.size() >= 2) {
      const uint16_t folded = HFSPlusFoldedUnit(readBigEndian<uint16_t>(_rest.data()));
      _rest = _rest.subspan(2);
      if (folded != 0) {
        return folded;
      }
    }
    return 0;
  }

 private:
  std::span<const std::byte> _rest;
};

/// Bytes of the whole units that two names begin with alike. Equal units fold alike, so a
/// comparison may start behind them.
size_t commonBytes(std::span<const std::byte> a, std::span<const std::byte> b) {
  const size_t shorter = std::min(a.size(), b.size());
  size_t common = 0;
  while (shorter - common >= sizeof(uint64_t) &&
         std::memcmp(a.data() + common, b.data() + common, sizeof(uint64_t)) == 0) {
    common += sizeof(uint64_t);
  }
  while (shorter - common >= 2 &&
         std::memcmp(a.data() + common, b.data() + common, sizeof(uint16_t)) == 0) {
    common += 2;
  }
  return common;
}

}  // namespace

int32_t HFSPlusCompareNamesFolded(std::span<const std::byte> a, std::span<const std::byte> b) {
  const size_t common = commonBytes(a, b);
  FoldedUnits unitsOfA(a.subspan(common));
  FoldedUnits unitsOfB(b.subspan(common));
  for (;;) {
    const uint16_t unitOfA = unitsOfA.next();
    const uint16_t unitOfB = unitsOfB.next();
    if (unitOfA != unitOfB) {
      return unitOfA < unitOfB ? -1 : 1;
    }
    if (unitOfA == 0) {
      return 0;
    }
  }
}

int32_t HFSPlusCompareNamesBinary(std::span<const std::byte> a, std::span<const std::byte> b) {
  // Big-endian units order as their bytes do.
  const size_t shorter = std::min(a.size(), b.size());
  const int difference = shorter == 0 ? 0 : std::memcmp(a.data(), b.data(), shorter);
  if (difference != 0) {
    return difference < 0 ? -1 : 1;
  }
  return a.size() == b.size() ? 0 : a.size() < b.size() ? -1 : 1;
}
