#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>

/// Cuts a stream of bytes into lines or characters, one at a time and only when asked, so that how
/// the bytes arrived makes no difference. Holds what has arrived and has not been cut out; an
/// unfinished line may grow as long as its sender makes it.
class LWToolInputBuffer {
 public:
  enum class Mode { Lines, Characters };

  /// A line without its newline, or one character, in UTF-8. A line that is not valid UTF-8 has no
  /// text; a byte that begins no character stands for the character of its value.
  struct Piece {
    std::optional<std::string> text;
  };

  /// Takes more bytes from the stream.
  void append(std::span<const std::byte> bytes);

  /// Cuts out the next piece; none while it is incomplete.
  std::optional<Piece> next();

  /// How the bytes that have not been cut out are cut from now on.
  void setMode(Mode mode);

 private:
  std::optional<Piece> nextLine();
  std::optional<Piece> nextCharacter();

  Mode _mode = Mode::Lines;
  std::string _inputData;
  size_t _start = 0;        // what stands before has been cut out
  size_t _inputOffset = 0;  // in Lines mode, no newline stands between _start and here
};
