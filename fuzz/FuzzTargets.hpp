#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

/// What the fuzzers feed to the program, one target a kind of input. A target runs one input and
/// stops the process when a promise is broken; it keeps nothing from one input to the next, so that
/// an input means the same alone and among a million others.
namespace fuzz {

using Input = std::span<const uint8_t>;

/// A volume made from a recipe (VolumeRecipe.hpp), through opening, reports and a rewriting run.
void runVolume(Input input);
/// Bytes of standard input, in both framings, and the command lines among them.
void runCommands(Input input);
/// The words of a command line, and a strings file.
void runArguments(Input input);
/// The bytes of a strings file.
void runStrings(Input input);
/// The bytes of a boot playlist.
void runPlaylist(Input input);
/// Names: their order, their decomposition, their text.
void runNames(Input input);
/// Formats, numbers, sizes, words and fields of text.
void runText(Input input);

struct Target {
  std::string_view name;
  void (*run)(Input input);
  /// The longest input worth trying, in bytes.
  size_t longest;
  /// Changes an input of `size` bytes in place, in a buffer of `capacity` bytes; its new size. Null
  /// for targets that the fuzzer changes byte by byte.
  size_t (*mutate)(std::span<uint8_t> buffer, size_t size, uint32_t seed);
};

std::span<const Target> targets();

/// The target of a name; null when there is none.
const Target* targetNamed(std::string_view name);

/// Stops the process: the program has broken a promise.
[[noreturn]] void fail(std::string_view what);

/// fail() unless a promise is kept. The text is only made when it is not.
#define FUZZ_CHECK(condition, what) \
  do {                              \
    if (!(condition)) {             \
      ::fuzz::fail(what);           \
    }                               \
  } while (false)

}  // namespace fuzz
