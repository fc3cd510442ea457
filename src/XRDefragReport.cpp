#include "XRDefragReport.hpp"

XRDefragReport& XRDefragReport::shared() {
  static XRDefragReport report(stdout);
  return report;
}

void XRDefragReport::print(std::string_view line) {
  static_cast<void>(std::fwrite(line.data(), 1, line.size(), _stream));
}

void XRDefragReport::printAndFlush(std::string_view line) {
  ::flockfile(_stream);
  print(line);
  std::fflush(_stream);
  ::funlockfile(_stream);
}

std::string outputSafeString(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (const char character : text) {
    switch (character) {
      case '\\':
        result += "\\\\";
        break;
      case ',':
        result += "\\,";
        break;
      case '\0':
        result += "\\xC0\\x80";
        break;
      default:
        result += character;
    }
  }
  return result;
}
