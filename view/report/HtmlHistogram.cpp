#include "report/HtmlHistogram.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "base/Text.hpp"
#include "report/Html.hpp"

namespace view {

namespace {

uint64_t largestCount(const Histogram& histogram) {
  uint64_t largest = 0;
  for (size_t magnitude = 0; magnitude < Histogram::kClasses; ++magnitude) {
    largest = std::max(largest, histogram.count(magnitude));
  }
  return largest;
}

/// A bar's length in percent: a part of it for there being anything at all, the rest by magnitude.
int lengthOf(uint64_t count, uint64_t largest) {
  constexpr double kLeast = 4;
  if (count == 0) {
    return 0;
  }
  const double scale =
      largest <= 1 ? 1
                   : std::log(static_cast<double>(count)) / std::log(static_cast<double>(largest));
  return static_cast<int>(std::lround(kLeast + (100 - kLeast) * scale));
}

std::string bar(const char* cssClass, uint64_t count, uint64_t largest) {
  return std::string("<span class=\"track\"><span class=\"") + cssClass +
         "\" style=\"width:" + std::to_string(lengthOf(count, largest)) +
         "%\"></span></span><span class=\"count" + (count == 0 ? " none" : "") + "\">" +
         prettyCount(count) + "</span>";
}

}  // namespace

std::string htmlHistogram(const std::string& title, const std::string& unit,
                          const Histogram* before, const Histogram& histogram) {
  size_t classes = histogram.usedClasses();
  uint64_t largest = largestCount(histogram);
  if (before != nullptr) {
    classes = std::max(classes, before->usedClasses());
    largest = std::max(largest, largestCount(*before));
  }
  std::string text = "<section class=\"panel\"><h2>" + html(title) + "</h2>\n";
  if (classes == 0) {
    return text + "<p class=\"note\">There are none.</p></section>\n";
  }
  text += "<div class=\"histogram\">\n";
  bool skipping = false;
  for (size_t magnitude = 0; magnitude < classes; ++magnitude) {
    const uint64_t earlier = before == nullptr ? 0 : before->count(magnitude);
    if (earlier == 0 && histogram.count(magnitude) == 0) {
      text += skipping ? "" : "<span class=\"label\">…</span><span></span>\n";
      skipping = true;
      continue;
    }
    skipping = false;
    text += "<span class=\"label\">" + Histogram::label(magnitude) + "</span><span class=\"bars\">";
    if (before != nullptr) {
      text += bar("bar earlier", earlier, largest);
    }
    text += bar("bar", histogram.count(magnitude), largest) + "</span>\n";
  }
  return text + "</div><p class=\"note\">" + html(unit) + " The bars are logarithmic" +
         (before == nullptr ? "." : ", the grey ones are before.") + "</p></section>\n";
}

}  // namespace view
