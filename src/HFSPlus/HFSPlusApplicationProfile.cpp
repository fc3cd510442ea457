#include "HFSPlus/HFSPlusApplicationProfile.hpp"

#include <unordered_set>
#include <vector>

#include "HFSPlus/HFSPlusByteOrder.hpp"
#include "HFSPlus/HFSPlusCatalog.hpp"

namespace {

constexpr std::string_view kApplicationsPath = "/Applications";

/// Takes a folder's children: its files' forks into the set, its sub-folders into a list.
class FolderVisitor final : public HFSPlusFolderDelegate {
 public:
  explicit FolderVisitor(HFSPlusFileForkSet& fileForks) : _fileForks(fileForks) {}

  Result<> iterateFolderFolder(const DiskOrder<HFSPlusCatalogFolder>& record,
                               const HFSPlusCatalogKeyView&) override {
    _folderIDs.push_back(toHost(record).folderID);
    return {};
  }

  Result<> iterateFolderFile(const DiskOrder<HFSPlusCatalogFile>& record,
                             const HFSPlusCatalogKeyView&) override {
    const HFSPlusCatalogFile file = toHost(record);
    if (file.dataFork.logicalSize != 0) {
      _fileForks.add(file.fileID, kHFSDataForkType);
    }
    if (file.resourceFork.logicalSize != 0) {
      _fileForks.add(file.fileID, kHFSResourceForkType);
    }
    return {};
  }

  /// The sub-folders seen since the last call, in catalog order.
  std::vector<uint32_t> takeFolderIDs() { return std::exchange(_folderIDs, {}); }

 private:
  HFSPlusFileForkSet& _fileForks;
  std::vector<uint32_t> _folderIDs;
};

}  // namespace

Result<HFSPlusProfile> HFSPlusApplicationProfile::addFileForks(HFSPlusCatalog& catalog,
                                                               HFSPlusFileForkSet& fileForks) {
  const HFSPlusCatalogRecord record = TRY(catalog.copyRecordForPath(kApplicationsPath));
  if (record.type != kHFSPlusFolderRecord) {
    return HFSPlusProfile::Absent;
  }
  FolderVisitor visitor(fileForks);
  std::vector<uint32_t> waiting = {record.folder().folderID};  // the next one last
  std::unordered_set<uint32_t> visited;
  while (!waiting.empty()) {
    const uint32_t folderID = waiting.back();
    waiting.pop_back();
    if (!visited.insert(folderID).second) {
      return std::unexpected(XRDefragError::localized("Catalog file is inconsistent."));
    }
    TRY(catalog.iterateFolderID(folderID, visitor));
    const std::vector<uint32_t> children = visitor.takeFolderIDs();
    waiting.insert(waiting.end(), children.rbegin(), children.rend());
  }
  return HFSPlusProfile::Added;
}
