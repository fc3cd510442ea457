#include <cstdio>
#include <string>

#include "support/OutsideReaders.hpp"
#include "support/VolumeChecker.hpp"

namespace {

constexpr const char* kUsage =
    "Usage: askreaders [--every-fork] FILE\n"
    "Let sleuthkit, 7-Zip, libfshfs and partclone read an HFS Plus volume and print where they\n"
    "and the checker disagree. Exit status: 0 all agree, 1 disagreement, 2 unreadable.\n";

}  // namespace

int main(int count, char** words) {
  outsidereaders::AgreeOptions options;
  std::string file;
  for (int i = 1; i < count; ++i) {
    const std::string word = words[i];
    if (word == "--help") {
      std::fputs(kUsage, stdout);
      return 0;
    }
    if (word == "--every-fork") {
      options.mode = outsidereaders::ReadMode::EveryFork;
    } else {
      file = word;
    }
  }
  const volumecheck::CheckResult result = volumecheck::checkVolumeFile(file);
  if (!result.readable) {
    std::fputs(result.report().c_str(), stderr);
    return 2;
  }
  const auto disagreements = outsidereaders::outsideReadersAgree(file, result.truth, options);
  for (const std::string& sentence : disagreements) {
    std::printf("%s\n", sentence.c_str());
  }
  return disagreements.empty() ? 0 : 1;
}
