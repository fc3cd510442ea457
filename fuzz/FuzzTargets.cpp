#include "FuzzTargets.hpp"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>

#include "VolumeRecipe.hpp"

namespace fuzz {

namespace {

constexpr std::array<Target, 7> kTargets = {{
    {"volume", runVolume, VolumeRecipe::kMostBytes, mutateRecipe},
    {"commands", runCommands, 2048, nullptr},
    {"arguments", runArguments, 1024, nullptr},
    {"strings", runStrings, 4096, nullptr},
    {"playlist", runPlaylist, 4096, nullptr},
    {"names", runNames, 512, nullptr},
    {"text", runText, 512, nullptr},
}};

}  // namespace

std::span<const Target> targets() {
  return kTargets;
}

const Target* targetNamed(std::string_view name) {
  const auto* found = std::ranges::find(kTargets, name, &Target::name);
  return found == kTargets.end() ? nullptr : found;
}

void fail(std::string_view what) {
  std::fprintf(stderr, "Broken promise: %.*s\n", static_cast<int>(what.size()), what.data());
  std::abort();
}

}  // namespace fuzz
