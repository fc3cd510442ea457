#include "LWKit/LWTextBuffer.hpp"

#include <gtest/gtest.h>

#include <string>

TEST(LWTextBuffer, PiecesFollowEachOther) {
  LWTextBuffer buffer(4);
  EXPECT_TRUE(buffer.empty());
  buffer.append("one,");
  buffer.append("");
  buffer.append("two");
  EXPECT_EQ(buffer.text(), "one,two");
  EXPECT_EQ(buffer.size(), 7U);
}

TEST(LWTextBuffer, WhatIsAskedForInExcessIsNotKept) {
  LWTextBuffer buffer(16);
  buffer.append(10, [](char* out) { return LWTextBuffer::put(out, "abc"); });
  buffer.append(10, [](char* out) { return out; });
  buffer.append("d");
  EXPECT_EQ(buffer.text(), "abcd");
}

TEST(LWTextBuffer, ItGrowsAsFarAsNeeded) {
  LWTextBuffer buffer(0);
  std::string expected;
  for (size_t length = 0; length < 300; length += 7) {
    const std::string piece(length, static_cast<char>('a' + length % 26));
    buffer.append(piece);
    expected += piece;
    ASSERT_EQ(buffer.text(), expected);
  }
}

TEST(LWTextBuffer, ClearedItBeginsAnew) {
  LWTextBuffer buffer(8);
  buffer.append("before");
  buffer.clear();
  EXPECT_TRUE(buffer.empty());
  buffer.append("after");
  EXPECT_EQ(buffer.text(), "after");
}
