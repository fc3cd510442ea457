#pragma once

#include <memory>

#include "LWKit/LWToolEvent.hpp"

/// Who can be handed an event. What a subclass does not care for is complete as soon as it comes.
class LWToolResponder {
 public:
  virtual ~LWToolResponder() = default;

  virtual void argumentsEvent(const std::shared_ptr<LWToolEvent>& event) { event->complete(); }
  virtual void stringEvent(const std::shared_ptr<LWToolEvent>& event) { event->complete(); }
  virtual void characterEvent(const std::shared_ptr<LWToolEvent>& event) { event->complete(); }
};
