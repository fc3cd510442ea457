#include "support/HotFilesTree.hpp"

#include <algorithm>
#include <tuple>

#include "support/BTreeWriter.hpp"

namespace support {

namespace {

constexpr uint32_t kNodeSize = 512;
constexpr uint16_t kKeyLength = 10;
constexpr size_t kKeySize = 2 + kKeyLength;
constexpr uint32_t kThreadTemperature = 0xFFFFFFFF;
constexpr uint32_t kFreeNodes = 8;

class HotFileRecords : public RecordSource {
 public:
  explicit HotFileRecords(const std::vector<HotFile>& hotFiles) {
    for (const HotFile& hot : hotFiles) {
      _records.push_back({hot, hot.fileID});
      _records.push_back({{hot.fileID, hot.forkType, kThreadTemperature}, hot.temperature});
    }
    std::ranges::sort(_records, {}, [](const Record& record) {
      return std::tuple(record.key.temperature, record.key.fileID, record.key.forkType);
    });
  }

  size_t count() const override { return _records.size(); }
  size_t keySize(size_t) const override { return kKeySize; }
  size_t recordSize(size_t) const override { return kKeySize + sizeof(uint32_t); }

  void write(size_t index, std::span<std::byte> into) const override {
    const Record& record = _records[index];
    ByteWriter(into)
        .u16(kKeyLength)
        .u8(record.key.forkType)
        .u8(0)
        .u32(record.key.temperature)
        .u32(record.key.fileID)
        .u32(record.data);
  }

 private:
  struct Record {
    HotFile key;
    uint32_t data;
  };
  std::vector<Record> _records;
};

Bytes userRecord(size_t hotFiles) {
  Bytes record(kUserRecordSize);
  ByteWriter(record)
      .u32(0xFF28FF26)
      .u32(1)
      .u32(60 * 60 * 24)                     // duration
      .u32(0x50000000)                       // time base
      .u32(0)                                // time left
      .u32(1)                                // threshold
      .u32(2560)                             // largest file in blocks
      .u32(static_cast<uint32_t>(hotFiles))  // number of files
      .bytes(std::as_bytes(std::span("CLUSTERED HOT FILES B-TREE     ", 31)));
  return record;
}

}  // namespace

Bytes hotFilesTree(const std::vector<HotFile>& hotFiles) {
  const HotFileRecords records(hotFiles);
  TreeKind kind;
  kind.nodeSize = kNodeSize;
  kind.maxKeyLength = kKeyLength;
  kind.btreeType = kUserTree;
  kind.clumpSize = kNodeSize;
  kind.userRecord = userRecord(hotFiles.size());
  const BTreeWriter writer(records, kind);
  const uint32_t totalNodes = writer.totalNodesFor(1 + writer.usedNodes() + kFreeNodes, kNodeSize);
  Bytes tree(size_t{totalNodes} * kNodeSize);
  writer.write(totalNodes, [&](uint32_t node, std::span<const std::byte> bytes) {
    std::ranges::copy(bytes, tree.begin() + static_cast<std::ptrdiff_t>(size_t{node} * kNodeSize));
  });
  return tree;
}

}  // namespace support
