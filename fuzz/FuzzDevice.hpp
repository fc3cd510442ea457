#pragma once

#include <array>
#include <filesystem>
#include <map>
#include <memory>
#include <span>
#include <vector>

#include "Platform/PlatformDevice.hpp"

namespace fuzz {

/// The bytes of a device, never changed once made. What is all zeros takes no room.
class FuzzImage {
 public:
  static constexpr size_t kPageBytes = 4096;
  using Page = std::array<std::byte, kPageBytes>;

  explicit FuzzImage(std::span<const std::byte> bytes);
  /// Of a sparse file, of which only the parts with data are read.
  explicit FuzzImage(const std::filesystem::path& path);

  uint64_t sizeBytes() const { return _sizeBytes; }
  /// None where all bytes are zero.
  const Page* page(uint64_t number) const;
  /// The numbers of the pages that are kept, ascending.
  std::vector<uint64_t> pageNumbers() const;

 private:
  void take(std::span<const std::byte> bytes, uint64_t offset);

  uint64_t _sizeBytes = 0;
  std::map<uint64_t, std::unique_ptr<Page>> _pages;
};

/// A device that begins as an image and keeps its changes to itself. Counts what is asked of it and
/// stops the process when that is more than any sound program would ask.
class FuzzDevice final : public PlatformDevice {
 public:
  /// The image must outlive the device.
  explicit FuzzDevice(const FuzzImage& image) : _image(image), _sizeBytes(image.sizeBytes()) {}
  FuzzDevice(const FuzzDevice& other);
  FuzzDevice& operator=(const FuzzDevice&) = delete;

  std::expected<size_t, int> readAt(std::span<std::byte> bytes, uint64_t offset) override;
  std::expected<size_t, int> writeAt(std::span<const std::byte> bytes, uint64_t offset) override;
  std::expected<void, int> sync() override { return {}; }
  uint32_t blockSize() const override { return 512; }
  uint64_t blockCount() const override { return _sizeBytes / blockSize(); }

  uint64_t sizeBytes() const { return _sizeBytes; }
  /// Cuts the device off, or makes it longer by zeros.
  void resize(uint64_t sizeBytes) { _sizeBytes = sizeBytes; }

  /// Bytes of the device without being counted; zeros beyond its end.
  std::vector<std::byte> peek(uint64_t offset, size_t size) const;
  void poke(std::span<const std::byte> bytes, uint64_t offset);

  /// From here at most so many transfers are expected.
  void allow(uint64_t transfers) { _transfersLeft = transfers; }
  uint64_t transfersLeft() const { return _transfersLeft; }

  /// What has been written since the start, as (offset, bytes) by page.
  bool isChanged() const { return !_changed.empty(); }

 private:
  void count();
  void copyOut(std::span<std::byte> bytes, uint64_t offset) const;
  FuzzImage::Page& changedPage(uint64_t number);

  const FuzzImage& _image;
  uint64_t _sizeBytes;
  uint64_t _transfersLeft = UINT64_MAX;
  std::map<uint64_t, std::unique_ptr<FuzzImage::Page>> _changed;
};

}  // namespace fuzz
