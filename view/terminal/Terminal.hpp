#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <utility>

#include "base/Outcome.hpp"
#include "terminal/Canvas.hpp"

namespace view {

/// A key, as a Unicode character or one of these.
struct Key {
  static constexpr char32_t kUp = 0x110000;
  static constexpr char32_t kDown = 0x110001;
  static constexpr char32_t kPageUp = 0x110002;
  static constexpr char32_t kPageDown = 0x110003;
  static constexpr char32_t kHome = 0x110004;
  static constexpr char32_t kEnd = 0x110005;
  static constexpr char32_t kBackspace = 0x110006;
  static constexpr char32_t kOther = 0x110007;
  static constexpr char32_t kEscape = 0x1B;
  static constexpr char32_t kEnter = '\n';
  static constexpr char32_t kTab = '\t';
  static constexpr char32_t control(char letter) { return static_cast<char32_t>(letter & 0x1F); }
};

/// The terminal, taken over from start() to stop() or destruction. However the program ends, short
/// of a kill, the terminal is given back as it was: a crash is caught for that.
class Terminal {
 public:
  /// What the user has asked for.
  struct Wishes {
    bool colour = true;
    bool ascii = false;
  };

  explicit Terminal(Wishes wishes) : _wishes(wishes) {}
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;
  ~Terminal();

  /// Takes the terminal over; fails where it is none that a screen can be drawn on.
  Outcome<> start();
  /// Gives it back for a while, and takes it over again.
  void stop();
  void resume();
  bool isTaken() const { return _taken; }

  /// Asks the terminal for its size; call it when that may have changed.
  void resize();
  size_t rows() const;
  size_t columns() const;

  bool hasUnicode() const { return _unicode; }
  bool hasColours() const { return _colours > 0; }

  void show(const Canvas& canvas);
  /// The next key that has been pressed; none when there is none, kept in mind that input may have
  /// ended.
  std::optional<char32_t> key();
  bool inputEnded() const { return _inputEnded; }

 private:
  short pairFor(Style style);
  unsigned attributesFor(Style style) const;

  Wishes _wishes;
  bool _started = false;
  bool _taken = false;
  bool _unicode = false;
  bool _inputEnded = false;
  int _colours = 0;
  std::map<std::pair<Ink, Ink>, short> _pairs;
};

}  // namespace view
