#include "LWKit/LWToolEvent.hpp"

#include <utility>

LWToolEvent::LWToolEvent(std::vector<std::string> arguments, Completion completion)
    : _type(Type::Arguments),
      _arguments(std::move(arguments)),
      _hasString(false),
      _completion(std::move(completion)) {}

LWToolEvent::LWToolEvent(Type type, std::optional<std::string> text, Completion completion)
    : _type(type),
      _hasString(text.has_value()),
      _string(std::move(text).value_or(std::string())),
      _completion(std::move(completion)) {}

void LWToolEvent::complete() {
  if (_completion) {
    _completion(shared_from_this());
  }
}
