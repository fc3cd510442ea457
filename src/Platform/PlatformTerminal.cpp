#include "Platform/PlatformTerminal.hpp"

#include <termios.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>

namespace {

std::optional<termios> savedAttributes;

/// Gives the terminal these local modes. One that has them already is left alone: setting anything
/// would stop us when we run in the background of a shell.
void setLocalModes(tcflag_t modes) {
  termios attributes{};
  if (::tcgetattr(STDIN_FILENO, &attributes) == 0 && attributes.c_lflag != modes) {
    attributes.c_lflag = modes;
    ::tcsetattr(STDIN_FILENO, TCSADRAIN, &attributes);
  }
}

}  // namespace

void PlatformTerminal::saveAttributes() {
  termios attributes{};
  if (savedAttributes || ::tcgetattr(STDIN_FILENO, &attributes) != 0) {
    return;
  }
  savedAttributes = attributes;
  std::atexit([] { setLocalModes(savedAttributes->c_lflag); });
}

void PlatformTerminal::deliverCharacters() {
  if (savedAttributes) {
    setLocalModes(savedAttributes->c_lflag & ~static_cast<tcflag_t>(ICANON | ECHO));
  }
}

void PlatformTerminal::deliverLines() {
  if (savedAttributes) {
    setLocalModes(savedAttributes->c_lflag | ICANON);
  }
}
