#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "HFSPlus/HFSPlusByteOrder.hpp"
#include "HFSPlus/HFSPlusFormat.hpp"
#include "LWKit/LWTextBuffer.hpp"
#include "XRDefragError.hpp"

class HFSPlusExtents;
class XRDefragReport;

/// Report lines about files and folders, put together in one buffer that is handed to the report
/// many whole lines at a time: a million lines cost neither a million locks nor a million calls.
///
/// Lines handed over leave the process with the next flushed line; handOver() before anything whose
/// place after these lines matters. Used by one thread.
class HFSPlusReportLines {
 public:
  /// What follows the name of a file in its line, with the dates as they are on disk.
  struct FileInfo {
    uint32_t createDate;
    uint32_t contentModDate;
    uint32_t accessDate;
    uint32_t fdType;
    uint32_t fdCreator;
  };
  /// How dates are printed: seconds before 1970 or after 2038 keep their value or wrap around.
  enum class DateWidth { Bits32, Bits64 };

  explicit HFSPlusReportLines(XRDefragReport& report);
  HFSPlusReportLines(const HFSPlusReportLines&) = delete;
  HFSPlusReportLines& operator=(const HFSPlusReportLines&) = delete;
  ~HFSPlusReportLines() { handOver(); }

  /// What the lines of one folder's items begin with: "TASK,KIND,parent".
  [[nodiscard]] static std::string lineStart(std::string_view taskName, std::string_view kind,
                                             uint32_t parentID);
  /// Begins a line: the start, and ",item,".
  void beginLine(std::string_view start, uint32_t itemID);
  /// Appends text as it is; the caller has escaped it.
  void appendText(std::string_view text) { _text.append(text); }
  /// Appends a name from disk (big-endian units), escaped.
  void appendName(std::span<const std::byte> nameUnits);
  /// Appends ",date,date,date,type,creator".
  void appendFileInfo(const FileInfo& info, DateWidth width);
  /// Appends ",start,count" for every extent of a fork, in host or disk order, in the fork's order.
  /// An error of the overflow file leaves the line with what was found until then.
  template <typename Fork>
  [[nodiscard]] Result<> appendForkExtents(HFSPlusExtents& extents, const Fork& fork,
                                           uint32_t fileID, uint8_t forkType);
  /// appendForkExtents() for the data and then the resource fork of a file record in disk order.
  [[nodiscard]] Result<> appendForksOfFile(HFSPlusExtents& extents,
                                           const DiskOrder<HFSPlusCatalogFile>& file,
                                           uint32_t fileID);
  /// Ends the line, whatever it holds.
  void endLine();

  /// Hands every ended line to the report.
  void handOver();

 private:
  XRDefragReport& _report;
  LWTextBuffer _text;
};
