#pragma once

#include <expected>
#include <string>
#include <utility>

namespace view {

/// What the program ends with. Scripts rely on the numbers; --help lists them.
enum class ExitStatus : int {
  Done = 0,
  Refused = 1,      // xrdefrag answered with an error
  Usage = 2,        // the command line makes no sense
  NotStarted = 3,   // xrdefrag was not found or did not get its privilege
  Lost = 4,         // xrdefrag ended before it had answered
  Cancelled = 5,    // the user stopped the work
  FileTrouble = 6,  // a file of ours could not be read or written
};

/// Why something could not be done: a sentence for people and a status for scripts.
struct Failure {
  ExitStatus status;
  std::string message;
};

template <typename T = void>
using Outcome = std::expected<T, Failure>;

inline std::unexpected<Failure> fail(ExitStatus status, std::string message) {
  return std::unexpected(Failure{status, std::move(message)});
}

}  // namespace view
