#pragma once

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "LWKit/LWToolApplication.hpp"
#include "XRDefragCommandLine.hpp"
#include "XRDefragCommandSet.hpp"
#include "XRDefragError.hpp"

/// The tool: takes the command line, opens the volume that it names, then starts a task for each
/// command line read from the input.
///
/// Three states: starting (until the command line is dealt with), ready, and terminating (after
/// QUIT, a signal, the input's end or a failed start). Termination asks the running tasks to end;
/// when none is left, the volume is closed and the loop ends. All on the main thread.
class XRDefragToolApplication final : public LWToolApplication {
 public:
  /// Opens the volume that a command line names.
  using VolumeOpener =
      std::function<Result<std::unique_ptr<XRDefragCommandSet>>(const XRDefragCommandLine& line)>;

  XRDefragToolApplication(std::vector<std::string> arguments, VolumeOpener openVolume,
                          int inputDescriptor);

  void argumentsEvent(const std::shared_ptr<LWToolEvent>& event) override;
  void stringEvent(const std::shared_ptr<LWToolEvent>& event) override;
  void terminate() override;

 private:
  enum class Start { Ready, End };

  Result<Start> _start(const std::vector<std::string>& arguments);
  void _startTask(const std::shared_ptr<XRDefragTask>& task,
                  const std::shared_ptr<LWToolEvent>& event);
  void _toolTaskDidTerminate(LWToolTask& task);
  void _handleSignal(int number);

  VolumeOpener _openVolume;
  double _progressInterval = 1.0;
  std::unique_ptr<XRDefragCommandSet> _volume;
  std::set<std::shared_ptr<LWToolTask>> _tasks;
  bool _terminateRequestPending = false;
};
