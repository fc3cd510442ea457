#pragma once

#include <map>
#include <string>
#include <string_view>

/// The translations of every user-visible message, keyed by the English message format.
///
/// One table a process: it is filled by the main thread while the command line is read, before any
/// task exists, and only read afterwards.
class LWStringTable {
 public:
  using Map = std::map<std::string, std::string, std::less<>>;

  /// The table that every layer looks its messages up in.
  static LWStringTable& sharedTable();

  /// The translation of `key`, or `key` itself when there is none.
  [[nodiscard]] std::string localizedStringForKey(std::string_view key) const;

  /// Replaces all translations.
  void setStrings(Map strings) { _strings = std::move(strings); }

 private:
  Map _strings;
};
