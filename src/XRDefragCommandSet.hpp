#pragma once

#include <memory>
#include <string_view>

#include "LWKit/LWToolEvent.hpp"
#include "XRDefragTask.hpp"

/// An open volume as the interpreter sees it: the commands that it understands. Its destruction
/// closes the volume; no task may be left then.
class XRDefragCommandSet {
 public:
  virtual ~XRDefragCommandSet() = default;

  /// A task for a command word in upper case, or null when the word is no command. The task has
  /// taken the event when the input is to wait for its end; otherwise it wants arguments.
  [[nodiscard]] virtual std::shared_ptr<XRDefragTask> makeTask(
      std::string_view word, const std::shared_ptr<LWToolEvent>& event) = 0;
};
