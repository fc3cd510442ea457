#include "FuzzDevice.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

#include "FuzzTargets.hpp"

namespace fuzz {

namespace {

/// Calls visit(page, offset in the page, offset in the range, size) for each part of a range.
template <typename Visit>
void visitPages(uint64_t offset, size_t size, Visit visit) {
  for (size_t done = 0; done < size;) {
    const uint64_t at = offset + done;
    const size_t inPage = at % FuzzImage::kPageBytes;
    const size_t count = std::min(size - done, FuzzImage::kPageBytes - inPage);
    visit(at / FuzzImage::kPageBytes, inPage, done, count);
    done += count;
  }
}

}  // namespace

FuzzImage::FuzzImage(std::span<const std::byte> bytes) : _sizeBytes(bytes.size()) {
  take(bytes, 0);
}

FuzzImage::FuzzImage(const std::filesystem::path& path)
    : _sizeBytes(std::filesystem::file_size(path)) {
  const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  FUZZ_CHECK(file >= 0, "a base volume cannot be opened");
  std::vector<std::byte> bytes;
  for (off_t start = 0; (start = ::lseek(file, start, SEEK_DATA)) >= 0;) {
    const off_t end = ::lseek(file, start, SEEK_HOLE);
    bytes.resize(static_cast<size_t>(end - start));
    FUZZ_CHECK(::pread(file, bytes.data(), bytes.size(), start) == end - start,
               "a base volume cannot be read");
    take(bytes, static_cast<uint64_t>(start));
    start = end;
  }
  ::close(file);
}

void FuzzImage::take(std::span<const std::byte> bytes, uint64_t offset) {
  visitPages(offset, bytes.size(), [&](uint64_t page, size_t inPage, size_t at, size_t size) {
    const auto part = bytes.subspan(at, size);
    if (std::ranges::all_of(part, [](std::byte byte) { return byte == std::byte{0}; })) {
      return;
    }
    std::unique_ptr<Page>& slot = _pages[page];
    if (!slot) {
      slot = std::make_unique<Page>();
    }
    std::ranges::copy(part, slot->begin() + static_cast<ptrdiff_t>(inPage));
  });
}

const FuzzImage::Page* FuzzImage::page(uint64_t number) const {
  const auto found = _pages.find(number);
  return found == _pages.end() ? nullptr : found->second.get();
}

std::vector<uint64_t> FuzzImage::pageNumbers() const {
  std::vector<uint64_t> numbers;
  for (const auto& [number, page] : _pages) {
    numbers.push_back(number);
  }
  return numbers;
}

FuzzDevice::FuzzDevice(const FuzzDevice& other)
    : _image(other._image), _sizeBytes(other._sizeBytes) {
  for (const auto& [number, page] : other._changed) {
    _changed.emplace(number, std::make_unique<FuzzImage::Page>(*page));
  }
}

void FuzzDevice::count() {
  FUZZ_CHECK(_transfersLeft > 0, "more transfers than the volume is worth");
  --_transfersLeft;
}

std::expected<size_t, int> FuzzDevice::readAt(std::span<std::byte> bytes, uint64_t offset) {
  count();
  if (offset >= _sizeBytes) {
    return size_t{0};
  }
  const size_t size = std::min<uint64_t>(bytes.size(), _sizeBytes - offset);
  copyOut(bytes.first(size), offset);
  return size;
}

std::expected<size_t, int> FuzzDevice::writeAt(std::span<const std::byte> bytes, uint64_t offset) {
  count();
  if (offset >= _sizeBytes) {
    return size_t{0};
  }
  const size_t size = std::min<uint64_t>(bytes.size(), _sizeBytes - offset);
  poke(bytes.first(size), offset);
  return size;
}

void FuzzDevice::copyOut(std::span<std::byte> bytes, uint64_t offset) const {
  visitPages(offset, bytes.size(), [&](uint64_t number, size_t inPage, size_t at, size_t size) {
    const auto changed = _changed.find(number);
    const FuzzImage::Page* page =
        changed != _changed.end() ? changed->second.get() : _image.page(number);
    if (page == nullptr) {
      std::ranges::fill(bytes.subspan(at, size), std::byte{0});
    } else {
      std::copy_n(page->data() + inPage, size, bytes.data() + at);
    }
  });
}

std::vector<std::byte> FuzzDevice::peek(uint64_t offset, size_t size) const {
  std::vector<std::byte> bytes(size);
  if (offset < _sizeBytes) {
    copyOut(std::span(bytes).first(std::min<uint64_t>(size, _sizeBytes - offset)), offset);
  }
  return bytes;
}

FuzzImage::Page& FuzzDevice::changedPage(uint64_t number) {
  std::unique_ptr<FuzzImage::Page>& slot = _changed[number];
  if (!slot) {
    const FuzzImage::Page* page = _image.page(number);
    slot = page ? std::make_unique<FuzzImage::Page>(*page) : std::make_unique<FuzzImage::Page>();
  }
  return *slot;
}

void FuzzDevice::poke(std::span<const std::byte> bytes, uint64_t offset) {
  if (offset >= _sizeBytes) {
    return;
  }
  const size_t whole = std::min<uint64_t>(bytes.size(), _sizeBytes - offset);
  visitPages(offset, whole, [&](uint64_t number, size_t inPage, size_t at, size_t size) {
    std::copy_n(bytes.data() + at, size, changedPage(number).data() + inPage);
  });
}

}  // namespace fuzz
