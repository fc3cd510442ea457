#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// A step of a thread's stack.
struct PlatformStackFrame {
  uintptr_t frameAddress;
  uintptr_t returnAddress;
};

/// The function that an address of code lies in.
struct PlatformSymbol {
  std::string name;  // readable, empty when none is known
  uintptr_t offset;  // bytes from its start
};

namespace PlatformStack {

/// The calling thread's frames from a frame address on, innermost first, as far as the chain of
/// frame pointers stays within the stack.
std::vector<PlatformStackFrame> framesFrom(const void* frameAddress);

/// The nearest preceding symbol of the image that holds the address.
PlatformSymbol symbolAt(uintptr_t address);

}  // namespace PlatformStack
