#include "report/Html.hpp"

#include "base/Text.hpp"

namespace view {

std::string html(std::string_view text) {
  std::string escaped;
  for (const char byte : visibleText(text)) {
    switch (byte) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      case '\'':
        escaped += "&#39;";
        break;
      default:
        escaped += byte;
        break;
    }
  }
  return escaped;
}

}  // namespace view
