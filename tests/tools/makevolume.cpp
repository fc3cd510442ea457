#include <cstdio>

#include "support/VolumeBuilder.hpp"
#include "support/VolumePresets.hpp"

int main(int argc, char** argv) {
  if (argc != 2)
    return 2;
  const auto built = support::tryBuildVolume(support::demoVolume(1), argv[1]);
  if (!built) {
    std::fprintf(stderr, "makevolume: %s\n", built.error().c_str());
    return 1;
  }
  return 0;
}
