#include "report/HtmlTable.hpp"

#include <algorithm>
#include <array>
#include <ctime>
#include <map>
#include <optional>
#include <vector>

#include "base/Text.hpp"
#include "model/SavedPicture.hpp"
#include "report/Html.hpp"

namespace view {

namespace {

/// A file as one or two pictures know it.
struct Row {
  FileEntry file;
  std::optional<uint64_t> before;  // pieces
  std::optional<uint64_t> after;
};

/// How a file whose list did not name it stands: a picture that lists all its fragmented files says
/// of every other that it lies in one piece.
std::optional<uint64_t> piecesOfUnlisted(const Picture& picture) {
  const size_t listed = std::min(picture.mostFragmented.size(), kSavedFilesMax);
  return listed == picture.fragmentedFiles ? std::optional<uint64_t>(1) : std::nullopt;
}

/// Two forks in one piece each are nothing to mend, and count as one.
uint64_t shownPieces(const FileEntry& file) {
  return file.fragmented ? file.pieces : std::min<uint64_t>(file.pieces, 1);
}

class Rows {
 public:
  void add(const Picture& picture, std::optional<uint64_t> Row::* pieces) {
    for (const std::vector<FileEntry>* list : {&picture.mostFragmented, &picture.largest}) {
      for (size_t index = 0; index < std::min(list->size(), kSavedFilesMax); ++index) {
        Row& row = _rows[(*list)[index].id];
        row.file = (*list)[index];
        row.*pieces = shownPieces(row.file);
      }
    }
  }

  void complete(const Picture& picture, std::optional<uint64_t> Row::* pieces) {
    for (auto& [id, row] : _rows) {
      if (!(row.*pieces)) {
        row.*pieces = piecesOfUnlisted(picture);
      }
    }
  }

  /// The most pieces first.
  std::vector<Row> take() {
    std::vector<Row> rows;
    for (auto& [id, row] : _rows) {
      rows.push_back(std::move(row));
    }
    std::ranges::stable_sort(rows, [](const Row& left, const Row& right) {
      const auto most = [](const Row& row) {
        return std::max(row.before.value_or(0), row.after.value_or(0));
      };
      return std::pair(most(left), left.file.blocks) > std::pair(most(right), right.file.blocks);
    });
    return rows;
  }

 private:
  std::map<uint64_t, Row> _rows;
};

std::string dateOf(int64_t seconds) {
  const std::time_t time = seconds;
  std::tm parts = {};
  std::array<char, 32> text = {};
  if (::gmtime_r(&time, &parts) == nullptr ||
      std::strftime(text.data(), text.size(), "%Y-%m-%d", &parts) == 0) {
    return "";
  }
  return text.data();
}

std::string pathCell(const std::string& path) {
  const size_t slash = path.rfind('/');
  const size_t name = slash == std::string::npos ? 0 : slash + 1;
  return "<td class=\"path\"><bdi><span class=\"folder\">" + html(path.substr(0, name)) +
         "</span>" + html(path.substr(name)) + "</bdi></td>";
}

std::string numberCell(std::optional<uint64_t> value, const std::string& text) {
  return "<td class=\"number\" data-value=\"" + std::to_string(value.value_or(0)) + "\">" +
         (value ? text : "–") + "</td>";
}

std::string piecesCell(std::optional<uint64_t> pieces) {
  return numberCell(pieces, prettyCount(pieces.value_or(0)));
}

std::string heading(const char* text, const char* kind, bool sorted = false) {
  return std::string("<th scope=\"col\" data-kind=\"") + kind + "\"" +
         (sorted ? " aria-sort=\"descending\"" : "") + "><button type=\"button\">" + text +
         "</button></th>";
}

std::string caption(const Picture& picture) {
  const auto part = [](size_t listed, uint64_t all, const char* what) {
    return all > kSavedFilesMax ? "the " + prettyCount(std::min(listed, kSavedFilesMax)) + " " +
                                      what + " of " + prettyCount(all) + " files"
                                : std::string();
  };
  std::string text =
      part(picture.mostFragmented.size(), picture.fragmentedFiles, "most fragmented");
  const std::string largest = part(picture.largest.size(), picture.files, "largest");
  if (text.empty() && largest.empty()) {
    return "All files.";
  }
  if (text.empty()) {
    return "All fragmented files, and " + largest + ".";
  }
  text[0] = 'T';
  return text + ", and " + largest + ".";
}

}  // namespace

std::string htmlTable(const Picture* before, const Picture& picture) {
  Rows collected;
  if (before != nullptr) {
    collected.add(*before, &Row::before);
  }
  collected.add(picture, &Row::after);
  if (before != nullptr) {
    collected.complete(*before, &Row::before);
    collected.complete(picture, &Row::after);
  }
  const std::vector<Row> rows = collected.take();

  std::string text =
      "<section class=\"panel files\"><h2>Files</h2>\n"
      "<p class=\"note\">" +
      html(caption(picture)) +
      "</p>\n"
      "<div class=\"controls\"><input id=\"search\" type=\"search\" placeholder=\"Search"
      " paths\" aria-label=\"Search paths\" autocomplete=\"off\" spellcheck=\"false\">"
      "<label><input id=\"only\" type=\"checkbox\"> only fragmented</label>"
      "<span id=\"shown\" role=\"status\"></span></div>\n"
      "<div class=\"scroll\"><table id=\"files\"><thead><tr>" +
      heading("Path", "text");
  if (before == nullptr) {
    text += heading("Pieces", "number", true);
  } else {
    text += heading("Before", "number", true) + heading("After", "number");
  }
  text += heading("Size", "number") + heading("Modified", "number") + "</tr></thead><tbody>\n";
  for (const Row& row : rows) {
    const bool fragmented = row.before.value_or(1) > 1 || row.after.value_or(1) > 1;
    text += std::string("<tr") + (fragmented ? " class=\"broken\"" : "") + ">" +
            pathCell(row.file.path);
    if (before != nullptr) {
      text += piecesCell(row.before);
    }
    text += piecesCell(row.after);
    text += numberCell(row.file.blocks, prettyBlocks(picture, row.file.blocks));
    text += "<td class=\"number\" data-value=\"" + std::to_string(row.file.modified) + "\">" +
            dateOf(row.file.modified) + "</td></tr>\n";
  }
  return text + "</tbody></table></div></section>\n";
}

}  // namespace view
