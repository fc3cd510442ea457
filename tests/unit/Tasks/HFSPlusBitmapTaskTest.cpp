#include "Tasks/HFSPlusBitmapTask.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>

#include "HFSPlus/HFSPlusVolume.hpp"
#include "XRDefragVolume.hpp"
#include "support/VolumeBuilder.hpp"
#include "support/doubles/MemoryDevice.hpp"

namespace {

/// A volume of 4096 blocks of 512 bytes, opened by the program, and BITMAP commands on it.
class BitmapCommand {
 public:
  BitmapCommand() {
    support::VolumeDescription description;
    description.blockSize = 512;
    description.size = 4096 * 512;
    _built = support::buildVolume(description);
    auto device = std::make_shared<doubles::MemoryDevice>(_built.image);
    XRDefragVolume plain("memory", device, false, true);
    _volume = HFSPlusVolume::open(plain).value();
  }

  /// What the line's task prints.
  std::string answerTo(const std::string& line) {
    auto event = std::make_shared<LWToolEvent>(LWToolEvent::Type::String, line,
                                               [](const std::shared_ptr<LWToolEvent>&) {});
    auto task = std::make_shared<HFSPlusBitmapTask>(*_volume, event);
    std::fflush(stdout);
    testing::internal::CaptureStdout();
    EXPECT_TRUE(task->start());
    task->join();
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout();
  }

  /// The digits of all DATA lines.
  static std::string digitsOf(const std::string& answer) {
    std::string digits;
    for (size_t at = answer.find(",DATA,"); at != std::string::npos;
         at = answer.find(",DATA,", at)) {
      at += 6;
      digits += answer.substr(at, answer.find('\n', at) - at);
    }
    return digits;
  }

  const support::BuiltVolume& built() const { return _built; }

 private:
  support::BuiltVolume _built;
  std::unique_ptr<HFSPlusVolume> _volume;
};

std::string failing(const std::string& message) {
  return "BITMAP,START\nBITMAP,ERROR," + message + "\nBITMAP,DONE\n";
}

}  // namespace

TEST(HFSPlusBitmapTask, TheBitmapAtScaleOneHasAsManyFreeBitsAsTheVolumeHasFreeBlocks) {
  BitmapCommand bitmap;
  std::string answer = bitmap.answerTo("BITMAP 1");
  EXPECT_TRUE(answer.starts_with("BITMAP,START\nBITMAP,LENGTH,512\nBITMAP,DATA,"));
  EXPECT_TRUE(answer.ends_with("\nBITMAP,DONE\n"));
  std::string digits = BitmapCommand::digitsOf(answer);
  ASSERT_EQ(digits.size(), 1024U);
  uint32_t free = 0;
  for (char digit : digits) {
    free +=
        4 - static_cast<uint32_t>(std::popcount(std::stoul(std::string(1, digit), nullptr, 16)));
  }
  EXPECT_EQ(free, bitmap.built().freeBlocks);
}

TEST(HFSPlusBitmapTask, WithoutAScaleThereIsNoPicture) {
  BitmapCommand bitmap;
  EXPECT_EQ(bitmap.answerTo("BITMAP"), failing("Scale argument is required."));
  EXPECT_EQ(bitmap.answerTo("BITMAP -m"), failing("Scale argument is required."));
}

TEST(HFSPlusBitmapTask, AScaleIsAPositiveInteger) {
  BitmapCommand bitmap;
  for (const std::string word : {"0", "-1", "x", "-x", "--mask"}) {
    EXPECT_EQ(bitmap.answerTo("BITMAP " + word), failing(word + " is not a positive integer."));
  }
  EXPECT_EQ(bitmap.answerTo("BITMAP 0 7"), failing("0 is not a positive integer."));
  EXPECT_EQ(bitmap.answerTo("BITMAP 64blocks"), bitmap.answerTo("BITMAP 64"));
}

TEST(HFSPlusBitmapTask, AScaleBeyondAnyVolumeMakesOneGroup) {
  BitmapCommand bitmap;
  EXPECT_EQ(BitmapCommand::digitsOf(bitmap.answerTo("BITMAP 99999999999999999999")), "00");
}

TEST(HFSPlusBitmapTask, AFurtherWordIsUnknown) {
  BitmapCommand bitmap;
  EXPECT_EQ(bitmap.answerTo("BITMAP 64 65"), failing("Unknown option: 65"));
  EXPECT_EQ(bitmap.answerTo("BITMAP 64 -m a,b"), failing("Unknown option: a\\,b"));
}

TEST(HFSPlusBitmapTask, TheMaskMayStandBeforeOrAfterTheScale) {
  BitmapCommand bitmap;
  EXPECT_EQ(bitmap.answerTo("BITMAP -m 7"), bitmap.answerTo(" BITMAP\t7  -m "));
}
