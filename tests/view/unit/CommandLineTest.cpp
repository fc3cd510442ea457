#include "CommandLine.hpp"

#include <gtest/gtest.h>

#include <sstream>

#include "base/Text.hpp"

using namespace view;

namespace {

Outcome<CommandLine> parsed(std::vector<std::string> words) {
  words.insert(words.begin(), "xrdefrag-view");
  return CommandLine::parse(std::move(words));
}

std::string complaint(std::vector<std::string> words) {
  const auto line = parsed(std::move(words));
  EXPECT_TRUE(line || line.error().status == ExitStatus::Usage);
  return line ? "none" : line.error().message;
}

}  // namespace

TEST(ViewCommandLineTest, OptionsMayStandAnywhere) {
  const auto line =
      parsed({"/tmp/x.img", "-s", "--defrag", "--profile", "boot,app", "-r", "a.html", "-xLy"});
  ASSERT_TRUE(line);
  EXPECT_EQ(line->device, "/tmp/x.img");
  EXPECT_EQ(line->output, CommandLine::Output::Summary);
  ASSERT_TRUE(line->order);
  EXPECT_EQ(line->order->command(), "DEFRAG --profile boot,app");
  EXPECT_EQ(line->reportFile, "a.html");
  EXPECT_TRUE(line->hfsx && line->lowPriority && line->assumeYes);
}

TEST(ViewCommandLineTest, ANameThatBeginsWithADashIsADeviceBehindTwoDashes) {
  const auto line = parsed({"--", "-x"});
  ASSERT_TRUE(line);
  EXPECT_TRUE(line->device.starts_with('/') && line->device.ends_with("/-x"));
}

TEST(ViewCommandLineTest, MistakesAreNamed) {
  EXPECT_EQ(complaint({}), "No device given.");
  EXPECT_EQ(complaint({"a", "b"}), "One device at a time.");
  EXPECT_EQ(complaint({"--bogus", "a"}), "--bogus is no option that is known.");
  EXPECT_EQ(complaint({"a", "-Z"}), "-Z is no option that is known.");
  EXPECT_EQ(complaint({"a", "--report"}), "--report needs an argument.");
  EXPECT_EQ(complaint({"-d", "-c", "a"}), "--defrag and --compact exclude each other.");
  EXPECT_EQ(complaint({"-c", "--profile", "boot", "a"}), "--profile goes with --defrag.");
  EXPECT_EQ(complaint({"-d", "--profile", "boot x", "a"}),
            "boot x is no list of profiles; boot, app and boot,app are.");
  EXPECT_EQ(complaint({"--compare", "a"}), "--compare takes two saved pictures.");
  EXPECT_EQ(complaint({"--compare", "-d", "a", "b"}).substr(0, 9), "--compare");
  EXPECT_EQ(complaint({"--privilege", "magic", "a"}).substr(0, 8), "magic is");
}

TEST(ViewCommandLineTest, HelpFitsATerminalAndNamesEveryOption) {
  std::istringstream text(helpText());
  for (std::string line; std::getline(text, line);) {
    EXPECT_LE(displayWidth(line), 79U) << line;
  }
  for (const char* option : {"--summary", "--json", "--report", "--save", "--compare", "--defrag",
                             "--compact", "--profile", "--yes", "--hfsx", "--lowpri", "--privilege",
                             "--program", "--ascii", "--no-color", "--help", "--version"}) {
    EXPECT_NE(helpText().find(option), std::string::npos) << option;
    const std::string word = option;
    EXPECT_NE(complaint({word, "a"}), word + " is no option that is known.");
  }
}
