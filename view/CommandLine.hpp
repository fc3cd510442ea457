#pragma once

#include <optional>
#include <string>
#include <vector>

#include "base/Outcome.hpp"
#include "child/Privilege.hpp"
#include "session/Rewrite.hpp"

namespace view {

/// What the words of the command line ask for.
struct CommandLine {
  enum class Output { Screen, Summary, Json };

  std::string device;                 // absolute; empty with compare
  std::optional<Output> output;       // none: whatever fits where standard output goes
  std::optional<RewriteOrder> order;  // rewrite the volume
  bool assumeYes = false;
  std::string reportFile;
  std::string saveFile;
  std::vector<std::string> compareFiles;  // two, or none

  std::string program;  // xrdefrag, where it is not to be looked for
  Privilege privilege = Privilege::Automatic;
  bool hfsx = false;
  bool lowPriority = false;
  std::string profiles;
  bool ascii = false;
  bool colour = true;

  bool help = false;
  bool version = false;

  /// Reads the words, which begin with the program's name. Fails with ExitStatus::Usage.
  static Outcome<CommandLine> parse(std::vector<std::string> words);

  /// How xrdefrag is to be started for this device.
  Outcome<Launch> launch() const;
};

/// The text of --help.
std::string helpText();

}  // namespace view
