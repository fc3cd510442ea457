#include "terminal/FileList.hpp"

#include <algorithm>

#include "base/Text.hpp"

namespace view {

namespace {

constexpr size_t kPiecesColumns = 8;
constexpr size_t kSizeColumns = 12;

}  // namespace

void FileList::setPicture(const Picture* picture) {
  _picture = picture;
  refill();
}

const std::vector<FileEntry>* FileList::files() const {
  if (_picture == nullptr) {
    return nullptr;
  }
  return _source == Source::Fragmented ? &_picture->mostFragmented : &_picture->largest;
}

void FileList::refill() {
  _shown.clear();
  if (const auto* all = files()) {
    for (const FileEntry& file : *all) {
      if (_filter.empty() || containsIgnoringCase(file.path, _filter)) {
        _shown.push_back(&file);
      }
    }
  }
  const auto comesFirst = [this](const FileEntry* left, const FileEntry* right) {
    switch (_order) {
      case Order::Pieces:
        return left->pieces > right->pieces;
      case Order::Size:
        return left->blocks > right->blocks;
      case Order::Path:
        break;
    }
    return left->path < right->path;
  };
  std::ranges::stable_sort(_shown, comesFirst);
  if (_reversed) {
    std::ranges::reverse(_shown);
  }
  _selected = std::min(_selected, _shown.empty() ? 0 : _shown.size() - 1);
}

void FileList::nextOrder() {
  _order = _order == Order::Pieces ? Order::Size
           : _order == Order::Size ? Order::Path
                                   : Order::Pieces;
  _reversed = false;
  refill();
  moveToEnd(false);
}

void FileList::reverse() {
  _reversed = !_reversed;
  refill();
  moveToEnd(false);
}

void FileList::nextSource() {
  _source = _source == Source::Fragmented ? Source::Largest : Source::Fragmented;
  _order = _source == Source::Fragmented ? Order::Pieces : Order::Size;
  _reversed = false;
  refill();
  moveToEnd(false);
}

void FileList::setFilter(std::string filter) {
  _filter = std::move(filter);
  refill();
  moveToEnd(false);
}

void FileList::moveBy(long rows) {
  const long last = static_cast<long>(_shown.size()) - 1;
  const long wanted = static_cast<long>(_selected) + rows;
  _selected = static_cast<size_t>(std::clamp(wanted, 0L, std::max(0L, last)));
}

void FileList::moveToEnd(bool last) {
  _selected = last && !_shown.empty() ? _shown.size() - 1 : 0;
}

std::string FileList::title() const {
  std::string text = _source == Source::Fragmented ? "Most fragmented files" : "Largest files";
  text += _order == Order::Pieces ? ", by pieces"
          : _order == Order::Size ? ", by size"
                                  : ", by path";
  return _reversed ? text + ", reversed" : text;
}

std::string FileList::countText() const {
  const auto* all = files();
  if (all == nullptr) {
    return {};
  }
  const uint64_t whole =
      _source == Source::Fragmented ? _picture->fragmentedFiles : _picture->files;
  if (_filter.empty()) {
    return _shown.size() == whole ? prettyCount(whole)
                                  : prettyCount(_shown.size()) + " of " + prettyCount(whole);
  }
  return prettyCount(_shown.size()) + " of " + prettyCount(all->size());
}

void FileList::paint(Canvas& canvas, Area area, bool typing, Drawing drawing) {
  const size_t end = area.column + area.columns;
  canvas.put(area.row, area.column, title(), {.bold = true}, area.columns);
  canvas.putRight(area.row, end, countText(), {.dim = true});
  size_t row = area.row + 1;
  if (typing || !_filter.empty()) {
    const size_t column = canvas.put(row, area.column, "Filter: ", {.dim = true}, area.columns);
    const size_t behind = canvas.put(row, column, visibleText(_filter), {.ink = Ink::Accent});
    if (typing) {
      canvas.put(row, behind, " ", {.reverse = true});
    }
    ++row;
  }
  canvas.putRight(row, area.column + kPiecesColumns, "Pieces", {.dim = true});
  canvas.putRight(row, area.column + kPiecesColumns + kSizeColumns, "Size", {.dim = true});
  canvas.put(row, area.column + kPiecesColumns + kSizeColumns + 2, "Path", {.dim = true});
  ++row;
  const size_t bottom = area.row + area.rows;
  _page = bottom > row ? bottom - row : 1;
  _top = std::clamp(_top, _selected + 1 > _page ? _selected + 1 - _page : 0, _selected);
  _top = std::min(_top, _shown.size() > _page ? _shown.size() - _page : 0);
  if (_shown.empty() && _picture != nullptr) {
    const bool none = _filter.empty() && _source == Source::Fragmented;
    canvas.put(row, area.column + 2, none ? "Every file lies in one piece." : "No file fits.",
               {.dim = true}, area.columns);
  }
  for (size_t place = _top; place < _shown.size() && row < bottom; ++place, ++row) {
    const FileEntry& entry = *_shown[place];
    const bool isSelected = place == _selected;
    const Style style = {.reverse = isSelected};
    if (isSelected) {
      canvas.fill(row, area.column, 1, area.columns, style);
    }
    Style pieces = style;
    pieces.ink = entry.fragmented && drawing.colours && !isSelected ? Ink::Fragmented : Ink::Plain;
    canvas.putRight(row, area.column + kPiecesColumns, prettyCount(entry.pieces), pieces);
    canvas.putRight(row, area.column + kPiecesColumns + kSizeColumns,
                    prettyBlocks(*_picture, entry.blocks), style);
    const size_t column = area.column + kPiecesColumns + kSizeColumns + 2;
    if (column < end) {
      canvas.put(row, column, fitMiddle(visibleText(entry.path), end - column), style);
    }
  }
}

}  // namespace view
