#include "XRDefragVolumeCommands.hpp"

#include <algorithm>
#include <utility>

#include "Tasks/HFSPlusBitmapTask.hpp"
#include "Tasks/HFSPlusDefragTask.hpp"
#include "Tasks/HFSPlusFragInfoTask.hpp"
#include "Tasks/HFSPlusMapTask.hpp"
#include "Tasks/HFSPlusScanTask.hpp"
#include "XRDefragVolumeFactory.hpp"

namespace {

using Task = std::shared_ptr<XRDefragTask>;
using Event = std::shared_ptr<LWToolEvent>;

struct Command {
  std::string_view word;
  Task (*makeTask)(HFSPlusVolume& volume, const Event& event);
};

/// A task that takes the event: no further command is read until it ends.
template <typename Reporting>
Task makeReporting(HFSPlusVolume& volume, const Event& event) {
  return std::make_shared<Reporting>(volume, event);
}

/// A task that runs in the background, so that it can be told to quit.
template <bool compact>
Task makeRewriting(HFSPlusVolume& volume, const Event&) {
  return std::make_shared<HFSPlusDefragTask>(volume, compact);
}

constexpr Command kCommands[] = {
    {"SCAN", makeReporting<HFSPlusScanTask>}, {"FRAGINFO", makeReporting<HFSPlusFragInfoTask>},
    {"MAP", makeReporting<HFSPlusMapTask>},   {"BITMAP", makeReporting<HFSPlusBitmapTask>},
    {"DEFRAG", makeRewriting<false>},         {"COMPACT", makeRewriting<true>},
};

class VolumeCommands final : public XRDefragCommandSet {
 public:
  explicit VolumeCommands(std::unique_ptr<HFSPlusVolume> volume) : _volume(std::move(volume)) {}

  Task makeTask(std::string_view word, const Event& event) override {
    const auto* command = std::ranges::find(kCommands, word, &Command::word);
    return command == std::end(kCommands) ? nullptr : command->makeTask(*_volume, event);
  }

 private:
  std::unique_ptr<HFSPlusVolume> _volume;
};

}  // namespace

Result<std::unique_ptr<XRDefragCommandSet>> XRDefragOpenVolumeCommands(
    const XRDefragCommandLine& line) {
  const auto hfsxVolumes = line.hfsx ? HFSXVolumes::Accepted : HFSXVolumes::Refused;
  return XRDefragCommandsForVolume(TRY(XRDefragOpenVolume(line.device, hfsxVolumes)));
}

std::unique_ptr<XRDefragCommandSet> XRDefragCommandsForVolume(
    std::unique_ptr<HFSPlusVolume> volume) {
  return std::make_unique<VolumeCommands>(std::move(volume));
}
