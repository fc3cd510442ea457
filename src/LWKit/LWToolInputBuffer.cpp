#include "LWKit/LWToolInputBuffer.hpp"

#include <cstdint>
#include <string_view>

#include "LWKit/LWUnicode.hpp"

namespace {

/// Bytes of a sequence as its first byte announces them, well-formed or not.
size_t announcedLength(uint8_t lead) {
  if (lead < 0xC0) {
    return 1;
  }
  return lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : lead < 0xF8 ? 4 : lead < 0xFC ? 5 : 6;
}

}  // namespace

void LWToolInputBuffer::append(std::span<const std::byte> bytes) {
  _inputData.erase(0, _start);
  _inputOffset -= _start;
  _start = 0;
  _inputData.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

std::optional<LWToolInputBuffer::Piece> LWToolInputBuffer::next() {
  return _mode == Mode::Lines ? nextLine() : nextCharacter();
}

void LWToolInputBuffer::setMode(Mode mode) {
  _mode = mode;
  _inputOffset = _start;
}

std::optional<LWToolInputBuffer::Piece> LWToolInputBuffer::nextLine() {
  const size_t newline = _inputData.find('\n', _inputOffset);
  if (newline == std::string::npos) {
    _inputOffset = _inputData.size();
    return std::nullopt;
  }
  Piece piece{_inputData.substr(_start, newline - _start)};
  if (!LWIsUTF8(*piece.text)) {
    piece.text.reset();
  }
  _start = _inputOffset = newline + 1;
  return piece;
}

std::optional<LWToolInputBuffer::Piece> LWToolInputBuffer::nextCharacter() {
  const std::string_view rest = std::string_view(_inputData).substr(_start);
  if (rest.empty()) {
    return std::nullopt;
  }
  const auto lead = static_cast<uint8_t>(rest.front());
  const size_t length = announcedLength(lead);
  if (rest.size() < length) {
    return std::nullopt;
  }
  const bool isWellFormed = LWUTF8SequenceLength(rest) == length;
  const size_t taken = isWellFormed ? length : 1;
  _start += taken;
  _inputOffset = _start;
  return Piece{isWellFormed ? std::string(rest.substr(0, taken))
                            : LWUTF8FromUTF16(std::u16string(1, lead))};
}
