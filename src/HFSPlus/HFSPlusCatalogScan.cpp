#include "HFSPlus/HFSPlusCatalogScan.hpp"

#include <optional>

#include "HFSPlus/HFSPlusBTreeBulkIterator.hpp"
#include "HFSPlus/HFSPlusCatalog.hpp"
#include "HFSPlus/HFSPlusCatalogSurvey.hpp"
#include "LWKit/LWDebug.hpp"
#include "LWKit/LWStringUtilities.hpp"
#include "LWKit/LWToolTask.hpp"

namespace {

/// Nodes a used node from which on following the leaves beats reading the file from end to end.
constexpr double kSparseRatio = 5.0;

/// A task's thread says once how it scans, however often it does.
thread_local bool scanIsLogged = false;

Result<> continueUnlessAborted() {
  const LWToolTask* task = LWToolTask::currentToolTask();
  if (task != nullptr && task->aborted()) {
    return std::unexpected(XRDefragError::userCancelled());
  }
  return {};
}

Result<> showFiles(HFSPlusCatalog& catalog, const HFSPlusBTreeNode& leaf,
                   HFSPlusCatalogScanDelegate& delegate) {
  const bool remembersFolders = delegate.asksForPaths();
  const uint32_t count = leaf.recordCount();
  for (uint32_t index = 0; index < count; index++) {
    const auto record = HFSPlusCatalogRecordView::of(leaf.recordDataAtIndex(index));
    if (!record) {
      return std::unexpected(catalog.inconsistent());
    }
    if (remembersFolders && record->type() == kHFSPlusFolderThreadRecord) {
      catalog.places().add(record->key.parentID, {leaf.index(), index});
    }
    if (record->type() != kHFSPlusFileRecord) {
      continue;
    }
    const auto* file = record->file();
    if (file == nullptr) {
      return std::unexpected(catalog.inconsistent());
    }
    TRY(delegate.scanCatalogFile(*file, record->key));
  }
  return {};
}

Result<> scanBulk(HFSPlusCatalog& catalog, HFSPlusCatalogScanDelegate& delegate) {
  const auto iterator = TRY(HFSPlusBTreeBulkIterator::open(catalog));
  const auto misses = [&](uint32_t leaf) {
    return leaf != 0 && delegate.needsEveryFile() && !iterator->visits(leaf);
  };
  if (misses(catalog.firstLeafNode())) {
    return std::unexpected(catalog.inconsistent());
  }
  std::optional<HFSPlusCatalogSurvey> survey;
  if (delegate.looksFilesUp() && !catalog.places().isComplete()) {
    survey.emplace(catalog);
  }
  for (;;) {
    TRY(continueUnlessAborted());
    const auto node = TRY(iterator->nextCachedNode());
    if (!node) {
      if (survey) {
        survey->finish();
      }
      return {};
    }
    if (survey) {
      survey->addNode(*node);
    }
    if (node->kind() == kBTLeafNode) {
      if (misses(node->fLink())) {
        return std::unexpected(catalog.inconsistent());
      }
      TRY(showFiles(catalog, *node, delegate));
    }
  }
}

Result<> scanSparse(HFSPlusCatalog& catalog, HFSPlusCatalogScanDelegate& delegate) {
  uint32_t next = catalog.firstLeafNode();
  for (uint32_t nodes = 0; next != 0; nodes++) {
    TRY(continueUnlessAborted());
    const auto node = TRY(catalog.cachedNodeWithIndex(next));
    // A chain that is longer than the file bites its tail.
    if (node->kind() != kBTLeafNode || nodes == catalog.nodeCount()) {
      return std::unexpected(catalog.inconsistent());
    }
    next = node->fLink();
    TRY(showFiles(catalog, *node, delegate));
  }
  return {};
}

double nodesPerUsedNode(uint32_t nodeCount, uint32_t freeNodes) {
  return static_cast<double>(nodeCount) / static_cast<double>(int64_t{nodeCount} - freeNodes);
}

void logScan(const HFSPlusCatalog& catalog, HFSPlusCatalogScanMethod method) {
  const LWToolTask* task = LWToolTask::currentToolTask();
  const std::string name = task != nullptr ? task->name() : std::string();
  LWDebugLog(LWDebugLevel::Debug, "%@,DEBUG,Catalog total vs used node ratio is %.1f\n", name,
             nodesPerUsedNode(catalog.nodeCount(), catalog.freeNodes()));
  LWDebugLog(LWDebugLevel::Debug, "%@,DEBUG,Catalog cache size is %s\n", name,
             LWPrettySize(catalog.nodeCacheSize()));
  LWDebugLog(LWDebugLevel::Debug, "%@,DEBUG,Catalog file size is %s\n", name,
             LWPrettySize(catalog.logicalSize()));
  LWDebugLog(LWDebugLevel::Debug, "%@,DEBUG,Catalog scan using %s method\n", name,
             method == HFSPlusCatalogScanMethod::Bulk ? "bulk" : "sparse");
}

}  // namespace

HFSPlusCatalogScanMethod HFSPlusCatalogScanMethodFor(uint32_t nodeCount, uint32_t freeNodes) {
  // Without any nodes the ratio is no number, and no greater than anything.
  return nodesPerUsedNode(nodeCount, freeNodes) <= kSparseRatio ? HFSPlusCatalogScanMethod::Bulk
                                                                : HFSPlusCatalogScanMethod::Sparse;
}

Result<> HFSPlusScanCatalogFiles(HFSPlusCatalog& catalog, HFSPlusCatalogScanDelegate& delegate) {
  const auto method = HFSPlusCatalogScanMethodFor(catalog.nodeCount(), catalog.freeNodes());
  if (!scanIsLogged) {
    logScan(catalog, method);
  }
  delegate.scanCatalogFilesWillStart();
  auto outcome = method == HFSPlusCatalogScanMethod::Bulk ? scanBulk(catalog, delegate)
                                                          : scanSparse(catalog, delegate);
  delegate.scanCatalogFilesDidFinish();
  scanIsLogged = true;
  return outcome;
}
