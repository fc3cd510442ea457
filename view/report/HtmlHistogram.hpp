#pragma once

#include <string>

#include "model/Histogram.hpp"

namespace view {

/// A histogram as rows of bars; with `before`, two bars a row. Lengths are logarithmic, so that one
/// file among a million can be seen; the numbers stand beside them.
std::string htmlHistogram(const std::string& title, const std::string& unit,
                          const Histogram* before, const Histogram& histogram);

}  // namespace view
