#pragma once

namespace view {

/// Whether the terminal that TERM names is known and lets the cursor be placed.
bool terminalHasScreen();

}  // namespace view
