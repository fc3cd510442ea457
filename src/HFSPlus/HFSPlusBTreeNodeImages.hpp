#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "Platform/PlatformPages.hpp"

/// The memory of a tree's node images, all of one size. The first few, which is all that small
/// trees want, are allocated one by one, the others cut from slabs that come straight from the
/// system. An image that is given back is the next one to be handed out; memory stays to the end.
class HFSPlusBTreeNodeImages {
 public:
  /// `imageSize` in bytes, 512...32768.
  explicit HFSPlusBTreeNodeImages(uint32_t imageSize) : _imageSize(imageSize) {}
  HFSPlusBTreeNodeImages(const HFSPlusBTreeNodeImages&) = delete;
  HFSPlusBTreeNodeImages& operator=(const HFSPlusBTreeNodeImages&) = delete;

  struct GiveBack {
    HFSPlusBTreeNodeImages* images = nullptr;  // null for an image that was only shown
    void operator()(std::byte* image) const {
      if (images != nullptr) {
        images->_giveBack(image);
      }
    }
  };
  /// Goes back to where it was taken from, which must outlive it.
  using Image = std::unique_ptr<std::byte[], GiveBack>;

  /// Bytes of each image.
  uint32_t imageSize() const { return _imageSize; }

  /// An image with whatever was in it before; none when memory is short.
  [[nodiscard]] Image take();

  /// An image that lies in somebody else's memory, and stays there; none when memory is short.
  [[nodiscard]] Image show(std::span<std::byte> bytes);

 private:
  std::byte* _takeUsed();
  std::byte* _takeFresh();
  void _giveBack(std::byte* image);
  std::span<std::byte> _newImage();
  std::span<std::byte> _newSlab();

  uint32_t _imageSize;
  std::byte* _free = nullptr;   // the first of those given back; each begins with the next one
  std::span<std::byte> _fresh;  // of the newest memory: what was never handed out, whole images
  std::vector<std::unique_ptr<std::byte[]>> _images;
  std::vector<PlatformPages> _slabs;
};
