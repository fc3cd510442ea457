#define NCURSES_WIDECHAR 1
#define NCURSES_NOMACROS 1
#include "terminal/Terminal.hpp"

#include <curses.h>
#include <langinfo.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <string_view>

#include "base/Text.hpp"
#include "terminal/TerminalKind.hpp"
#include "terminal/TerminalRescue.hpp"

namespace view {

namespace {

constexpr int kEscapeDelay = 50;  // milliseconds: a lone Escape is a key

/// Colour numbers of an ink as figure and as ground; -1 is the terminal's own.
struct Colours {
  short ink;
  short ground;
};

constexpr Colours kPaletteOf256[] = {
    {-1, -1},    // Plain
    {242, 236},  // Free
    {68, 68},    // Contiguous
    {173, 173},  // Fragmented
    {97, 97},    // System
    {229, 229},  // Moving
    {110, 24},   // Accent
    {210, 88},   // Alert
};

constexpr Colours kPaletteOf8[] = {
    {-1, -1},
    {COLOR_WHITE, -1},
    {COLOR_BLUE, COLOR_BLUE},
    {COLOR_RED, COLOR_RED},
    {COLOR_MAGENTA, COLOR_MAGENTA},
    {COLOR_YELLOW, COLOR_YELLOW},
    {COLOR_CYAN, COLOR_BLUE},
    {COLOR_RED, COLOR_RED},
};

Colours coloursOf(Ink ink, int colours) {
  const auto place = static_cast<size_t>(ink);
  return colours >= 256 ? kPaletteOf256[place] : kPaletteOf8[place];
}

/// A cell in ASCII, in as many columns as it has: what takes more letters gets a sign of its own.
std::string asciiCell(const std::string& text, bool isWide) {
  const std::string plain = asciiText(text);
  const std::string sign = plain.size() <= 1 ? plain : text == "…" ? "~" : plain.substr(0, 1);
  return isWide ? sign + " " : sign;
}

char32_t keyOf(int code) {
  switch (code) {
    case KEY_UP:
      return Key::kUp;
    case KEY_DOWN:
      return Key::kDown;
    case KEY_PPAGE:
      return Key::kPageUp;
    case KEY_NPAGE:
      return Key::kPageDown;
    case KEY_HOME:
      return Key::kHome;
    case KEY_END:
      return Key::kEnd;
    case KEY_BACKSPACE:
      return Key::kBackspace;
    case KEY_ENTER:
      return Key::kEnter;
    default:
      return Key::kOther;
  }
}

}  // namespace

Terminal::~Terminal() {
  stop();
}

Outcome<> Terminal::start() {
  TerminalRescue::remember();
  if (!terminalHasScreen() || ::newterm(nullptr, stdout, stdin) == nullptr) {
    const char* name = std::getenv("TERM");
    return fail(ExitStatus::Usage,
                std::string("A terminal of type \"") + (name == nullptr ? "" : name) +
                    "\" has no screen that can be drawn on; --summary does without.");
  }
  _started = true;
  _taken = true;
  TerminalRescue::arm();
  _unicode = !_wishes.ascii && std::string_view(::nl_langinfo(CODESET)) == "UTF-8";
  const char* noColour = std::getenv("NO_COLOR");
  if (_wishes.colour && (noColour == nullptr || *noColour == '\0') && ::has_colors()) {
    ::start_color();
    ::use_default_colors();
    _colours = COLORS;
  }
  ::raw();
  ::noecho();
  ::nonl();
  ::curs_set(0);
  ::set_escdelay(kEscapeDelay);
  ::keypad(stdscr, TRUE);
  ::nodelay(stdscr, TRUE);
  return {};
}

void Terminal::stop() {
  if (_taken) {
    ::endwin();
    TerminalRescue::disarm();
    _taken = false;
  }
}

void Terminal::resume() {
  if (_started && !_taken) {
    TerminalRescue::arm();
    _taken = true;
    resize();
    ::clearok(stdscr, TRUE);
    ::refresh();
  }
}

void Terminal::resize() {
  winsize size = {};
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 && size.ws_col > 0) {
    ::resizeterm(size.ws_row, size.ws_col);
  }
}

size_t Terminal::rows() const {
  return static_cast<size_t>(LINES);
}

size_t Terminal::columns() const {
  return static_cast<size_t>(COLS);
}

short Terminal::pairFor(Style style) {
  if (_colours == 0 || (style.ink == Ink::Plain && style.ground == Ink::Plain)) {
    return 0;
  }
  const auto [place, isNew] = _pairs.try_emplace({style.ink, style.ground}, short{0});
  if (isNew && static_cast<int>(_pairs.size()) < COLOR_PAIRS) {
    place->second = static_cast<short>(_pairs.size());
    ::init_pair(place->second, coloursOf(style.ink, _colours).ink,
                coloursOf(style.ground, _colours).ground);
  }
  return place->second;
}

unsigned Terminal::attributesFor(Style style) const {
  const bool alarming = _colours == 0 && style.ink == Ink::Alert;
  return (style.bold || alarming ? A_BOLD : A_NORMAL) | (style.dim ? A_DIM : A_NORMAL) |
         (style.reverse ? A_REVERSE : A_NORMAL);
}

void Terminal::show(const Canvas& canvas) {
  ::erase();
  for (size_t row = 0; row < canvas.rows(); ++row) {
    for (size_t column = 0; column < canvas.columns();) {
      const Style style = canvas.cell(row, column).style;
      const size_t begin = column;
      std::string text;
      for (; column < canvas.columns() && canvas.cell(row, column).style == style; ++column) {
        const std::string& cell = canvas.cell(row, column).text;
        const bool isWide =
            column + 1 < canvas.columns() && canvas.cell(row, column + 1).text.empty();
        text += _unicode ? cell : asciiCell(cell, isWide);
      }
      ::attr_set(attributesFor(style), pairFor(style), nullptr);
      ::mvaddstr(static_cast<int>(row), static_cast<int>(begin), text.c_str());
    }
  }
  ::attr_set(A_NORMAL, 0, nullptr);
  ::refresh();
}

std::optional<char32_t> Terminal::key() {
  wint_t code = 0;
  const int kind = ::get_wch(&code);
  if (kind == KEY_CODE_YES) {
    return keyOf(static_cast<int>(code));
  }
  if (kind == OK) {
    if (code == '\r') {
      return Key::kEnter;
    }
    return code == 0x7F || code == 0x08 ? Key::kBackspace : static_cast<char32_t>(code);
  }
  // No key although something was there to read: the terminal is gone.
  pollfd input = {STDIN_FILENO, POLLIN, 0};
  _inputEnded = ::poll(&input, 1, 0) > 0 && (input.revents & (POLLHUP | POLLERR)) != 0;
  return std::nullopt;
}

}  // namespace view
