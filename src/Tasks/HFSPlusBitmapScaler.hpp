#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string_view>

/// Scales a bitmap down to one bit for every group of bits, and writes that as hexadecimal text:
/// the first group is the most significant bit of the first digit.
///
/// A group's bit is set when at least half of its bits are. The bitmap comes in pieces of whole
/// bytes; groups and digits go on from one piece to the next.
class HFSPlusBitmapScaler {
 public:
  static constexpr size_t kDigitsPerLine = 4096;

  /// Is given the text in lines of kDigitsPerLine digits, and whole bytes less in the last one.
  using Print = std::function<void(std::string_view digits)>;

  /// Groups of `scale` bits, 1 or more.
  HFSPlusBitmapScaler(uint32_t scale, Print print);

  void add(std::span<const std::byte> bitmap);

  /// The same as so many clear bits, without looking at them: a multiple of 8.
  void addClear(uint64_t bits);

  /// Prints what is left. A group that the bitmap does not fill shows as clear.
  void finish();

 private:
  void addBytes(std::span<const std::byte> bitmap);
  void addByteByByte(std::span<const std::byte> bitmap,
                     const std::array<uint8_t, 256>& groupsOfByte, unsigned groupsPerByte);
  void addWordByWord(std::span<const std::byte> bitmap);
  void addGroupByGroup(std::span<const std::byte> bitmap);
  void appendClearGroups(uint64_t count);
  void appendGroup(bool isUsed);
  void endGroup();
  void appendByte(unsigned groups);
  void printLine();

  // The bits of the last groups, behind a leading 1 that tells how many there are.
  static constexpr unsigned kNoGroups = 1;
  static constexpr unsigned kWholeByte = 1 << 8;

  uint32_t _scale;
  Print _print;
  uint32_t _groupLeft;           // bits still to come of the current group
  uint64_t _groupUsed = 0;       // set ones among those that have come
  unsigned _groups = kNoGroups;  // those that have come since the last whole byte
  size_t _lineBytes = 0;
  std::array<std::byte, kDigitsPerLine / 2> _line;
};
