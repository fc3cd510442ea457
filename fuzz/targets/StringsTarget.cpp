// The bytes of a strings file.

#include "FuzzTargets.hpp"
#include "LWKit/LWFormat.hpp"
#include "LWKit/LWUnicode.hpp"
#include "XRDefragPropertyListGuard.hpp"
#include "XRDefragStringsFile.hpp"

namespace fuzz {

namespace {

/// What the guard says of a file, behind its byte order mark if it has one. UTF-16 is out of reach
/// here: the guard sees it as UTF-8.
bool isModest(std::string_view bytes) {
  constexpr std::string_view kUTF8Mark = "\xEF\xBB\xBF";
  if (bytes.starts_with("\xFE\xFF") || bytes.starts_with("\xFF\xFE")) {
    return true;
  }
  if (bytes.starts_with(kUTF8Mark)) {
    bytes.remove_prefix(kUTF8Mark.size());
    return XRDefragPropertyListGuard::isModestXML(bytes);
  }
  return XRDefragPropertyListGuard::isModestBinary(bytes) ||
         XRDefragPropertyListGuard::isModestXML(bytes);
}

}  // namespace

void runStrings(Input input) {
  // The library is handed memory that ends where the file does.
  const std::string bytes(reinterpret_cast<const char*>(input.data()), input.size());
  const auto strings = XRDefragStringsFile::parse(bytes);
  FUZZ_CHECK(isModest(bytes) || !strings, "a list was taken that the guard refuses");
  if (strings) {
    for (const auto& [format, translation] : *strings) {
      FUZZ_CHECK(LWIsUTF8(translation), "a translation that is no text");
      // Every message may be translated by any text at all.
      static_cast<void>(LWFormat(translation, "text", 42U, int64_t{-1}));
    }
  }
}

}  // namespace fuzz
