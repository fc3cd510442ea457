#include "XRDefragCommandLine.hpp"

#include <array>
#include <optional>
#include <string_view>

#include "LWKit/LWStringTable.hpp"
#include "LWKit/LWStringUtilities.hpp"
#include "Platform/PlatformProcess.hpp"
#include "XRDefragStringsFile.hpp"

namespace {

/// Walks the words from left to right.
class Walk {
 public:
  explicit Walk(std::span<const std::string> words) : _words(words) {}

  Result<XRDefragCommandLine> run() {
    while (_next < _words.size() && !_line.help) {
      TRY(takeWord(_words[_next++]));
    }
    if (!_line.help && !_hasDevice) {
      return std::unexpected(XRDefragError::localized("No device specified."));
    }
    return std::move(_line);
  }

 private:
  struct Option {
    std::string_view shortName;
    std::string_view longName;
    Result<> (Walk::*take)(const std::string& option);
  };
  static const std::array<Option, 6> kOptions;

  Result<> takeWord(const std::string& word) {
    for (const Option& option : kOptions) {
      if (word == option.shortName || word == option.longName) {
        return (this->*option.take)(word);
      }
    }
    if (!_hasDevice) {
      _line.device = word;
      _hasDevice = true;
    }
    return {};
  }

  Result<> takeHelp(const std::string&) {
    _line.help = true;
    return {};
  }

  Result<> takeQuit(const std::string&) {
    _line.quit = true;
    return {};
  }

  Result<> takeHFSX(const std::string&) {
    _line.hfsx = true;
    return {};
  }

  Result<> takeLowPriority(const std::string&) {
    PlatformProcess::lowerIOPriority();
    return {};
  }

  Result<> takeInterval(const std::string& option) {
    if (_next == _words.size()) {
      return std::unexpected(XRDefragError::localized("Option %1$@ requires an argument.", option));
    }
    const std::optional<double> seconds = LWScanDouble(_words[_next++]);
    if (!seconds || !(*seconds > 0)) {
      return std::unexpected(
          XRDefragError::localized("Option %1$@ requires a positive time interval.", option));
    }
    _line.progressInterval = *seconds;
    return {};
  }

  // Not looked up in the strings table: these are about the table itself.
  Result<> takeStrings(const std::string& option) {
    if (_next == _words.size()) {
      return std::unexpected(
          XRDefragError::withFormat("Option %1$@ requires an argument.", option));
    }
    const std::string& path = _words[_next++];
    auto strings = XRDefragStringsFile::read(path);
    if (!strings) {
      return std::unexpected(XRDefragError::withFormat("Strings file %1$@ is invalid.", path));
    }
    LWStringTable::sharedTable().setStrings(*std::move(strings));
    return {};
  }

  std::span<const std::string> _words;
  size_t _next = 1;
  bool _hasDevice = false;
  XRDefragCommandLine _line;
};

const std::array<Walk::Option, 6> Walk::kOptions = {{
    {"-h", "--help", &Walk::takeHelp},
    {"-i", "--interval", &Walk::takeInterval},
    {"-q", "--quit", &Walk::takeQuit},
    {"-s", "--strings", &Walk::takeStrings},
    {"-x", "--hfsx", &Walk::takeHFSX},
    {"-L", "--lowpri", &Walk::takeLowPriority},
}};

}  // namespace

Result<XRDefragCommandLine> XRDefragCommandLine::parse(std::span<const std::string> words) {
  return Walk(words).run();
}
