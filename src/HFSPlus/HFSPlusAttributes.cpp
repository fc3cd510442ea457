#include "HFSPlus/HFSPlusAttributes.hpp"

#include <compare>

#include "HFSPlus/HFSPlusNameCompare.hpp"
#include "LWKit/LWDebug.hpp"
#include "LWKit/LWStringUtilities.hpp"

namespace {

int32_t sign(std::strong_ordering order) {
  return order < 0 ? -1 : (order > 0 ? 1 : 0);
}

}  // namespace

Result<std::unique_ptr<HFSPlusAttributes>> HFSPlusAttributes::open(HFSPlusVolumeAccess& volume) {
  std::unique_ptr<HFSPlusAttributes> attributes(new HFSPlusAttributes(volume));
  TRY(attributes->openBTree());
  LWDebugLog(LWDebugLevel::Info, "Attributes size     = %@ (node size = %@, total nodes = %lu)\n",
             LWPrettySize(uint64_t{attributes->nodeCount()} * attributes->nodeSize()),
             LWPrettySize(attributes->nodeSize()), attributes->nodeCount());
  LWDebugLog(LWDebugLevel::Info,
             "Attributes root node = %lu (first leaf node = %lu, last leaf node = %lu)\n",
             attributes->rootNode(), attributes->firstLeafNode(), attributes->lastLeafNode());
  return attributes;
}

int32_t HFSPlusAttributes::compare(const HFSPlusAttrKeyView& a, const HFSPlusAttrKeyView& b) {
  if (a.fileID != b.fileID) {
    return sign(a.fileID <=> b.fileID);
  }
  if (const int32_t names = HFSPlusCompareNamesFolded(a.nameUnits, b.nameUnits); names != 0) {
    return names;
  }
  return sign(a.startBlock <=> b.startBlock);
}

XRDefragError HFSPlusAttributes::inconsistent() const {
  return XRDefragError::localized("Attributes file is inconsistent.");
}
