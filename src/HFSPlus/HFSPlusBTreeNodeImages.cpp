#include "HFSPlus/HFSPlusBTreeNodeImages.hpp"

#include <cstring>
#include <limits>
#include <new>
#include <utility>

namespace {

// Slabs hide from AddressSanitizer who reads beyond an image.
#ifdef __SANITIZE_ADDRESS__
constexpr size_t kImagesOneByOne = std::numeric_limits<size_t>::max();
#else
constexpr size_t kImagesOneByOne = 16;
#endif
constexpr size_t kSlabBytes = size_t{2} << 20;

}  // namespace

HFSPlusBTreeNodeImages::Image HFSPlusBTreeNodeImages::take() {
  return Image(_free != nullptr ? _takeUsed() : _takeFresh(), {this});
}

std::byte* HFSPlusBTreeNodeImages::_takeUsed() {
  std::byte* image = _free;
  std::memcpy(&_free, image, sizeof _free);
  return image;
}

std::byte* HFSPlusBTreeNodeImages::_takeFresh() {
  if (_fresh.empty()) {
    _fresh = _images.size() < kImagesOneByOne ? _newImage() : _newSlab();
  }
  if (_fresh.empty()) {
    return nullptr;
  }
  std::byte* image = _fresh.data();
  _fresh = _fresh.subspan(_imageSize);
  return image;
}

void HFSPlusBTreeNodeImages::_giveBack(std::byte* image) {
  std::memcpy(image, &_free, sizeof _free);
  _free = image;
}

std::span<std::byte> HFSPlusBTreeNodeImages::_newImage() {
  std::unique_ptr<std::byte[]> image(new (std::nothrow) std::byte[_imageSize]);
  if (!image) {
    return {};
  }
  return {_images.emplace_back(std::move(image)).get(), _imageSize};
}

std::span<std::byte> HFSPlusBTreeNodeImages::_newSlab() {
  PlatformPages slab = PlatformAllocatePages(kSlabBytes);
  if (!slab) {
    return {};
  }
  return {_slabs.emplace_back(std::move(slab)).get(), kSlabBytes / _imageSize * _imageSize};
}
