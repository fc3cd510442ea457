#include <unistd.h>

#include <cstdlib>

#include "Platform/PlatformProcess.hpp"
#include "XRDefragReport.hpp"
#include "XRDefragToolApplication.hpp"
#include "XRDefragVolumeCommands.hpp"

namespace {

constexpr int kExitNotRoot = 13;

}  // namespace

int main(int argc, char** argv) {
  if (!PlatformProcess::isRoot()) {
    return kExitNotRoot;
  }
  if (!PlatformProcess::openStandardDescriptors()) {
    return EXIT_FAILURE;
  }
  PlatformProcess::ignoreWriteSignals();
  XRDefragReport::shared().writeInBackground();
  XRDefragToolApplication application({argv, argv + argc}, XRDefragOpenVolumeCommands,
                                      STDIN_FILENO);
  return application.run();
}
