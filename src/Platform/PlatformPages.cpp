#include "Platform/PlatformPages.hpp"

#include <sys/mman.h>

#include <cstdint>

namespace {

constexpr size_t kPage = 4096;  // bytes
constexpr size_t kLargePage = size_t{2} << 20;

size_t roundedUp(size_t size, size_t unit) {
  return (size + unit - 1) / unit * unit;
}

std::byte* map(size_t size) {
  void* pages = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return pages == MAP_FAILED ? nullptr : static_cast<std::byte*>(pages);
}

void unmap(std::byte* pages, size_t size) {
  if (size > 0) {
    ::munmap(pages, size);
  }
}

/// As much as is asked for from a boundary of large pages on: what is mapped beyond is given back.
std::byte* mapLarge(size_t size) {
  const size_t mapped = size + kLargePage;
  std::byte* pages = map(mapped);
  if (pages == nullptr) {
    return nullptr;
  }
  const size_t before = -reinterpret_cast<uintptr_t>(pages) % kLargePage;
  unmap(pages, before);
  unmap(pages + before + size, kLargePage - before);
  // Where there are no large pages, small ones do.
  ::madvise(pages + before, size, MADV_HUGEPAGE);
  return pages + before;
}

}  // namespace

void PlatformPagesRelease::operator()(std::byte* pages) const {
  unmap(pages, size);
}

PlatformPages PlatformAllocatePages(size_t size) {
  const bool isLarge = size >= kLargePage / 2;
  const size_t rounded = roundedUp(size, isLarge ? kLargePage : kPage);
  return PlatformPages(isLarge ? mapLarge(rounded) : map(rounded), {rounded});
}
