#include "LWKit/LWStringTable.hpp"

LWStringTable& LWStringTable::sharedTable() {
  static LWStringTable table;
  return table;
}

std::string LWStringTable::localizedStringForKey(std::string_view key) const {
  const auto found = _strings.find(key);
  return found == _strings.end() ? std::string(key) : found->second;
}
