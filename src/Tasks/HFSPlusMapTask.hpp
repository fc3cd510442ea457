#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "HFSPlus/HFSPlusCatalogRecord.hpp"
#include "Tasks/HFSPlusReportLines.hpp"
#include "XRDefragTask.hpp"

class HFSPlusVolume;

/// MAP: one DIR or FILE line for each item that is named by its ID ("-i", "--cnid") or its path
/// ("-p", "--path"), with the item's full path and, for a file, what SCAN tells. The first item
/// that cannot be found ends the task; an unknown option is reported after the lines.
class HFSPlusMapTask : public XRDefragTask {
 public:
  /// The volume must outlive the task; the event's line holds the options.
  HFSPlusMapTask(HFSPlusVolume& volume, std::shared_ptr<LWToolEvent> event);

 protected:
  void runTask() override;

 private:
  Result<> _map();
  Result<> _mapPath(const std::string& path);
  Result<> _mapCNID(const std::string& word);
  Result<> _mapCatalogRecord(const HFSPlusCatalogRecord& record);
  Result<> _appendFile(const HFSPlusCatalogFile& file);

  HFSPlusVolume& _hfsPlusVolume;
  HFSPlusReportLines _lines;
};
