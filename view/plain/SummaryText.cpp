#include "plain/SummaryText.hpp"

#include <algorithm>
#include <array>

#include "base/Text.hpp"

namespace view {

namespace {

constexpr size_t kFilesShown = 10;
constexpr size_t kLabelColumns = 18;
constexpr size_t kFigureColumns = 22;

std::string padded(const std::string& text, size_t columns) {
  const size_t width = displayWidth(text);
  return text + std::string(width < columns ? columns - width : 1, ' ');
}

std::string rightAligned(const std::string& text, size_t columns) {
  const size_t width = displayWidth(text);
  return std::string(width < columns ? columns - width : 0, ' ') + text;
}

std::string row(const char* label, const std::string& value) {
  return padded(label, kLabelColumns) + value + "\n";
}

std::string row(const char* label, const std::string& before, const std::string& after) {
  return padded(label, kLabelColumns) + rightAligned(before, kFigureColumns) +
         rightAligned(after, kFigureColumns) + "\n";
}

std::string used(const Picture& picture) {
  const uint64_t blocks = picture.map.total().used();
  return prettyBlocks(picture, blocks) + " (" + prettyShare(blocks, picture.blocks()) + ")";
}

std::string fragmentedFiles(const Picture& picture) {
  return prettyCount(picture.fragmentedFiles) + " (" +
         prettyShare(picture.fragmentedFiles, picture.files) + ")";
}

std::string fragmentedData(const Picture& picture) {
  return prettyBlocks(picture, picture.fragmentedBlocks) + " (" +
         prettyShare(picture.fragmentedBlocks, picture.fileBlocks) + ")";
}

}  // namespace

std::string summaryText(const Picture& picture) {
  std::string text;
  text += row("Volume", visibleText(picture.device));
  text += row("Size",
              prettyBlocks(picture, picture.blocks()) +
                  (picture.blockBytes ? ", blocks of " + prettyBytes(*picture.blockBytes) : ""));
  text += row("In use", used(picture));
  text += row("Free", prettyBlocks(picture, picture.map.total().free) + " in " +
                          prettyCount(picture.freeRuns) + " runs, the largest " +
                          prettyBlocks(picture, picture.largestFreeRun));
  text +=
      row("Files", prettyCount(picture.files) + " in " + prettyCount(picture.pieces) + " pieces");
  text += row("Fragmented",
              fragmentedFiles(picture) + " files, " + fragmentedData(picture) + " of their data");
  if (picture.mostFragmented.empty()) {
    return text + "\nEvery file lies in one piece.\n";
  }
  text += "\n  Pieces         Size  Most fragmented files\n";
  for (size_t index = 0; index < std::min(kFilesShown, picture.mostFragmented.size()); ++index) {
    const FileEntry& file = picture.mostFragmented[index];
    text += rightAligned(prettyCount(file.pieces), 8) +
            rightAligned(prettyBlocks(picture, file.blocks), 13) + "  " + visibleText(file.path) +
            "\n";
  }
  return text;
}

std::string comparisonText(const Picture& before, const Picture& after) {
  std::string text = row("", "before", "after");
  text += row("In use", used(before), used(after));
  text += row("Files", prettyCount(before.files), prettyCount(after.files));
  text += row("Pieces", prettyCount(before.pieces), prettyCount(after.pieces));
  text += row("Fragmented files", fragmentedFiles(before), fragmentedFiles(after));
  text += row("Fragmented data", fragmentedData(before), fragmentedData(after));
  text += row("Free runs", prettyCount(before.freeRuns), prettyCount(after.freeRuns));
  text += row("Largest free run", prettyBlocks(before, before.largestFreeRun),
              prettyBlocks(after, after.largestFreeRun));
  return text;
}

}  // namespace view
