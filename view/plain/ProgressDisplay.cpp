#include "plain/ProgressDisplay.hpp"

#include <unistd.h>

#include "base/Text.hpp"

namespace view {

ProgressDisplay::ProgressDisplay(std::FILE* stream)
    : _stream(stream), _inPlace(::isatty(::fileno(stream)) == 1) {}

void ProgressDisplay::show(const std::string& stage, int percent, const std::string& details) {
  constexpr size_t kColumns = 79;
  const std::string line =
      stage + ": " + std::to_string(percent) + " %" + (details.empty() ? "" : ", " + details);
  if (_inPlace) {
    std::fprintf(_stream, "\r\033[K%s", fitEnd(line, kColumns).c_str());
    std::fflush(_stream);
    _shown = true;
    return;
  }
  if (stage != _stage || percent / 10 != _tens) {
    _stage = stage;
    _tens = percent / 10;
    std::fprintf(_stream, "%s\n", line.c_str());
    std::fflush(_stream);
  }
}

void ProgressDisplay::clear() {
  if (_shown) {
    std::fputs("\r\033[K", _stream);
    std::fflush(_stream);
    _shown = false;
  }
}

}  // namespace view
