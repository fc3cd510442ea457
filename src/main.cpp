#include <unistd.h>

#include <string>
#include <vector>

#include "HFSPlus/HFSPlusVolume.hpp"
#include "Platform/PlatformProcess.hpp"
#include "Tasks/HFSPlusBitmapTask.hpp"
#include "Tasks/HFSPlusDefragTask.hpp"
#include "Tasks/HFSPlusFragInfoTask.hpp"
#include "Tasks/HFSPlusMapTask.hpp"
#include "Tasks/HFSPlusScanTask.hpp"
#include "XRDefragToolApplication.hpp"
#include "XRDefragVolumeFactory.hpp"

namespace {

constexpr int kNotRoot = 13;

/// The commands of an HFS Plus volume.
class HFSPlusCommands final : public XRDefragCommandSet {
 public:
  explicit HFSPlusCommands(std::unique_ptr<HFSPlusVolume> volume) : _volume(std::move(volume)) {}

  std::shared_ptr<XRDefragTask> makeTask(std::string_view word,
                                         const std::shared_ptr<LWToolEvent>& event) override {
    if (word == "SCAN") {
      return std::make_shared<HFSPlusScanTask>(*_volume, event);
    }
    if (word == "FRAGINFO") {
      return std::make_shared<HFSPlusFragInfoTask>(*_volume, event);
    }
    if (word == "MAP") {
      return std::make_shared<HFSPlusMapTask>(*_volume, event);
    }
    if (word == "BITMAP") {
      return std::make_shared<HFSPlusBitmapTask>(*_volume, event);
    }
    if (word == "DEFRAG" || word == "COMPACT") {
      return std::make_shared<HFSPlusDefragTask>(*_volume, word == "COMPACT");
    }
    return nullptr;
  }

 private:
  std::unique_ptr<HFSPlusVolume> _volume;
};

Result<std::unique_ptr<XRDefragCommandSet>> openVolume(const std::string& device) {
  return std::make_unique<HFSPlusCommands>(TRY(XRDefragOpenVolume(device)));
}

}  // namespace

int main(int argc, char** argv) {
  if (!PlatformProcess::isRoot()) {
    return kNotRoot;
  }
  XRDefragToolApplication application(std::vector<std::string>(argv, argv + argc), openVolume,
                                      STDIN_FILENO);
  return application.run();
}
