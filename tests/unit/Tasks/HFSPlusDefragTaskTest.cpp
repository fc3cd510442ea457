#include "Tasks/HFSPlusDefragTask.hpp"

#include <gtest/gtest.h>

#include "support/VolumePresets.hpp"
#include "unit/Tasks/RewritingRun.hpp"

namespace {

using Lines = std::vector<std::string>;

TEST(HFSPlusDefragTask, DefragmentsTheDemoVolume) {
  RewritingRun run(support::demoVolume(1));
  const Lines lines = run.run("DEFRAG");
  EXPECT_EQ(lines.front(), "DEFRAG,START");
  EXPECT_EQ(lines.back(), "DEFRAG,DONE");
  EXPECT_EQ(RewritingRun::errorIn(lines), "");
  EXPECT_EQ(run.faults(), "");
  EXPECT_EQ(run.scatteredForks(), "");
}

TEST(HFSPlusDefragTask, CompactsTheDemoVolume) {
  RewritingRun run(support::demoVolume(1));
  const Lines lines = run.run("COMPACT");
  EXPECT_EQ(lines.front(), "COMPACT,START");
  EXPECT_EQ(lines.back(), "COMPACT,DONE");
  EXPECT_EQ(RewritingRun::errorIn(lines), "");
  EXPECT_EQ(run.faults(), "");
  EXPECT_EQ(run.dataAboveFreeSpace(), "");
}

}  // namespace
