#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>

namespace outsidereaders {

// The MD5 digest of a byte stream, which is what fls prints for files.
class Md5 {
 public:
  void update(std::span<const std::uint8_t> bytes);
  // 32 hexadecimal digits. Ends the stream.
  std::string finish();

 private:
  void _addBlock(const std::uint8_t* block);

  std::array<std::uint32_t, 4> _state{0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476};
  std::array<std::uint8_t, 64> _block{};
  std::uint64_t _length = 0;
};

}  // namespace outsidereaders
