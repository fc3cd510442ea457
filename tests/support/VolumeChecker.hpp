#pragma once

#include <string>
#include <vector>

#include "support/VolumeCheckerFindings.hpp"
#include "support/VolumeCheckerTruth.hpp"

namespace volumecheck {

// How far the alternate header may be behind the primary one. The signature, the geometry, the
// creation date and the special files' forks must be equal always.
enum class AlternateRule {
  MayLag,    // counts, dates, attributes and the like may be older, as on volumes in daily use
  MustAgree  // everything but writeCount must be equal, as after a rewriting run
};

struct CheckOptions {
  AlternateRule alternate = AlternateRule::MayLag;
  bool hashForks = true;
  bool keepFreeRuns = true;
};

struct CheckResult {
  // False when there is no volume to speak of; the findings then say why and the truth is empty.
  bool readable = false;
  std::vector<Finding> findings;
  VolumeTruth truth;

  bool has(FindingKind kind) const;
  // The findings whose kind is not among `tolerated`.
  std::vector<Finding> findingsExcept(const std::vector<FindingKind>& tolerated) const;
  // Sentences with their kinds, one a line, for test messages.
  std::string report() const;
};

// Reads an HFS Plus or HFSX volume, also inside an HFS wrapper, and holds it against every rule of
// the format. Shares nothing with the program it judges. Never writes; never fails on damage.
CheckResult checkVolumeFile(const std::string& path, const CheckOptions& options = {});
CheckResult checkVolumeBytes(Bytes volume, const CheckOptions& options = {});

// What differs between two readings of a volume beyond where its blocks lie: plain sentences, none
// when only placement changed. Both must have been read with hashes.
std::vector<std::string> compareVolumes(const VolumeTruth& before, const VolumeTruth& after);

}  // namespace volumecheck
