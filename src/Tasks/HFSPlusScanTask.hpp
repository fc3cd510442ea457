#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "HFSPlus/HFSPlusCatalogScan.hpp"
#include "Tasks/HFSPlusReportLines.hpp"
#include "XRDefragTask.hpp"

class HFSPlusVolume;

/// SCAN: one FILE line for every file of the volume, with its IDs, name, dates, type, creator and
/// all extents of both forks; only the fragmented files with "--frag-only", full paths with
/// "--full-paths" or "-f". An unknown option is reported after the lines.
class HFSPlusScanTask : public XRDefragTask, private HFSPlusCatalogScanDelegate {
 public:
  /// The volume must outlive the task; the event's line holds the options.
  HFSPlusScanTask(HFSPlusVolume& volume, std::shared_ptr<LWToolEvent> event);

 protected:
  void runTask() override;

 private:
  Result<> _parseOptions();
  Result<> _beginFolder(uint32_t folderID, uint32_t fileID);
  void _countFile();
  void _passOnProgress(int32_t percent);

  void scanCatalogFilesWillStart() override;
  bool asksForPaths() const override { return _fullPaths; }
  Result<> scanCatalogFile(const DiskOrder<HFSPlusCatalogFile>& file,
                           const HFSPlusCatalogKeyView& key) override;
  void scanCatalogFilesDidFinish() override;

  HFSPlusVolume& _hfsPlusVolume;
  bool _fullPaths = false;
  bool _fragOnly = false;
  HFSPlusReportLines _lines;
  double _fileCount = 0;  // what the volume header says
  double _fileIndex = 0;  // files listed so far
  int32_t _progress = 0;  // the last percentage passed on
  // What the lines of one folder's files have in common: they follow each other.
  std::optional<uint32_t> _lastParentID;
  std::string _lineStart;
  std::string _pathStart;  // escaped, with the slash in front of the name; empty without paths
};
