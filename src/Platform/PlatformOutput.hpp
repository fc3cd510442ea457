#pragma once

#include <cstddef>
#include <string_view>

/// A descriptor to write lines of text to, whatever it is: it may be slow, set by somebody else not
/// to wait, or gone. The descriptor is not owned. Used by one thread at a time.
class PlatformOutput {
 public:
  explicit PlatformOutput(int descriptor);

  /// Writes whole lines, waiting for as long as there is no room for them. What cannot be written,
  /// since the reader is gone or the disk is full, is lost; but no line ever continues one that was
  /// cut off by that.
  void write(std::string_view lines);

  /// Writes whole lines if that takes no waiting, all of them or none; whether it did. That is
  /// known of a pipe only, up to the PIPE_BUF bytes that it takes in one piece.
  [[nodiscard]] bool writeAtOnce(std::string_view lines);

  /// Has a pipe hold this many bytes, if it holds less and may: writer and reader then need not
  /// wake each other for every 64 KiB. Nothing for anything else.
  void widenPipe(size_t bytes);

  /// Whether the descriptor is a terminal.
  bool isTerminal() const;

 private:
  size_t _writeSome(std::string_view bytes) const;

  int _descriptor;
  bool _isPipe;
  bool _lineIsCutOff = false;
};
