#include "XRDefragCommandLine.hpp"

#include <gtest/gtest.h>

#include <optional>
#include <random>
#include <vector>

#include "LWKit/LWStringUtilities.hpp"
#include "support/doubles/ScratchFile.hpp"
#include "support/doubles/TestRandom.hpp"

namespace {

constexpr std::string_view kStrings =
    "<plist><dict><key>No device specified.</key><string>Wo?</string>"
    "<key>Option %1$@ requires an argument.</key><string>%1$@?</string>"
    "<key>Strings file %1$@ is invalid.</key><string>never</string></dict></plist>";

/// Takes back what a strings file changed.
class XRDefragCommandLineTest : public testing::Test {
 protected:
  ~XRDefragCommandLineTest() override { LWStringTable::sharedTable().setStrings({}); }

  static Result<XRDefragCommandLine> parse(std::vector<std::string> words) {
    words.insert(words.begin(), "/usr/sbin/xrdefrag");
    return XRDefragCommandLine::parse(words);
  }

  static std::string errorOf(std::vector<std::string> words) {
    const auto line = parse(std::move(words));
    return line ? "" : line.error().description();
  }

  const doubles::ScratchFile strings{std::as_bytes(std::span(kStrings))};
};

}  // namespace

TEST_F(XRDefragCommandLineTest, ADeviceAloneIsEnough) {
  const auto line = parse({"disk1s2"});
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->device, "disk1s2");
  EXPECT_EQ(line->progressInterval, 1.0);
  EXPECT_FALSE(line->help);
  EXPECT_FALSE(line->quit);
}

TEST_F(XRDefragCommandLineTest, OptionsMayStandAnywhere) {
  for (const char* quit : {"-q", "--quit"}) {
    const auto line = parse({"/dev/a", "-i", "2.5s", quit, "--interval", " 0.25"});
    ASSERT_TRUE(line.has_value());
    EXPECT_EQ(line->device, "/dev/a");
    EXPECT_EQ(line->progressInterval, 0.25);
    EXPECT_TRUE(line->quit);
  }
}

TEST_F(XRDefragCommandLineTest, TheFirstPlainWordIsTheDevice) {
  EXPECT_EQ(parse({"-z", "/dev/a", "--unknown"})->device, "-z");
  EXPECT_EQ(parse({"-X", "/dev/a"})->device, "-X");
  EXPECT_EQ(parse({""})->device, "");
  EXPECT_EQ(parse({"-Q"})->device, "-Q");
}

TEST_F(XRDefragCommandLineTest, HFSXVolumesAreTakenOnlyWhenTheyAreAskedFor) {
  EXPECT_FALSE(parse({"/dev/a"})->hfsx);
  for (const char* hfsx : {"-x", "--hfsx"}) {
    for (const auto& words : {std::vector<std::string>{hfsx, "/dev/a"}, {"/dev/a", hfsx}}) {
      const auto line = parse(words);
      ASSERT_TRUE(line.has_value());
      EXPECT_TRUE(line->hfsx);
      EXPECT_EQ(line->device, "/dev/a");
    }
    EXPECT_EQ(errorOf({hfsx}), "No device specified.");
  }
}

TEST_F(XRDefragCommandLineTest, HelpEndsTheWalk) {
  for (const char* help : {"-h", "--help"}) {
    EXPECT_TRUE(parse({help})->help);
    EXPECT_TRUE(parse({help, "-i"})->help);
  }
  EXPECT_EQ(errorOf({"-i", "0", "-h"}), "Option -i requires a positive time interval.");
}

TEST_F(XRDefragCommandLineTest, NoDeviceIsAnError) {
  EXPECT_EQ(errorOf({}), "No device specified.");
  EXPECT_EQ(errorOf({"-q"}), "No device specified.");
  EXPECT_EQ(errorOf({"-i", "3"}), "No device specified.");
  const auto nothingAtAll = XRDefragCommandLine::parse({});
  EXPECT_EQ(nothingAtAll.error().description(), "No device specified.");
}

