#include "support/VolumeCheckerFindings.hpp"

#include <array>
#include <cstdarg>
#include <cstdio>

#include "support/VolumeCheckerBytes.hpp"

namespace volumecheck {

namespace {

constexpr auto kKindNames = std::to_array<std::string_view>({
#define VOLUME_FINDING_NAME(name) #name,
    VOLUME_FINDING_KINDS(VOLUME_FINDING_NAME)
#undef VOLUME_FINDING_NAME
});

}  // namespace

bool allZero(Bytes bytes) {
  std::uint8_t seen = 0;
  for (const std::uint8_t byte : bytes) {
    seen |= byte;
  }
  return seen == 0;
}

std::string_view nameOf(FindingKind kind) {
  return kKindNames.at(static_cast<std::size_t>(kind));
}

std::optional<FindingKind> findingKindNamed(std::string_view name) {
  for (std::size_t i = 0; i < kKindNames.size(); ++i) {
    if (kKindNames[i] == name) {
      return static_cast<FindingKind>(i);
    }
  }
  return std::nullopt;
}

std::vector<FindingKind> allFindingKinds() {
  std::vector<FindingKind> kinds;
  for (std::size_t i = 0; i < kKindNames.size(); ++i) {
    kinds.push_back(static_cast<FindingKind>(i));
  }
  return kinds;
}

void FindingLog::add(FindingKind kind, const char* format, ...) {
  if (++_counts[kind] > kSentencesPerKind) {
    return;
  }
  std::array<char, 1024> text{};
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  _findings.push_back({kind, text.data()});
}

std::vector<Finding> FindingLog::findings() const {
  std::vector<Finding> all = _findings;
  for (const auto& [kind, count] : _counts) {
    if (count > kSentencesPerKind) {
      all.push_back({kind, "There are " + std::to_string(count - kSentencesPerKind) +
                               " more findings of the kind " + std::string(nameOf(kind)) + "."});
    }
  }
  return all;
}

}  // namespace volumecheck
