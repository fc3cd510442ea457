// Names against a second opinion that shares no code with the program.

#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "FuzzTargets.hpp"
#include "HFSPlus/HFSPlusNameCompare.hpp"
#include "HFSPlus/HFSPlusNameText.hpp"
#include "HFSPlus/HFSPlusUnicode.hpp"
#include "LWKit/LWUnicode.hpp"
#include "XRDefragReport.hpp"
#include "support/VolumeCheckerNames.hpp"
#include "support/VolumeNames.hpp"

namespace fuzz {

namespace {

using Name = std::u16string;

std::vector<std::byte> onDisk(const Name& name) {
  std::vector<std::byte> bytes;
  for (const char16_t unit : name) {
    bytes.push_back(static_cast<std::byte>(unit >> 8));
    bytes.push_back(static_cast<std::byte>(unit));
  }
  return bytes;
}

int sign(int value) {
  return (value > 0) - (value < 0);
}

int folded(const Name& a, const Name& b) {
  return sign(HFSPlusCompareNamesFolded(onDisk(a), onDisk(b)));
}

int binary(const Name& a, const Name& b) {
  return sign(HFSPlusCompareNamesBinary(onDisk(a), onDisk(b)));
}

void checkOrder(const Name& a, const Name& b) {
  FUZZ_CHECK(folded(a, b) == sign(volumecheck::compareFolded(a, b)), "the folded order is wrong");
  FUZZ_CHECK(folded(a, b) == sign(support::compareNamesFolded(a, b)), "the folded order is wrong");
  FUZZ_CHECK(binary(a, b) == sign(volumecheck::compareBinary(a, b)), "the binary order is wrong");
  FUZZ_CHECK(folded(a, b) == -folded(b, a) && binary(a, b) == -binary(b, a),
             "an order depends on who asks");
  FUZZ_CHECK(folded(a, a) == 0 && binary(a, a) == 0, "a name comes not with itself");
}

template <typename Order>
void checkTransitive(const std::array<Name, 3>& names, Order order) {
  for (const Name& a : names) {
    for (const Name& b : names) {
      for (const Name& c : names) {
        FUZZ_CHECK(!(order(a, b) <= 0 && order(b, c) <= 0) || order(a, c) <= 0,
                   "an order that goes in circles");
      }
    }
  }
}

void checkDecomposition(const Name& name) {
  const Name decomposed = HFSPlusDecomposedName(name);
  FUZZ_CHECK(HFSPlusDecomposedName(decomposed) == decomposed, "not decomposed all the way");
  FUZZ_CHECK(volumecheck::isDecomposed(decomposed), "decomposed, but not for the checker");
  if (volumecheck::isDecomposed(name)) {
    FUZZ_CHECK(decomposed == name, "a decomposed name was changed");
  }
  const std::string text = LWUTF8FromUTF16(name);
  FUZZ_CHECK(LWIsUTF8(text), "a name became bytes that are no text");
  const auto units = LWUTF16FromUTF8(text);
  FUZZ_CHECK(units && LWUTF8FromUTF16(*units) == text, "text and units do not go round");
  FUZZ_CHECK(HFSPlusDecomposedName(*units) == support::storedName(text),
             "the builder stores this name in another way");
}

void checkText(const Name& name) {
  std::string expected = LWUTF8FromUTF16(name);
  std::ranges::replace(expected, '/', ':');
  const auto units = onDisk(name);
  FUZZ_CHECK(HFSPlusNameString(units) == expected, "a name reads wrong");
  std::string safe(HFSPlusOutputSafeNameMaxBytes(units), '\0');
  safe.resize(static_cast<size_t>(HFSPlusPutOutputSafeName(safe.data(), units) - safe.data()));
  FUZZ_CHECK(safe == outputSafeString(expected), "a name is printed wrong");
}

}  // namespace

/// Units of three names, big-endian, between them the unit 0xFFFF.
void runNames(Input input) {
  std::array<Name, 3> names;
  size_t current = 0;
  for (size_t i = 0; i + 1 < input.size(); i += 2) {
    const auto unit = static_cast<char16_t>(input[i] << 8 | input[i + 1]);
    if (unit == 0xFFFF && current + 1 < names.size()) {
      ++current;
    } else {
      names[current] += unit;
    }
  }
  for (const Name& a : names) {
    for (const Name& b : names) {
      checkOrder(a, b);
    }
    checkDecomposition(a);
    checkText(a);
  }
  checkTransitive(names, folded);
  checkTransitive(names, binary);
}

}  // namespace fuzz
