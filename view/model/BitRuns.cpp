#include "model/BitRuns.hpp"

#include <algorithm>

namespace view {

namespace {

int digitValue(char digit) {
  if (digit >= '0' && digit <= '9') {
    return digit - '0';
  }
  return digit >= 'A' && digit <= 'F' ? digit - 'A' + 10 : -1;
}

}  // namespace

bool BitRuns::add(std::string_view digits) {
  for (const char digit : digits) {
    const int value = digitValue(digit);
    if (value < 0) {
      return false;
    }
    if (value == 0 || value == 15) {
      extend(4, value == 15);
      continue;
    }
    for (int bit = 8; bit != 0; bit >>= 1) {
      extend(1, (value & bit) != 0);
    }
  }
  return true;
}

void BitRuns::extend(uint64_t bits, bool isUsed) {
  bits = std::min(bits, _bitCount - _run.start - _run.count);
  if (isUsed != _isUsed) {
    finish();
    _isUsed = isUsed;
  }
  _run.count += bits;
}

void BitRuns::finish() {
  if (_run.count > 0) {
    _sink(_run, _isUsed);
  }
  _run = {_run.start + _run.count, 0};
}

}  // namespace view
