#include <algorithm>
#include <cstdlib>
#include <map>
#include <span>
#include <unordered_map>

#include "support/VolumeCheckerNames.hpp"
#include "support/VolumeCheckerState.hpp"

namespace volumecheck {

namespace {

// The three kinds of items that hard links are made of.
struct LinkKind {
  RecordType target;
  std::u16string folder;        // at the root; holds what the links lead to
  std::string prefix;           // of the names in there, before the number
  std::uint32_t type, creator;  // of the files that are links
};

const LinkKind kLinkKinds[] = {
    {RecordType::File, std::u16string(4, u'\0') + u"HFS+ Private Data", "iNode", 0x686C6E6B,
     0x6866732B},  // 'hlnk', 'hfs+'
    {RecordType::Folder, u".HFS+ Private Directory Data\r", "dir_", 0x66647270,
     0x4D414353},  // 'fdrp', 'MACS'
};

bool isLink(const CatalogItem& item, const LinkKind& kind) {
  return item.type == RecordType::File && item.fileType == kind.type &&
         item.fileCreator == kind.creator;
}

// The targets in the private folder, by number.
std::map<std::uint32_t, std::size_t> targetsOf(const VolumeTruth& truth, const LinkKind& kind) {
  std::uint32_t folderID = 0;
  for (const CatalogItem& item : truth.items) {
    if (item.parentID == kRootFolderID && item.type == RecordType::Folder &&
        item.name == kind.folder) {
      folderID = item.cnid;
    }
  }
  std::map<std::uint32_t, std::size_t> targets;
  for (std::size_t i = 0; i < truth.items.size() && folderID != 0; ++i) {
    const CatalogItem& item = truth.items[i];
    const std::string name = displayName(item.name);
    if (item.parentID == folderID && item.type == kind.target && name.starts_with(kind.prefix)) {
      targets[static_cast<std::uint32_t>(
          std::strtoul(name.c_str() + kind.prefix.size(), nullptr, 10))] = i;
    }
  }
  return targets;
}

void checkEmptyForks(VolumeCheckerState& state, const CatalogItem& item,
                     const std::unordered_map<std::uint32_t, std::uint64_t>& bytesOf) {
  const auto bytes = bytesOf.find(item.cnid);
  if (bytes != bytesOf.end() && bytes->second != 0) {
    state.log.add(FindingKind::HardLinkFork, "The hard link %u has %llu bytes of its own.",
                  item.cnid, static_cast<unsigned long long>(bytes->second));
  }
}

}  // namespace

void checkHardLinks(VolumeCheckerState& state) {
  for (const LinkKind& kind : kLinkKinds) {
    auto& items = state.truth.items;
    const std::map<std::uint32_t, std::size_t> targets = targetsOf(state.truth, kind);
    std::map<std::uint32_t, std::uint32_t> linksTo;
    std::unordered_map<std::uint32_t, std::uint64_t> bytesOf;
    const bool anyLink = std::any_of(items.begin(), items.end(), [&kind](const CatalogItem& item) {
      return isLink(item, kind);
    });
    for (const Fork& fork :
         anyLink ? std::span<const Fork>(state.truth.forks) : std::span<const Fork>()) {
      // The resource fork of a folder link holds the alias record; only file links are bare.
      bytesOf[fork.cnid] +=
          kind.target == RecordType::File || fork.type == ForkType::Data ? fork.logicalSize : 0;
    }
    for (CatalogItem& item : items) {
      if (!isLink(item, kind)) {
        continue;
      }
      linksTo[item.special] += 1;
      checkEmptyForks(state, item, bytesOf);
      const auto target = targets.find(item.special);
      if (target == targets.end()) {
        state.log.add(FindingKind::HardLinkTarget,
                      "The hard link %u leads to %s%u, which is not there.", item.cnid,
                      kind.prefix.c_str(), item.special);
        continue;
      }
      item.linkTarget = items[target->second].cnid;
    }
    for (const auto& [number, index] : targets) {
      if (items[index].special != linksTo[number]) {
        state.log.add(FindingKind::HardLinkCount, "%s%u counts %u links, there are %u.",
                      kind.prefix.c_str(), number, items[index].special, linksTo[number]);
      }
    }
  }
}

}  // namespace volumecheck
