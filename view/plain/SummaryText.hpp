#pragma once

#include <string>

#include "model/Picture.hpp"

namespace view {

/// The short report on a volume, lines of at most 79 columns unless a path is longer.
std::string summaryText(const Picture& picture);

/// What changed between two pictures, figure by figure.
std::string comparisonText(const Picture& before, const Picture& after);

}  // namespace view
