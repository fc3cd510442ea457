#include <map>
#include <tuple>

#include "support/VolumeCheckerTree.hpp"

namespace volumecheck {

namespace {

constexpr std::uint16_t kHotFileKeyLength = 10;
constexpr std::uint8_t kUserTree = 128;
constexpr std::uint32_t kThreadTemperature = 0xFFFFFFFF;
constexpr std::uint32_t kHotFilesMagic = 0xFF28FF26;
constexpr std::uint32_t kHotFilesVersion = 1;

auto keyOrder(Bytes key) {
  return std::tuple(u32At(key, 4), u32At(key, 8), u8At(key, 2));
}

using ForkKey = std::pair<std::uint32_t, std::uint8_t>;

struct HotFileRecords {
  std::multimap<ForkKey, std::uint32_t> temperatures;  // of the records by temperature
  std::map<ForkKey, std::uint32_t> threads;            // temperatures as the threads tell them
};

void readRecord(VolumeCheckerState& state, HotFileRecords& records, Bytes key, Bytes data) {
  const std::uint8_t type = u8At(key, 2);
  const std::uint32_t temperature = u32At(key, 4);
  const ForkKey fork{u32At(key, 8), type};
  if (data.size() != 4 || (type != 0x00 && type != 0xFF) || u8At(key, 3) != 0) {
    state.log.add(FindingKind::HotFiles,
                  "A hot file record of file %u has fork type 0x%02X and %zu bytes.", fork.first,
                  type, data.size());
  }
  if (temperature == kThreadTemperature) {
    records.threads[fork] = u32At(data, 0);
  } else {
    records.temperatures.emplace(fork, temperature);
  }
}

void matchRecords(VolumeCheckerState& state, const HotFileRecords& records) {
  for (const auto& [fork, temperature] : records.temperatures) {
    const auto thread = records.threads.find(fork);
    if (thread == records.threads.end() || thread->second != temperature) {
      state.log.add(FindingKind::HotFiles,
                    "The hot file record of file %u at temperature %u has no thread record.",
                    fork.first, temperature);
    }
  }
  for (const auto& [fork, temperature] : records.threads) {
    if (!records.temperatures.contains(fork)) {
      state.log.add(FindingKind::HotFiles,
                    "The hot file thread record of file %u has no record at temperature %u.",
                    fork.first, temperature);
    }
  }
}

}  // namespace

void checkHotFiles(VolumeCheckerState& state) {
  const CatalogItem* item = state.truth.findItem("/.hotfiles.btree");
  if (item == nullptr || item->type != RecordType::File) {
    return;
  }
  const Fork* fork = state.truth.findFork(item->cnid, ForkType::Data);
  if (fork == nullptr || !fork->sound || fork->logicalSize == 0) {
    return;
  }
  TreeRules rules;
  rules.name = "hot files tree";
  rules.maxKeyLength = kHotFileKeyLength;
  rules.minKeyLength = kHotFileKeyLength;
  rules.btreeType = kUserTree;
  rules.compare = [](Bytes left, Bytes right) {
    return keyOrder(left) == keyOrder(right) ? 0 : (keyOrder(left) < keyOrder(right) ? -1 : 1);
  };
  VolumeCheckerTree tree(state, *fork, rules);
  if (!tree.open()) {
    return;
  }
  if (u32At(tree.userData(), 0) != kHotFilesMagic ||
      u32At(tree.userData(), 4) != kHotFilesVersion) {
    state.log.add(FindingKind::HotFiles, "The hot files tree has magic 0x%08X, version %u.",
                  u32At(tree.userData(), 0), u32At(tree.userData(), 4));
  }
  HotFileRecords records;
  tree.walk([&](Bytes key, Bytes data, std::uint32_t) { readRecord(state, records, key, data); });
  matchRecords(state, records);
}

}  // namespace volumecheck
