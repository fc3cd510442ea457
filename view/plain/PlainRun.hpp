#pragma once

#include "CommandLine.hpp"
#include "base/Outcome.hpp"

namespace view {

/// Does what the command line asks without a screen: looks, rewrites if that is asked, prints and
/// writes files. Standard output gets the report, standard error progress and messages.
Outcome<> runPlain(const CommandLine& line);

/// Compares two saved pictures.
Outcome<> runComparison(const CommandLine& line);

}  // namespace view
