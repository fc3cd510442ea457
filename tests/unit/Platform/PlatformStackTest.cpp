#include "Platform/PlatformStack.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>

/// Not in an anonymous namespace, nor inlined: its name is what the tests look for.
[[gnu::noinline]] std::vector<PlatformStackFrame> platformStackTestProbe() {
  auto frames = PlatformStack::framesFrom(__builtin_frame_address(0));
  frames.shrink_to_fit();  // Keeps the call above from being the last thing done here.
  return frames;
}

[[gnu::noinline]] std::vector<PlatformStackFrame> platformStackTestCaller() {
  auto frames = platformStackTestProbe();
  frames.shrink_to_fit();
  return frames;
}

TEST(PlatformStack, TheCallersAreKnownByName) {
  const auto frames = platformStackTestCaller();
  ASSERT_GE(frames.size(), 2U);
  const PlatformSymbol symbol = PlatformStack::symbolAt(frames.front().returnAddress);
  EXPECT_EQ(symbol.name, "platformStackTestCaller()");
  EXPECT_GT(symbol.offset, 0U);
}

TEST(PlatformStack, FramesLieOneAboveTheOther) {
  const auto frames = platformStackTestCaller();
  for (size_t index = 1; index < frames.size(); ++index) {
    EXPECT_GT(frames[index].frameAddress, frames[index - 1].frameAddress);
  }
}

TEST(PlatformStack, AnotherThreadsStackEndsWithinIt) {
  std::jthread([] { EXPECT_GE(platformStackTestCaller().size(), 2U); }).join();
}

TEST(PlatformStack, AChainThatLeavesTheStackIsNotFollowed) {
  uintptr_t frame[2] = {0x10, reinterpret_cast<uintptr_t>(&platformStackTestProbe)};
  EXPECT_EQ(PlatformStack::framesFrom(frame).size(), 1U);
  static uintptr_t elsewhere[2] = {0, 1};
  EXPECT_TRUE(PlatformStack::framesFrom(elsewhere).empty());
  EXPECT_TRUE(PlatformStack::framesFrom(nullptr).empty());
  EXPECT_TRUE(PlatformStack::framesFrom(reinterpret_cast<char*>(frame) + 1).empty());
}

TEST(PlatformStack, AnAddressOfNoCodeHasNoName) {
  EXPECT_EQ(PlatformStack::symbolAt(16).name, "");
}
