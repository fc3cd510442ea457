#include <algorithm>
#include <tuple>

#include "support/VolumeCheckerTree.hpp"

namespace volumecheck {

namespace {

constexpr std::uint16_t kExtentKeyLength = 10;
constexpr std::size_t kExtentRecordSize = 64;

auto keyOrder(Bytes key) {
  return std::tuple(u32At(key, 4), u8At(key, 2), u32At(key, 8));
}

int compareKeys(Bytes left, Bytes right) {
  return keyOrder(left) == keyOrder(right) ? 0 : (keyOrder(left) < keyOrder(right) ? -1 : 1);
}

void readRecord(VolumeCheckerState& state, Bytes key, Bytes data, std::uint32_t node) {
  const std::uint8_t type = u8At(key, 2);
  const std::uint32_t fileID = u32At(key, 4);
  if (u8At(key, 3) != 0 || (type != 0x00 && type != 0xFF)) {
    state.log.add(FindingKind::OverflowKey,
                  "An overflow record of file %u has fork type 0x%02X and pad byte 0x%02X.", fileID,
                  type, u8At(key, 3));
  }
  if (data.size() != kExtentRecordSize) {
    state.log.add(FindingKind::TreeRecordSize,
                  "An overflow record of file %u has %zu bytes instead of %zu.", fileID,
                  data.size(), kExtentRecordSize);
    return;
  }
  OverflowRecord record;
  record.fileID = fileID;
  record.type = static_cast<ForkType>(type);
  record.startBlock = u32At(key, 8);
  record.node = node;
  for (std::size_t i = 0; i < 8; ++i) {
    record.extents[i] = {u32At(data, 8 * i), u32At(data, 8 * i + 4)};
  }
  if (record.extents[0].blockCount == 0) {
    state.log.add(FindingKind::OverflowEmptyRecord,
                  "The overflow record for block %u of the %s is empty.", record.startBlock,
                  describeFork(fileID, record.type).c_str());
  }
  state.overflow.push_back(record);
}

}  // namespace

void checkExtentsTree(VolumeCheckerState& state) {
  // Its own extents all fit into the header: there is no overflow of the overflow file.
  Fork fork = resolveFork(state, kExtentsFileID, ForkType::Data, state.truth.header.extentsFile);
  fork.path = "(HFS+ Extents File)";
  if (fork.sound) {
    TreeRules rules;
    rules.name = "extents file";
    rules.maxKeyLength = kExtentKeyLength;
    rules.minKeyLength = kExtentKeyLength;
    rules.compare = compareKeys;
    VolumeCheckerTree tree(state, fork, rules);
    if (tree.open()) {
      tree.walk([&state](Bytes key, Bytes data, std::uint32_t node) {
        readRecord(state, key, data, node);
      });
      state.truth.extentsTree = tree.truth();
    }
  }
  state.truth.forks.push_back(std::move(fork));
  std::stable_sort(state.overflow.begin(), state.overflow.end(), [](const auto& a, const auto& b) {
    return std::tuple(a.fileID, static_cast<std::uint8_t>(a.type), a.startBlock) <
           std::tuple(b.fileID, static_cast<std::uint8_t>(b.type), b.startBlock);
  });
}

}  // namespace volumecheck
