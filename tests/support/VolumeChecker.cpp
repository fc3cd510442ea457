#include "support/VolumeChecker.hpp"

#include <algorithm>
#include <tuple>

#include "support/VolumeCheckerState.hpp"

namespace volumecheck {

namespace {

void sortForks(VolumeTruth& truth) {
  std::stable_sort(truth.forks.begin(), truth.forks.end(), [](const Fork& a, const Fork& b) {
    return std::tie(a.cnid, a.type, a.attributeName) < std::tie(b.cnid, b.type, b.attributeName);
  });
}

CheckResult checkSource(VolumeCheckerSource& source, const CheckOptions& options) {
  VolumeCheckerState state{source, options, {}, {}, {}, {}};
  CheckResult result;
  result.readable = checkHeaders(state, source);
  if (result.readable) {
    checkExtentsTree(state);
    checkSpecialForks(state);
    checkCatalog(state);
    checkBadBlocks(state);
    checkHardLinks(state);
    checkAttributes(state);
    checkUnclaimedOverflow(state);
    sortForks(state.truth);
    checkJournal(state);
    checkHotFiles(state);
    checkSpace(state);
    if (options.hashForks) {
      hashForks(state);
    }
    result.truth = std::move(state.truth);
  }
  result.findings = state.log.findings();
  return result;
}

}  // namespace

CheckResult checkVolumeFile(const std::string& path, const CheckOptions& options) {
  std::string whyNot;
  const auto source = VolumeCheckerSource::openFile(path, whyNot);
  if (source == nullptr) {
    return {false, {{FindingKind::NotAVolume, path + " cannot be opened: " + whyNot}}, {}};
  }
  return checkSource(*source, options);
}

CheckResult checkVolumeBytes(Bytes volume, const CheckOptions& options) {
  VolumeCheckerSource source(volume);
  return checkSource(source, options);
}

bool CheckResult::has(FindingKind kind) const {
  return std::any_of(findings.begin(), findings.end(),
                     [kind](const Finding& finding) { return finding.kind == kind; });
}

std::vector<Finding> CheckResult::findingsExcept(const std::vector<FindingKind>& tolerated) const {
  std::vector<Finding> rest;
  for (const Finding& finding : findings) {
    if (std::find(tolerated.begin(), tolerated.end(), finding.kind) == tolerated.end()) {
      rest.push_back(finding);
    }
  }
  return rest;
}

std::string CheckResult::report() const {
  std::string text;
  for (const Finding& finding : findings) {
    text += std::string(nameOf(finding.kind)) + ": " + finding.sentence + "\n";
  }
  return text;
}

}  // namespace volumecheck
