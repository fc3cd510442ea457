#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace view {

/// How many things there are of each magnitude: class 0 holds the ones, class n those from
/// 2^(n-1)+1 to 2^n. Zeros are not counted.
class Histogram {
 public:
  static constexpr size_t kClasses = 33;

  void add(uint64_t value);
  uint64_t count(size_t magnitude) const { return _counts[magnitude]; }
  void setCount(size_t magnitude, uint64_t count) { _counts[magnitude] = count; }
  /// Classes up to the last that holds something.
  size_t usedClasses() const;
  uint64_t total() const;

  /// "1", "2", "3–4", "5–8", "1,025–2,048".
  static std::string label(size_t magnitude);

  friend bool operator==(const Histogram&, const Histogram&) = default;

 private:
  std::array<uint64_t, kClasses> _counts = {};
};

}  // namespace view
