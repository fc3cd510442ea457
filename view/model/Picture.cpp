#include "model/Picture.hpp"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <fstream>

#include "base/Text.hpp"

namespace view {

std::string prettyBlocks(const Picture& picture, uint64_t blocks) {
  if (picture.blockBytes) {
    return prettyBytes(blocks * *picture.blockBytes);
  }
  return prettyCount(blocks) + (blocks == 1 ? " block" : " blocks");
}

std::optional<BlockGeometry> findBlockGeometry(uint64_t deviceBytes, uint64_t bitmapBytes) {
  constexpr uint64_t kLeastBlock = 512;
  if (bitmapBytes == 0 || bitmapBytes > UINT32_MAX / uint64_t{8} + 1) {
    return std::nullopt;
  }
  const uint64_t least = bitmapBytes * 8 - 7;
  const uint64_t most = bitmapBytes * 8;
  if (least * kLeastBlock > deviceBytes) {
    return std::nullopt;
  }
  uint64_t blockBytes = kLeastBlock;
  while (least * blockBytes * 2 <= deviceBytes) {
    blockBytes *= 2;
  }
  if (const uint64_t blocks = deviceBytes / blockBytes; blocks <= most) {
    return BlockGeometry{blockBytes, blocks};
  }
  // A little more than the volume is normal, for what stands around it; much more fits any block
  // size.
  if (deviceBytes - most * blockBytes > deviceBytes / 20) {
    return std::nullopt;
  }
  return BlockGeometry{blockBytes, most};
}

uint64_t deviceBytes(const std::string& path) {
  struct stat status = {};
  if (::stat(path.c_str(), &status) != 0) {
    return 0;
  }
  if (S_ISREG(status.st_mode)) {
    return static_cast<uint64_t>(status.st_size);
  }
  if (!S_ISBLK(status.st_mode)) {
    return 0;
  }
  constexpr uint64_t kSectorBytes = 512;
  std::ifstream size("/sys/dev/block/" + std::to_string(major(status.st_rdev)) + ":" +
                     std::to_string(minor(status.st_rdev)) + "/size");
  uint64_t sectors = 0;
  return size >> sectors ? sectors * kSectorBytes : 0;
}

}  // namespace view
