// The bytes of a strings file.

#include "FuzzTargets.hpp"
#include "LWKit/LWFormat.hpp"
#include "LWKit/LWUnicode.hpp"
#include "XRDefragPropertyListGuard.hpp"
#include "XRDefragStringsFile.hpp"

namespace fuzz {

void runStrings(Input input) {
  // The library is handed memory that ends where the file does.
  const std::string bytes(reinterpret_cast<const char*>(input.data()), input.size());
  const bool modest = XRDefragPropertyListGuard::isModestBinary(bytes) ||
                      XRDefragPropertyListGuard::isModestXML(bytes);
  const auto strings = XRDefragStringsFile::parse(bytes);
  FUZZ_CHECK(modest || !strings, "a list was taken that the guard refuses");
  if (strings) {
    for (const auto& [format, translation] : *strings) {
      FUZZ_CHECK(LWIsUTF8(translation), "a translation that is no text");
      // Every message may be translated by any text at all.
      static_cast<void>(LWFormat(translation, "text", 42U, int64_t{-1}));
    }
  }
}

}  // namespace fuzz
