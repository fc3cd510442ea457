#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "model/Picture.hpp"
#include "terminal/MapPainter.hpp"

namespace view {

/// The list of files on the screen: which list, in which order, through which filter, and where the
/// eye is.
class FileList {
 public:
  enum class Source { Fragmented, Largest };
  enum class Order { Pieces, Size, Path };

  /// Shows a picture's files; the picture must stay. Order and filter stay as they are.
  void setPicture(const Picture* picture);

  void nextOrder();
  void reverse();
  void nextSource();
  void setFilter(std::string filter);
  const std::string& filter() const { return _filter; }

  void moveBy(long rows);
  void moveByPages(long pages) { moveBy(pages * static_cast<long>(_page)); }
  void moveToEnd(bool last);

  size_t count() const { return _shown.size(); }
  const FileEntry& file(size_t place) const { return *_shown[place]; }
  size_t selected() const { return _selected; }

  /// "Most fragmented files, by pieces" and how many there are.
  std::string title() const;
  std::string countText() const;

  /// Paints the list with its heading; the filter line is part of it while one is set or being
  /// typed.
  void paint(Canvas& canvas, Area area, bool typing, Drawing drawing);

 private:
  void refill();
  const std::vector<FileEntry>* files() const;

  const Picture* _picture = nullptr;
  Source _source = Source::Fragmented;
  Order _order = Order::Pieces;
  bool _reversed = false;
  std::string _filter;
  std::vector<const FileEntry*> _shown;
  size_t _selected = 0;
  size_t _top = 0;
  size_t _page = 1;
};

}  // namespace view
