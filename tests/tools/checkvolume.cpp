#include <algorithm>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/VolumeChecker.hpp"

namespace {

using volumecheck::CheckOptions;
using volumecheck::CheckResult;
using volumecheck::Extent;
using volumecheck::FindingKind;
using volumecheck::Fork;
using volumecheck::ForkType;

constexpr int kSpotless = 0;
constexpr int kFindings = 1;
constexpr int kUnreadable = 2;

constexpr const char* kUsage =
    "Usage: checkvolume [OPTION]... FILE\n"
    "Hold an HFS Plus or HFSX volume (image file or block device) against the rules of its\n"
    "format and print what is wrong with it.\n"
    "\n"
    "  --allow KIND     tolerate findings of this kind (may be repeated; --kinds lists them)\n"
    "  --strict         demand that the alternate header agrees in everything but writeCount\n"
    "  --list           print every fork with its extents\n"
    "  --hashes         print path, fork and fingerprint of every fork, sorted\n"
    "  --compare OTHER  print what differs from OTHER beyond where the blocks lie\n"
    "  --kinds          print the kinds of findings and exit\n"
    "  --help           print this text and exit\n"
    "\n"
    "Exit status: 0 spotless (and equal), 1 findings or differences, 2 unreadable or misused.\n";

struct Arguments {
  std::vector<FindingKind> allowed;
  CheckOptions options;
  bool list = false;
  bool hashes = false;
  std::optional<std::string> other;
  std::string file;
};

// One line's worth of text: control characters and backslashes as \xHH.
std::string printable(std::string_view text) {
  std::string line;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7F || c == '\\') {
      char escape[5];
      std::snprintf(escape, sizeof escape, "\\x%02X", byte);
      line += escape;
    } else {
      line += c;
    }
  }
  return line;
}

std::string forkName(const Fork& fork) {
  switch (fork.type) {
    case ForkType::Data:
      return "data";
    case ForkType::Resource:
      return "rsrc";
    case ForkType::Attribute:
      break;
  }
  return "attr:" + printable(fork.attributeName);
}

void printList(const CheckResult& result) {
  for (const Fork& fork : result.truth.forks) {
    std::printf("%u %s %s: %llu bytes, %u blocks, %u overflow records:", fork.cnid,
                printable(fork.path).c_str(), forkName(fork).c_str(),
                static_cast<unsigned long long>(fork.logicalSize), fork.totalBlocks,
                fork.overflowRecords);
    for (const Extent& extent : fork.extents) {
      std::printf(" %u+%u", extent.startBlock, extent.blockCount);
    }
    std::printf("\n");
  }
}

void printHashes(const CheckResult& result) {
  std::vector<std::string> lines;
  for (const Fork& fork : result.truth.forks) {
    lines.push_back(printable(fork.path) + "\t" + forkName(fork) + "\t" +
                    std::to_string(fork.logicalSize) + "\t" +
                    (fork.hashed ? fork.hash.hex() : "unreadable"));
  }
  std::sort(lines.begin(), lines.end());
  for (const std::string& line : lines) {
    std::printf("%s\n", line.c_str());
  }
}

int misused(const std::string& why) {
  std::fprintf(stderr, "checkvolume: %s\nTry 'checkvolume --help'.\n", why.c_str());
  return kUnreadable;
}

// Fills `arguments`; an exit status when there is nothing more to do.
std::optional<int> parse(int count, char** words, Arguments& arguments) {
  for (int i = 1; i < count; ++i) {
    const std::string word = words[i];
    const bool takesValue = word == "--allow" || word == "--compare";
    if (takesValue && i + 1 == count) {
      return misused(word + " needs a value");
    }
    if (word == "--help") {
      std::fputs(kUsage, stdout);
      return kSpotless;
    }
    if (word == "--kinds") {
      for (const FindingKind kind : volumecheck::allFindingKinds()) {
        std::printf("%s\n", std::string(volumecheck::nameOf(kind)).c_str());
      }
      return kSpotless;
    }
    if (word == "--allow") {
      const auto kind = volumecheck::findingKindNamed(words[++i]);
      if (!kind) {
        return misused(std::string("there is no kind ") + words[i]);
      }
      arguments.allowed.push_back(*kind);
    } else if (word == "--compare") {
      arguments.other = words[++i];
    } else if (word == "--strict") {
      arguments.options.alternate = volumecheck::AlternateRule::MustAgree;
    } else if (word == "--list") {
      arguments.list = true;
    } else if (word == "--hashes") {
      arguments.hashes = true;
    } else if (word.starts_with("-") || !arguments.file.empty()) {
      return misused("unexpected argument " + word);
    } else {
      arguments.file = word;
    }
  }
  if (arguments.file.empty()) {
    return misused("no volume given");
  }
  arguments.options.hashForks = arguments.hashes || arguments.other.has_value();
  return std::nullopt;
}

// True when the volume is readable and nothing but tolerated findings was made.
bool printFindings(const CheckResult& result, const Arguments& arguments) {
  const auto findings = result.findingsExcept(arguments.allowed);
  for (const auto& finding : findings) {
    std::printf("%s: %s\n", std::string(volumecheck::nameOf(finding.kind)).c_str(),
                printable(finding.sentence).c_str());
  }
  return findings.empty() && result.readable;
}

}  // namespace

int main(int count, char** words) {
  Arguments arguments;
  if (const auto status = parse(count, words, arguments)) {
    return *status;
  }
  const CheckResult result = checkVolumeFile(arguments.file, arguments.options);
  bool spotless = printFindings(result, arguments);
  if (!result.readable) {
    return kUnreadable;
  }
  if (arguments.list) {
    printList(result);
  }
  if (arguments.hashes) {
    printHashes(result);
  }
  if (arguments.other) {
    const CheckResult other = checkVolumeFile(*arguments.other, arguments.options);
    if (!other.readable) {
      printFindings(other, arguments);
      return kUnreadable;
    }
    for (const std::string& line : compareVolumes(other.truth, result.truth)) {
      std::printf("Difference: %s\n", printable(line).c_str());
      spotless = false;
    }
  }
  return spotless ? kSpotless : kFindings;
}
