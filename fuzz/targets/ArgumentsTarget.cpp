// The words of a command line.

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "FuzzTargets.hpp"
#include "LWKit/LWStringTable.hpp"
#include "XRDefragCommandLine.hpp"

namespace fuzz {

namespace {

/// The word that stands for the path of the strings file.
constexpr std::string_view kStringsWord = "@";

const std::string& stringsPath() {
  static const std::string path =
      std::filesystem::temp_directory_path() / ("xrdefrag-fuzz-" + std::to_string(::getpid()));
  return path;
}

/// Paths that the fuzzer thinks up are not opened: only its own file is.
std::vector<std::string> wordsOf(std::string_view text) {
  std::vector<std::string> words = {"xrdefrag"};
  while (!text.empty()) {
    const size_t end = std::min(text.find('\0'), text.size());
    words.emplace_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
    std::string& word = words.back();
    const std::string& before = words[words.size() - 2];
    if (word == kStringsWord) {
      word = stringsPath();
    } else if (before == "-s" || before == "--strings") {
      word.insert(0, "/nowhere/");
    }
  }
  return words;
}

}  // namespace

/// A strings file after the first 0x01, or none; before it the words, a NUL between any two.
void runArguments(Input input) {
  const std::string_view text(reinterpret_cast<const char*>(input.data()), input.size());
  const size_t end = std::min(text.find('\x01'), text.size());
  const bool hasStrings = end < text.size();
  if (hasStrings) {
    std::ofstream(stringsPath(), std::ios::binary) << text.substr(end + 1);
  }
  const std::vector<std::string> words = wordsOf(text.substr(0, end));
  const auto line = XRDefragCommandLine::parse(words);
  if (line) {
    FUZZ_CHECK(line->progressInterval > 0 && std::isfinite(line->progressInterval),
               "an interval that is none");
    FUZZ_CHECK(line->help || std::ranges::find(words, line->device) != words.end(),
               "a device nobody named");
  } else {
    FUZZ_CHECK(!line.error().isUserCancelled(), "nobody has cancelled anything");
  }
  LWStringTable::sharedTable().setStrings({});
  if (hasStrings) {
    std::filesystem::remove(stringsPath());
  }
}

}  // namespace fuzz
