#include "protocol/ReportLine.hpp"

#include "base/Text.hpp"

namespace view {

namespace {

constexpr std::string_view kEscapedNUL = "xC0\\x80";

// Where the fields of a FILE line stand.
constexpr size_t kParent = 2;
constexpr size_t kID = 3;
constexpr size_t kName = 4;
constexpr size_t kModified = 6;
constexpr size_t kTypeField = 8;
constexpr size_t kCreator = 9;
constexpr size_t kFirstExtent = 10;

bool isFourCharacterCode(std::string_view text) {
  return text.size() == 8 && text.find_first_not_of("0123456789ABCDEF") == std::string_view::npos;
}

}  // namespace

void splitReportLine(std::string_view line, std::vector<std::string>& fields) {
  size_t count = 0;
  const auto nextField = [&]() -> std::string& {
    if (count == fields.size()) {
      fields.emplace_back();
    }
    fields[count].clear();
    return fields[count++];
  };
  std::string* field = &nextField();
  for (size_t place = 0; place < line.size(); ++place) {
    const char byte = line[place];
    const std::string_view rest = line.substr(place + 1);
    if (byte == ',') {
      field = &nextField();
    } else if (byte == '\\' && rest.starts_with(kEscapedNUL)) {
      field->push_back('\0');
      place += kEscapedNUL.size();
    } else if (byte == '\\' && !rest.empty() && (rest.front() == '\\' || rest.front() == ',')) {
      field->push_back(rest.front());
      ++place;
    } else {
      field->push_back(byte);
    }
  }
  fields.resize(count);
}

std::vector<std::string> splitReportLine(std::string_view line) {
  std::vector<std::string> fields;
  splitReportLine(line, fields);
  return fields;
}

bool parseFileLine(const std::vector<std::string>& fields, FileLine& file) {
  int64_t date = 0;
  const bool sound =
      fields.size() >= kFirstExtent && fields.size() % 2 == 0 &&
      parseNumber(fields[kParent], file.parentID) && parseNumber(fields[kID], file.fileID) &&
      parseNumber(fields[kName + 1], date) && parseNumber(fields[kModified], file.modified) &&
      parseNumber(fields[kModified + 1], date) && isFourCharacterCode(fields[kTypeField]) &&
      isFourCharacterCode(fields[kCreator]);
  if (!sound) {
    return false;
  }
  file.name = fields[kName];
  file.extents.clear();
  for (size_t place = kFirstExtent; place < fields.size(); place += 2) {
    BlockRun extent = {};
    if (!parseNumber(fields[place], extent.start) ||
        !parseNumber(fields[place + 1], extent.count)) {
      return false;
    }
    file.extents.push_back(extent);
  }
  return true;
}

std::optional<ProgressLine> parseProgressLine(const std::vector<std::string>& fields) {
  int64_t percent = 0;
  if (fields.size() < 3 || !parseNumber(fields[2], percent)) {
    return std::nullopt;
  }
  ProgressLine progress = {static_cast<int>(percent < 0 ? 0 : percent > 100 ? 100 : percent), {}};
  BlockMove move = {};
  if (fields.size() >= 6 && parseNumber(fields[3], move.from) && parseNumber(fields[4], move.to) &&
      parseNumber(fields[5], move.count)) {
    progress.move = move;
  }
  return progress;
}

}  // namespace view
