#include "XRDefragStringsFile.hpp"

#include <plist/plist.h>

#include <cstdint>
#include <cstdlib>
#include <memory>

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

Node parsePropertyList(std::string_view bytes) {
  plist_t root = nullptr;
  const auto size = static_cast<uint32_t>(bytes.size());
  if (XRDefragPropertyListGuard::isModestBinary(bytes)) {
    plist_from_bin(bytes.data(), size, &root);
  } else if (XRDefragPropertyListGuard::isModestXML(bytes) && LWIsUTF8(bytes)) {
    plist_from_xml(bytes.data(), size, &root);
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
