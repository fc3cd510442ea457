#pragma once

#include "HFSPlus/HFSPlusCatalogRecord.hpp"
#include "XRDefragError.hpp"

class HFSPlusCatalog;

/// Who is shown every file of a volume.
class HFSPlusCatalogScanDelegate {
 public:
  virtual ~HFSPlusCatalogScanDelegate() = default;

  /// Once, before the first file.
  virtual void scanCatalogFilesWillStart() {}
  /// Whether a file that the scan would miss makes the catalog inconsistent: one whose node the
  /// chain of leaves leads to although the tree's map calls it unused.
  [[nodiscard]] virtual bool needsEveryFile() const { return false; }
  /// Whether the delegate asks the catalog for the paths of what it is shown: the scan then leaves
  /// a mark at every folder it comes by.
  [[nodiscard]] virtual bool asksForPaths() const { return false; }
  /// Whether the files are looked up by ID afterwards: the first scan then surveys where they are.
  [[nodiscard]] virtual bool looksFilesUp() const { return false; }
  /// Once a file record. Both arguments lie in the node, in disk order, and are gone afterwards. An
  /// error stops the scan and is its error.
  [[nodiscard]] virtual Result<> scanCatalogFile(const DiskOrder<HFSPlusCatalogFile>& file,
                                                 const HFSPlusCatalogKeyView& key) = 0;
  /// Once at the end, also after a failure or a cancellation.
  virtual void scanCatalogFilesDidFinish() {}
};

/// The two ways through a catalog: all its nodes in the order in which they lie on disk, which
/// reads the device from end to end, or the chain of leaves, which reads no free nodes.
enum class HFSPlusCatalogScanMethod { Bulk, Sparse };

/// The better way through a catalog of `nodeCount` nodes: the leaves once more than four in five
/// nodes are free.
[[nodiscard]] HFSPlusCatalogScanMethod HFSPlusCatalogScanMethodFor(uint32_t nodeCount,
                                                                   uint32_t freeNodes);

/// Shows every file record of the catalog to the delegate, once each: in the order of the nodes on
/// disk, or along the chain of leaves when most of the catalog's nodes are free. Stops within one
/// node after the calling task is aborted, as cancelled by the user. Errors of reading nodes, of
/// the delegate, and "Catalog file is inconsistent.".
[[nodiscard]] Result<> HFSPlusScanCatalogFiles(HFSPlusCatalog& catalog,
                                               HFSPlusCatalogScanDelegate& delegate);
