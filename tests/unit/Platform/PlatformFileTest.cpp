#include "Platform/PlatformFile.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <span>

#include "support/doubles/ScratchFile.hpp"

TEST(PlatformFile, AFileIsReadWhole) {
  const std::string text(200'000, 'x');
  const doubles::ScratchFile file(std::as_bytes(std::span(text)));
  EXPECT_EQ(PlatformFile::readAll(file.path(), text.size()), text);
  EXPECT_EQ(PlatformFile::readAll("/dev/null", 0), "");
}

TEST(PlatformFile, MoreThanTheLimitIsTooMuch) {
  const std::string text(200'000, 'x');
  const doubles::ScratchFile file(std::as_bytes(std::span(text)));
  EXPECT_EQ(PlatformFile::readAll(file.path(), text.size() - 1).error(), EFBIG);
  EXPECT_EQ(PlatformFile::readAll("/dev/zero", 1 << 20).error(), EFBIG);
}

TEST(PlatformFile, WhatCannotBeReadSaysWhy) {
  EXPECT_EQ(PlatformFile::readAll("/nowhere", 10).error(), ENOENT);
  EXPECT_EQ(PlatformFile::readAll("/", 10).error(), EISDIR);
}
