#pragma once

#include <cstddef>
#include <cstring>
#include <memory>
#include <string_view>

/// Text that is put together from many small pieces: room is made once for several of them, which
/// then follow each other without a look at the end of the buffer.
class LWTextBuffer {
 public:
  /// With room for so many bytes; the buffer grows when that does not do.
  explicit LWTextBuffer(size_t capacity)
      : _bytes(std::make_unique_for_overwrite<char[]>(capacity)), _capacity(capacity) {}

  std::string_view text() const { return {_bytes.get(), _size}; }
  size_t size() const { return _size; }
  bool empty() const { return _size == 0; }
  void clear() { _size = 0; }

  /// Has `put` append at most `most` bytes: it is told where they begin, may write on all of them,
  /// and answers where what is to stay ends.
  template <typename Put>
  void append(size_t most, Put&& put) {
    if (_capacity - _size < most) {
      _grow(most);
    }
    _size = static_cast<size_t>(put(_bytes.get() + _size) - _bytes.get());
  }

  void append(std::string_view text) {
    append(text.size(), [text](char* out) { return put(out, text); });
  }

  /// Writes a text; answers where it ends. For pieces of an append().
  static char* put(char* out, std::string_view text) {
    std::memcpy(out, text.data(), text.size());
    return out + text.size();
  }

 private:
  void _grow(size_t most);

  std::unique_ptr<char[]> _bytes;
  size_t _capacity;
  size_t _size = 0;
};
