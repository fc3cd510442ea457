#pragma once

#include "CommandLine.hpp"
#include "base/Outcome.hpp"

namespace view {

/// Shows the volume in the terminal until the user leaves.
Outcome<> runScreen(const CommandLine& line);

}  // namespace view
