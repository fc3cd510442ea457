// In a file of its own, since the header of the terminal's capabilities takes common words for
// itself.
#include "terminal/TerminalKind.hpp"

#include <curses.h>
#include <term.h>
#include <unistd.h>

namespace view {

bool terminalHasScreen() {
  int known = 0;
  char capability[] = "cup";
  return ::setupterm(nullptr, STDOUT_FILENO, &known) == OK && ::tigetstr(capability) != nullptr;
}

}  // namespace view