TEST_F(XRDefragCommandLineTest, AnOptionWithoutItsArgumentIsAnError) {
  EXPECT_EQ(errorOf({"a", "-i"}), "Option -i requires an argument.");
  EXPECT_EQ(errorOf({"--interval"}), "Option --interval requires an argument.");
  EXPECT_EQ(errorOf({"-s"}), "Option -s requires an argument.");
  EXPECT_EQ(errorOf({"a", "--strings"}), "Option --strings requires an argument.");
}

TEST_F(XRDefragCommandLineTest, AnIntervalMustBePositive) {
  for (const char* interval : {"0", "abc", "-1", "", " ", "0.0s", "1e-999", "nan", "inf", "-h"}) {
    EXPECT_EQ(errorOf({"-i", interval, "a"}), "Option -i requires a positive time interval.");
  }
  EXPECT_EQ(errorOf({"--interval", "0"}), "Option --interval requires a positive time interval.");
}

TEST_F(XRDefragCommandLineTest, AStringsFileServesTheMessagesThatFollow) {
  EXPECT_EQ(errorOf({"-i", "-s", strings.path()}), "Option -i requires a positive time interval.");
  EXPECT_EQ(errorOf({"-s", strings.path()}), "Wo?");
  EXPECT_EQ(errorOf({"--strings", strings.path(), "a", "-i"}), "-i?");
}

TEST_F(XRDefragCommandLineTest, MessagesAboutTheStringsFileAreNotTranslated) {
  EXPECT_EQ(errorOf({"-s", strings.path(), "-s", "/nowhere"}), "Strings file /nowhere is invalid.");
  EXPECT_EQ(errorOf({"-s", strings.path(), "-s"}), "Option -s requires an argument.");
}

TEST_F(XRDefragCommandLineTest, AStringsFileThatFailsLeavesTheTranslationsAsTheyWere) {
  EXPECT_EQ(errorOf({"-s", strings.path(), "-s", "/dev/null"}),
            "Strings file /dev/null is invalid.");
  EXPECT_EQ(LWStringTable::sharedTable().localizedStringForKey("No device specified."), "Wo?");
}

TEST_F(XRDefragCommandLineTest, AnyWordsGiveTheMessageThatTheirOrderCallsFor) {
  const std::vector<std::string> kWords = {"-h", "--help", "-i",   "--interval", "-q", "--quit",
                                           "-s", "0",      "2.5s", "abc",        "",   "/dev/a",
                                           "-x", "--hfsx", "-z",   "--",         "-1", "1e3"};
  const unsigned seed = testSeed();
  SCOPED_TRACE(seedText(seed));
  std::mt19937 random(seed);
  for (int round = 0; round < 20'000; ++round) {
    std::vector<std::string> words;
    for (size_t count = random() % 7; count > 0; --count) {
      words.push_back(kWords[random() % kWords.size()]);
    }
    // The walk once more, in its plainest form.
    std::optional<std::string> expected;
    bool help = false;
    std::optional<std::string> device;
    for (size_t at = 0; at < words.size() && !expected && !help; ++at) {
      const std::string& word = words[at];
      const bool isInterval = word == "-i" || word == "--interval";
      if (word == "-h" || word == "--help") {
        help = true;
      } else if ((isInterval || word == "-s") && at + 1 == words.size()) {
        expected = "Option " + word + " requires an argument.";
      } else if (word == "-s") {
        expected = "Strings file " + words[++at] + " is invalid.";
      } else if (isInterval) {
        const std::string& value = words[++at];
        if (value != "2.5s" && value != "1e3") {
          expected = "Option " + word + " requires a positive time interval.";
        }
      } else if (word != "-q" && word != "--quit" && word != "-x" && word != "--hfsx" && !device) {
        device = word;
      }
    }
    if (!expected && !help && !device) {
      expected = "No device specified.";
    }
    ASSERT_EQ(errorOf(words), expected.value_or("")) << testing::PrintToString(words);
  }
}
