#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "model/Picture.hpp"
#include "session/Examination.hpp"
#include "session/Rewrite.hpp"
#include "terminal/Canvas.hpp"
#include "terminal/FileList.hpp"
#include "terminal/MapPainter.hpp"

namespace view {

/// A question or a message in front of everything else.
struct Dialog {
  std::string title;
  std::vector<std::string> lines;
  std::function<void()> onYes = {};  // none for a message, which any key takes away
  bool alarming = false;
};

/// All that the screen shows at one moment.
struct Scene {
  enum class Page { Map, Files };

  std::string device;
  const Picture* picture = nullptr;          // none before the first look has begun
  const Examination* examination = nullptr;  // a look that is going on
  const Rewrite* run = nullptr;              // a rewriting run that is going on
  FileList* files = nullptr;
  Page page = Page::Map;
  std::string message = {};  // about what happened last
  bool typingFilter = false;
  const Dialog* dialog = nullptr;
};

/// The least window that a scene fits into.
constexpr size_t kSceneRowsMin = 16;
constexpr size_t kSceneColumnsMin = 60;
/// From this width on the map and the list stand side by side.
constexpr size_t kSceneColumnsOfBoth = 130;

/// Paints the scene over the whole canvas, or says politely that the window is too small for it.
void paintScene(Canvas& canvas, Scene& scene, Drawing drawing);

/// The dialog that lists the keys.
Dialog helpDialog();

}  // namespace view
