#include "CommandLine.hpp"

#include <getopt.h>

#include <array>
#include <cstdlib>

#include "child/ProgramFinder.hpp"

namespace view {

namespace {

enum Option : int {
  kSummary = 256,
  kJson,
  kReport,
  kSave,
  kCompare,
  kDefrag,
  kCompact,
  kProfile,
  kYes,
  kPrivilege,
  kProgram,
  kHFSX,
  kLowPriority,
  kAscii,
  kNoColour,
  kHelp,
  kVersion,
};

constexpr option kOptions[] = {
    {"summary", no_argument, nullptr, kSummary},
    {"json", no_argument, nullptr, kJson},
    {"report", required_argument, nullptr, kReport},
    {"save", required_argument, nullptr, kSave},
    {"compare", no_argument, nullptr, kCompare},
    {"defrag", no_argument, nullptr, kDefrag},
    {"compact", no_argument, nullptr, kCompact},
    {"profile", required_argument, nullptr, kProfile},
    {"yes", no_argument, nullptr, kYes},
    {"privilege", required_argument, nullptr, kPrivilege},
    {"program", required_argument, nullptr, kProgram},
    {"hfsx", no_argument, nullptr, kHFSX},
    {"lowpri", no_argument, nullptr, kLowPriority},
    {"ascii", no_argument, nullptr, kAscii},
    {"no-color", no_argument, nullptr, kNoColour},
    {"help", no_argument, nullptr, kHelp},
    {"version", no_argument, nullptr, kVersion},
    {},
};
constexpr const char* kShortOptions = ":sjr:o:dcyxLh";

int longFormOf(int letter) {
  switch (letter) {
    case 's':
      return kSummary;
    case 'j':
      return kJson;
    case 'r':
      return kReport;
    case 'o':
      return kSave;
    case 'd':
      return kDefrag;
    case 'c':
      return kCompact;
    case 'y':
      return kYes;
    case 'x':
      return kHFSX;
    case 'L':
      return kLowPriority;
    case 'h':
      return kHelp;
    default:
      return letter;
  }
}

std::unexpected<Failure> misuse(const std::string& what) {
  return fail(ExitStatus::Usage, what);
}

/// Takes one option; fails when it contradicts another or its argument means nothing.
Outcome<> takeOption(CommandLine& line, int code, const char* argument, bool& compare) {
  switch (code) {
    case kSummary:
      line.output = CommandLine::Output::Summary;
      break;
    case kJson:
      line.output = CommandLine::Output::Json;
      break;
    case kReport:
      line.reportFile = argument;
      break;
    case kSave:
      line.saveFile = argument;
      break;
    case kCompare:
      compare = true;
      break;
    case kDefrag:
    case kCompact:
      if (line.order && line.order->compact != (code == kCompact)) {
        return misuse("--defrag and --compact exclude each other.");
      }
      line.order = RewriteOrder{code == kCompact, {}};
      break;
    case kProfile:
      line.profiles = argument;
      break;
    case kYes:
      line.assumeYes = true;
      break;
    case kPrivilege: {
      const auto privilege = privilegeNamed(argument);
      if (!privilege) {
        return misuse(std::string(argument) +
                      " is no privilege; auto, none, userns, sudo and pkexec are.");
      }
      line.privilege = *privilege;
      break;
    }
    case kProgram:
      line.program = argument;
      break;
    case kHFSX:
      line.hfsx = true;
      break;
    case kLowPriority:
      line.lowPriority = true;
      break;
    case kAscii:
      line.ascii = true;
      break;
    case kNoColour:
      line.colour = false;
      break;
    case kHelp:
      line.help = true;
      break;
    case kVersion:
      line.version = true;
      break;
    default:
      break;
  }
  return {};
}

Outcome<> checkProfiles(const std::string& profiles) {
  if (profiles.find_first_not_of("abcdefghijklmnopqrstuvwxyz,") != std::string::npos) {
    return misuse(profiles + " is no list of profiles; boot, app and boot,app are.");
  }
  return {};
}

/// Gives the plain words their meaning and checks what the options mean together.
Outcome<> settle(CommandLine& line, const std::vector<std::string>& plain, bool compare) {
  if (line.help || line.version) {
    return {};
  }
  if (compare) {
    if (plain.size() != 2) {
      return misuse("--compare takes two saved pictures.");
    }
    if (line.order || !line.saveFile.empty()) {
      return misuse("--compare looks at files only; it goes with --report, --json and --summary.");
    }
    line.compareFiles = plain;
    return {};
  }
  if (plain.size() != 1 || plain.front().empty()) {
    return misuse(plain.empty() ? "No device given." : "One device at a time.");
  }
  line.device = findDevice(plain.front());
  if (line.order) {
    line.order->profiles = line.profiles;
    if (line.order->compact && !line.profiles.empty()) {
      return misuse("--profile goes with --defrag.");
    }
  }
  return checkProfiles(line.profiles);
}

}  // namespace

Outcome<CommandLine> CommandLine::parse(std::vector<std::string> words) {
  std::vector<char*> arguments;
  for (std::string& word : words) {
    arguments.push_back(word.data());
  }
  arguments.push_back(nullptr);
  const int count = static_cast<int>(words.size());

  CommandLine line;
  bool compare = false;
  optind = 0;
  opterr = 0;
  for (int place = 1;;) {
    const int code = ::getopt_long(count, arguments.data(), kShortOptions, kOptions, nullptr);
    if (code == -1) {
      break;
    }
    if (code == '?' || code == ':') {
      const char* word = arguments[static_cast<size_t>(optind > place ? optind - 1 : place)];
      return misuse(std::string(word) +
                    (code == ':' ? " needs an argument." : " is no option that is known."));
    }
    place = optind;
    if (const auto taken = takeOption(line, longFormOf(code), optarg, compare); !taken) {
      return std::unexpected(taken.error());
    }
  }
  const std::vector<std::string> plain(arguments.begin() + optind, arguments.begin() + count);
  if (const auto settled = settle(line, plain, compare); !settled) {
    return std::unexpected(settled.error());
  }
  return line;
}

Outcome<Launch> CommandLine::launch() const {
  const Outcome<std::string> found = findXRDefrag(program);
  if (!found) {
    return std::unexpected(found.error());
  }
  std::vector<std::string> words = {*found, "--interval", "0.2"};
  if (hfsx) {
    words.emplace_back("--hfsx");
  }
  if (lowPriority) {
    words.emplace_back("--lowpri");
  }
  words.push_back(device);
  return planLaunch(privilege, surveyPrivilege(device), std::move(words));
}

}  // namespace view
