#include "XRDefragStringsFile.hpp"

#include <plist/plist.h>

#include <bit>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <utility>

#include "LWKit/LWUnicode.hpp"
#include "Platform/PlatformFile.hpp"
#include "XRDefragPropertyListGuard.hpp"

namespace {

struct NodeDeleter {
  void operator()(void* node) const { plist_free(node); }
};
using Node = std::unique_ptr<void, NodeDeleter>;

struct FreeDeleter {
  void operator()(void* memory) const { std::free(memory); }
};
template <typename T>
using Allocated = std::unique_ptr<T, FreeDeleter>;

/// UTF-16 as UTF-8; none for half a unit or half a character.
std::optional<std::string> fromUTF16(std::string_view bytes, std::endian order) {
  if (bytes.size() % 2 != 0) {
    return std::nullopt;
  }
  std::u16string units;
  units.reserve(bytes.size() / 2);
  for (size_t index = 0; index < bytes.size(); index += 2) {
    const auto first = static_cast<uint8_t>(bytes[index]);
    const auto second = static_cast<uint8_t>(bytes[index + 1]);
    units += static_cast<char16_t>(order == std::endian::big ? first << 8 | second
                                                             : second << 8 | first);
  }
  std::string text = LWUTF8FromUTF16(units);
  const bool isWhole = LWUTF16FromUTF8(text) == units;
  return isWhole ? std::optional(std::move(text)) : std::nullopt;
}

/// The text of an XML file in UTF-8, which is all that the library reads. A byte order mark tells
/// of another encoding.
std::optional<std::string> textInUTF8(std::string_view bytes) {
  constexpr std::string_view kUTF8Mark = "\xEF\xBB\xBF";
  if (bytes.starts_with("\xFE\xFF")) {
    return fromUTF16(bytes.substr(2), std::endian::big);
  }
  if (bytes.starts_with("\xFF\xFE")) {
    return fromUTF16(bytes.substr(2), std::endian::little);
  }
  if (bytes.starts_with(kUTF8Mark)) {
    bytes.remove_prefix(kUTF8Mark.size());
  }
  return LWIsUTF8(bytes) ? std::optional(std::string(bytes)) : std::nullopt;
}

Node parsePropertyList(std::string_view bytes) {
  plist_t root = nullptr;
  if (XRDefragPropertyListGuard::isModestBinary(bytes)) {
    plist_from_bin(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
  } else if (const auto xml = textInUTF8(bytes);
             xml && XRDefragPropertyListGuard::isModestXML(*xml)) {
    plist_from_xml(xml->data(), static_cast<uint32_t>(xml->size()), &root);
  }
  return Node(root);
}

}  // namespace

std::optional<LWStringTable::Map> XRDefragStringsFile::read(const std::string& path) {
  const auto bytes = PlatformFile::readAll(path, kSizeLimit);
  return bytes ? parse(*bytes) : std::nullopt;
}

std::optional<LWStringTable::Map> XRDefragStringsFile::parse(std::string_view bytes) {
  if (bytes.size() > kSizeLimit) {
    return std::nullopt;
  }
  const Node root = parsePropertyList(bytes);
  if (!root || plist_get_node_type(root.get()) != PLIST_DICT) {
    return std::nullopt;
  }
  plist_dict_iter rawIterator = nullptr;
  plist_dict_new_iter(root.get(), &rawIterator);
  const Allocated<void> iterator(rawIterator);
  LWStringTable::Map strings;
  for (;;) {
    char* rawKey = nullptr;
    plist_t value = nullptr;
    plist_dict_next_item(root.get(), iterator.get(), &rawKey, &value);
    const Allocated<char> key(rawKey);
    if (value == nullptr) {
      return strings;
    }
    const bool isText = key && plist_get_node_type(value) == PLIST_STRING;
    const char* text = isText ? plist_get_string_ptr(value, nullptr) : nullptr;
    if (text != nullptr && LWIsUTF8(text)) {
      strings.insert_or_assign(key.get(), text);
    }
  }
}
