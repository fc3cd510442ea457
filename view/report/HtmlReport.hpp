#pragma once

#include <string>

#include "model/Picture.hpp"

namespace view {

/// A page that stands by itself: one picture, or two of the same volume side by side when `before`
/// is given. It asks for nothing from anywhere, and its size does not depend on the number of
/// files.
std::string htmlReport(const Picture* before, const Picture& picture);

}  // namespace view
