#include "LWKit/LWChecksum.hpp"

#include <gtest/gtest.h>

#include <string_view>
#include <vector>

namespace {

std::span<const std::byte> bytesOf(std::string_view text) {
  return std::as_bytes(std::span(text));
}

TEST(LWChecksum, GivesThePublishedCheckValue) {
  EXPECT_EQ(LWChecksum::of(bytesOf("123456789")), 0x995DC9BBDF1939FAU);
  EXPECT_EQ(LWChecksum::of({}), 0U);
}

TEST(LWChecksum, DoesNotDependOnHowTheBytesAreCut) {
  std::vector<std::byte> bytes;
  for (int i = 0; i < 100; ++i) {
    bytes.push_back(static_cast<std::byte>(i * 37));
  }
  const uint64_t whole = LWChecksum::of(bytes);
  for (size_t cut = 0; cut <= bytes.size(); ++cut) {
    LWChecksum checksum;
    checksum.add(std::span(bytes).first(cut));
    checksum.add(std::span(bytes).subspan(cut));
    EXPECT_EQ(checksum.value(), whole) << cut;
  }
}

}  // namespace
