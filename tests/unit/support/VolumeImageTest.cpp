#include "support/VolumeImage.hpp"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

using namespace support;

namespace {

std::string newPath() {
  return testing::TempDir() + "image" + std::to_string(::getpid());
}

// Files cannot grow beyond `bytes` while this lives; a write beyond them fails.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) {
    getrlimit(RLIMIT_FSIZE, &_before);
    const rlimit limit = {bytes, _before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
    _handler = std::signal(SIGXFSZ, SIG_IGN);
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &_before);
    std::signal(SIGXFSZ, _handler);
  }

 private:
  rlimit _before = {};
  void (*_handler)(int) = nullptr;
};

}  // namespace

TEST(VolumeImage, AFileIsSparseWhereOnlyZerosAreWritten) {
  const std::string path = newPath();
  VolumeImage image(path, 8 << 20);
  Bytes bytes(1 << 20);
  image.write(0, bytes);
  bytes[500000] = std::byte{1};
  image.write(4 << 20, bytes);
  ASSERT_EQ(image.close(), "");
  struct stat status = {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_size, 8 << 20);
  EXPECT_LE(status.st_blocks * 512, 64 << 10);
  std::filesystem::remove(path);
}

TEST(VolumeImage, WritesOutsideTheImageFail) {
  VolumeImage image(1000);
  image.write(990, Bytes(11));
  EXPECT_NE(image.close(), "");
}

TEST(VolumeImage, AFileThatCannotBeWrittenInFullIsRemoved) {
  const std::string path = newPath();
  const FileSizeLimit limit(1 << 20);
  VolumeImage image(path, 4 << 20);
  EXPECT_NE(image.close(), "");
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(VolumeImage, WhatCannotBeOpenedIsLeftAlone) {
  VolumeImage image(testing::TempDir(), 1000);
  EXPECT_NE(image.close(), "");
  EXPECT_TRUE(std::filesystem::is_directory(testing::TempDir()));
}
