#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// Something that the tool is asked to deal with: its command line, a line or a character of input.
/// Immutable, so any thread may look at it; at most one event is being dealt with at a time, until
/// somebody completes it.
class LWToolEvent : public std::enable_shared_from_this<LWToolEvent> {
 public:
  enum class Type { Arguments, String, Character };

  /// What completing an event leads to.
  using Completion = std::function<void(const std::shared_ptr<LWToolEvent>&)>;

  /// The command line, the program's path first.
  LWToolEvent(std::vector<std::string> arguments, Completion completion);

  /// A line without its newline, or one character. No text: the bytes were not valid UTF-8.
  LWToolEvent(Type type, std::optional<std::string> text, Completion completion);

  Type type() const { return _type; }

  /// The command line of an Arguments event; empty for others.
  const std::vector<std::string>& arguments() const { return _arguments; }

  /// The line or character in UTF-8; empty when there is none.
  const std::string& string() const { return _string; }

  /// Whether the event carries text at all.
  bool hasString() const { return _hasString; }

  /// Tells that the event has been dealt with, so that the next one can come. Any thread, once.
  void complete();

 private:
  Type _type;
  std::vector<std::string> _arguments;
  bool _hasString;
  std::string _string;
  Completion _completion;
};
