#pragma once

#include <cstdio>
#include <string>
#include <string_view>

/// The one writer of standard output. Lines come from several threads; each is one write under the
/// stream's lock, so that none ever stands inside another. A reader that has gone away is no
/// reason to stop: lines that cannot be written are lost, and nothing else happens.
class XRDefragReport {
 public:
  /// The report on standard output.
  static XRDefragReport& shared();

  /// A report on another stream, which must outlive it.
  explicit XRDefragReport(std::FILE* stream) : _stream(stream) {}

  /// Writes a line, its newline included. It leaves the process with the next flushed line.
  void print(std::string_view line);

  /// Writes a line, its newline included, and everything that still waits.
  void printAndFlush(std::string_view line);

 private:
  std::FILE* _stream;
};

/// Free text as a field of a report line: "\" becomes "\\", "," becomes "\," and NUL becomes
/// "\xC0\x80" (eight characters). Order matters to no reader: a field ends at a bare comma.
[[nodiscard]] std::string outputSafeString(std::string_view text);
