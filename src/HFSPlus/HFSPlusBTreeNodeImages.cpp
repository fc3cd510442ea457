#include "HFSPlus/HFSPlusBTreeNodeImages.hpp"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

namespace {

// Images that lie next to each other hide from AddressSanitizer who reads beyond one.
#ifdef __SANITIZE_ADDRESS__
constexpr bool kImagesLieApart = true;
#else
constexpr bool kImagesLieApart = false;
#endif
constexpr size_t kImagesOneByOne = kImagesLieApart ? std::numeric_limits<size_t>::max() : 16;
constexpr size_t kSlabBytes = size_t{2} << 20;

}  // namespace

HFSPlusBTreeNodeImages::Image HFSPlusBTreeNodeImages::take() {
  return Image(_free != nullptr ? _takeUsed() : _takeFresh(), {this});
}

HFSPlusBTreeNodeImages::Image HFSPlusBTreeNodeImages::show(std::span<std::byte> bytes) {
  if (!kImagesLieApart) {
    return Image(bytes.data());
  }
  Image image = take();
  if (image) {
    std::ranges::copy(bytes, image.get());
  }
  return image;
}

std::byte* HFSPlusBTreeNodeImages::_takeUsed() {
  std::byte* image = _free;
  std::memcpy(static_cast<void*>(&_free), image, sizeof _free);
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
  std::memcpy(image, static_cast<const void*>(&_free), sizeof _free);
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
