#pragma once

#include <cstdint>
#include <expected>
#include <source_location>
#include <string>
#include <string_view>
#include <utility>

#include "LWKit/LWFormat.hpp"
#include "LWKit/LWStringTable.hpp"

/// What went wrong, as the finished message that a report line carries.
class XRDefragError {
 public:
  /// A message in its final wording: the format filled in, not looked up in the strings table.
  template <typename... Arguments>
  [[nodiscard]] static XRDefragError withFormat(std::string_view format,
                                                const Arguments&... arguments) {
    return XRDefragError(LWFormat(format, arguments...), false);
  }

  /// A message whose format is looked up in the strings table first.
  template <typename... Arguments>
  [[nodiscard]] static XRDefragError localized(std::string_view format,
                                               const Arguments&... arguments) {
    return withFormat(LWStringTable::sharedTable().localizedStringForKey(format), arguments...);
  }

  /// The user, or the end of the tool, stopped the work; reported by no ERROR line.
  [[nodiscard]] static XRDefragError userCancelled() {
    return XRDefragError("User cancelled.", true);
  }

  /// A broken invariant that can still be reported. `source` is the source path relative to the
  /// source root without its extension, `check` the number of the check or the line.
  [[nodiscard]] static XRDefragError internal(std::string_view source, uint32_t check) {
    return localized("Internal error: %1$s:%2$u", source, check);
  }

  /// internal() for the line that calls it.
  [[nodiscard]] static XRDefragError internalHere(
      std::source_location where = std::source_location::current());

  const std::string& description() const { return _description; }
  bool isUserCancelled() const { return _userCancelled; }

 private:
  XRDefragError(std::string description, bool userCancelled)
      : _userCancelled(userCancelled), _description(std::move(description)) {
    stopInDebugger();
  }

  /// With a debugger attached, the creation of an error is where one wants to look around.
  static void stopInDebugger();

  bool _userCancelled;
  std::string _description;
};

/// What every operation that can fail returns.
template <typename T = void>
using Result = std::expected<T, XRDefragError>;

/// The value of a Result, or an early return with its error: `auto node = TRY(tree.node(7));`.
#define TRY(expression)                                                            \
  __extension__({                                                                  \
    auto tryResult = (expression);                                                 \
    static_assert(!std::is_reference_v<typename decltype(tryResult)::value_type>); \
    if (!tryResult.has_value()) [[unlikely]] {                                     \
      return std::unexpected(std::move(tryResult).error());                        \
    }                                                                              \
    std::move(tryResult).value();                                                  \
  })
