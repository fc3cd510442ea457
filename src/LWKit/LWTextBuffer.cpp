#include "LWKit/LWTextBuffer.hpp"

#include <utility>

void LWTextBuffer::_grow(size_t most) {
  const size_t capacity = 2 * _capacity + most;
  auto bytes = std::make_unique_for_overwrite<char[]>(capacity);
  put(bytes.get(), text());
  _bytes = std::move(bytes);
  _capacity = capacity;
}
