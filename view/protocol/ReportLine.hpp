#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace view {

/// The fields of a report line: split at the commas that no backslash protects, with the escapes
/// undone. A backslash that begins no known escape stands for itself.
std::vector<std::string> splitReportLine(std::string_view line);

/// The same into fields that are there already, for lines that come by the million.
void splitReportLine(std::string_view line, std::vector<std::string>& fields);

/// A run of consecutive allocation blocks.
struct BlockRun {
  uint64_t start;
  uint64_t count;
  friend bool operator==(const BlockRun&, const BlockRun&) = default;
};

/// A FILE line: one file and where it lies.
struct FileLine {
  uint64_t parentID = 0;
  uint64_t fileID = 0;
  std::string name;      // as the volume has it: any bytes at all
  int64_t modified = 0;  // seconds since 1970, UTC
  std::vector<BlockRun> extents;
};

/// Reads the fields of a FILE line, which begins with the task's name. False when they are none: a
/// name with a newline in it tears its line apart, and the first part alone is not a FILE line yet.
bool parseFileLine(const std::vector<std::string>& fields, FileLine& file);

/// One copy of a rewriting task, from its PROGRESS line.
struct BlockMove {
  uint64_t from;
  uint64_t to;
  uint64_t count;
  friend bool operator==(const BlockMove&, const BlockMove&) = default;
};

/// What a PROGRESS line says. It need not ever say 100.
struct ProgressLine {
  int percent;
  std::optional<BlockMove> move;  // rewriting tasks name each copy
};

/// Reads the fields of a PROGRESS line; nothing when they are none.
std::optional<ProgressLine> parseProgressLine(const std::vector<std::string>& fields);

}  // namespace view
