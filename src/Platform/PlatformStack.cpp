#include "Platform/PlatformStack.hpp"

#include <cxxabi.h>
#include <dlfcn.h>
#include <pthread.h>

#include <bit>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

constexpr size_t kFrameLimit = 512;

struct StackBounds {
  uintptr_t low = 0;
  uintptr_t high = 0;
};

StackBounds currentStack() {
  pthread_attr_t attributes;
  if (::pthread_getattr_np(::pthread_self(), &attributes) != 0) {
    return {};
  }
  void* base = nullptr;
  size_t size = 0;
  const int result = ::pthread_attr_getstack(&attributes, &base, &size);
  ::pthread_attr_destroy(&attributes);
  const auto low = reinterpret_cast<uintptr_t>(base);
  return result == 0 ? StackBounds{low, low + size} : StackBounds{};
}

std::string readableName(const char* symbol) {
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> demangled(
      abi::__cxa_demangle(symbol, nullptr, nullptr, &status), &std::free);
  return status == 0 && demangled ? demangled.get() : symbol;
}

}  // namespace

std::vector<PlatformStackFrame> PlatformStack::framesFrom(const void* frameAddress) {
  // A frame begins with the caller's frame address, then the address to return to. Code built
  // without frame pointers may leave anything in their place, so each step is checked.
  uintptr_t pair[2];
  const StackBounds bounds = currentStack();
  std::vector<PlatformStackFrame> frames;
  auto frame = reinterpret_cast<uintptr_t>(frameAddress);
  while (frames.size() < kFrameLimit && frame % alignof(uintptr_t) == 0 && frame >= bounds.low &&
         frame < bounds.high && bounds.high - frame >= sizeof pair) {
    std::memcpy(pair, std::bit_cast<const void*>(frame), sizeof pair);
    if (pair[1] == 0) {
      break;
    }
    frames.push_back({.frameAddress = frame, .returnAddress = pair[1]});
    if (pair[0] <= frame) {
      break;
    }
    frame = pair[0];
  }
  return frames;
}

PlatformSymbol PlatformStack::symbolAt(uintptr_t address) {
  Dl_info info{};
  // A call may be the last thing a function does: the byte before belongs to it for certain.
  if (::dladdr(std::bit_cast<const void*>(address - 1), &info) == 0 || info.dli_sname == nullptr) {
    return {};
  }
  return {.name = readableName(info.dli_sname),
          .offset = address - reinterpret_cast<uintptr_t>(info.dli_saddr)};
}
