// The fuzzer's entry points, for the target that XRDEFRAG_FUZZ_TARGET names.

#include <cstdlib>

#include "FuzzTargets.hpp"

// The fuzzer's own mutations of plain bytes.
extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t mostBytes);

namespace {

const fuzz::Target& target() {
  static const fuzz::Target& target = *fuzz::targetNamed(XRDEFRAG_FUZZ_TARGET);
  return target;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  ::setenv("LWDebugLevel", "PANIC", 0);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  target().run({data, size});
  return 0;
}

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t capacity,
                                          unsigned seed) {
  constexpr unsigned kPlainShare = 4;  // one mutation in so many is of plain bytes
  if (target().mutate == nullptr || seed % kPlainShare == 0) {
    return LLVMFuzzerMutate(data, size, capacity);
  }
  return target().mutate({data, capacity}, size, seed);
}
