#include "report/HtmlReport.hpp"

#include <array>
#include <ctime>

#include "base/Text.hpp"
#include "report/Html.hpp"
#include "report/HtmlHistogram.hpp"
#include "report/HtmlMap.hpp"
#include "report/HtmlPageParts.hpp"
#include "report/HtmlTable.hpp"

namespace view {

namespace {

constexpr size_t kCells = 4096;
constexpr size_t kColumnsAlone = 128;
constexpr size_t kColumnsOfTwo = 64;

std::string momentOf(int64_t seconds) {
  const std::time_t time = seconds;
  std::tm parts = {};
  std::array<char, 32> text = {};
  if (::gmtime_r(&time, &parts) == nullptr ||
      std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M UTC", &parts) == 0) {
    return "";
  }
  return text.data();
}

std::string headOf(const Picture& picture) {
  return std::string(
             "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"
             "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; "
             "style-src 'unsafe-inline'; script-src 'sha256-") +
         kPageScriptHash +
         "'\">\n<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
         "<meta name=\"color-scheme\" content=\"light dark\">\n<title>" +
         html(picture.device) + " – volume report</title>\n<style>\n" + kPageStyle +
         "</style></head><body>\n";
}

std::string titleOf(const Picture* before, const Picture& picture) {
  std::string text = "<header><h1>" + html(picture.device) + "</h1><p>";
  if (before != nullptr) {
    text += "From " + momentOf(before->takenAt) + " to ";
  }
  text += momentOf(picture.takenAt);
  text += " · " + prettyBlocks(picture, picture.blocks());
  if (picture.blockBytes) {
    text += " in blocks of " + prettyBytes(*picture.blockBytes);
  }
  return text + "</p></header>\n";
}

/// One figure of a picture: its name, its value, and what the value means.
struct Figure {
  const char* name;
  std::string value;
  std::string note;
};

std::array<Figure, 5> figuresOf(const Picture& picture) {
  const BlockCounts total = picture.map.total();
  return {{
      {"Fragmented files", prettyCount(picture.fragmentedFiles),
       prettyShare(picture.fragmentedFiles, picture.files) + " of " + prettyCount(picture.files) +
           " files"},
      {"Fragmented data", prettyShare(picture.fragmentedBlocks, picture.fileBlocks),
       prettyBlocks(picture, picture.fragmentedBlocks) + " of " +
           prettyBlocks(picture, picture.fileBlocks)},
      {"Pieces", prettyCount(picture.pieces), "of all files together"},
      {"In use", prettyShare(total.used(), picture.blocks()),
       prettyBlocks(picture, total.used()) + ", " + prettyBlocks(picture, total.free) + " free"},
      {"Largest free run", prettyBlocks(picture, picture.largestFreeRun),
       "of " + prettyCount(picture.freeRuns) + (picture.freeRuns == 1 ? " run" : " runs")},
  }};
}

std::string figures(const Picture* before, const Picture& picture) {
  std::string text = "<section class=\"figures\">\n";
  const auto after = figuresOf(picture);
  for (size_t index = 0; index < after.size(); ++index) {
    const Figure& figure = after[index];
    text += std::string("<div class=\"figure\"><h2>") + figure.name + "</h2><p class=\"value\">";
    text += html(figure.value) + "</p><p class=\"note\">" + html(figure.note) + "</p>";
    if (before != nullptr) {
      text += "<p class=\"was\">before: " + html(figuresOf(*before)[index].value) + "</p>";
    }
    text += "</div>\n";
  }
  return text + "</section>\n";
}

std::string legend() {
  return "<ul class=\"legend\"><li class=\"contiguous\">files in one piece</li>"
         "<li class=\"fragmented\">files in several pieces</li>"
         "<li class=\"system\">metadata and immovable</li><li class=\"free\">free</li></ul>\n";
}

std::string maps(const Picture* before, const Picture& picture) {
  std::string text = "<section class=\"panel\"><h2>Map</h2>\n" + legend();
  if (before == nullptr) {
    text += htmlMap(picture.map, kColumnsAlone, kCells, "Map of the volume");
  } else {
    text += "<div class=\"pair\"><figure><figcaption>Before</figcaption>" +
            htmlMap(before->map, kColumnsOfTwo, kCells, "Map of the volume before") +
            "</figure><figure><figcaption>After</figcaption>" +
            htmlMap(picture.map, kColumnsOfTwo, kCells, "Map of the volume after") +
            "</figure></div>\n";
  }
  return text + "</section>\n";
}

std::string histograms(const Picture* before, const Picture& picture) {
  std::string text = "<div class=\"pair\">";
  text +=
      htmlHistogram("Files by number of pieces", "Files in each class.",
                    before == nullptr ? nullptr : &before->piecesPerFile, picture.piecesPerFile);
  text += htmlHistogram("Free runs by length in blocks", "Runs of free blocks in each class.",
                        before == nullptr ? nullptr : &before->blocksPerFreeRun,
                        picture.blocksPerFreeRun);
  return text + "</div>\n";
}

}  // namespace

std::string htmlReport(const Picture* before, const Picture& picture) {
  std::string page = headOf(picture);
  page += titleOf(before, picture);
  page += "<main>\n" + figures(before, picture) + maps(before, picture) +
          histograms(before, picture) + htmlTable(before, picture) + "</main>\n";
  page += std::string("<script>") + kPageScript + "</script>\n</body></html>\n";
  return page;
}

}  // namespace view
