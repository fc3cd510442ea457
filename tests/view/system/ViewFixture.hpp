#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "system/ProgramRunner.hpp"

/// A folder of the test's own with a volume that no test changes, and the built front end.
class ViewTest : public testing::Test {
 protected:
  using Words = std::vector<std::string>;

  /// How a run of the front end ended.
  struct Result {
    int status;
    std::string output;
    std::string diagnostics;
  };

  static void SetUpTestSuite();
  static void TearDownTestSuite();

  /// Runs the front end to its end with nothing to read.
  static Result run(Words arguments, ProgramSetup::User user = ProgramSetup::User::Same);

  /// What a runner of the front end needs.
  static ProgramSetup setup(Words arguments);

  /// A copy of the volume that a test may change.
  static std::string scratchVolume();

  /// A program that stands in for xrdefrag: a shell script whose `body` reads command lines and
  /// prints report lines.
  static std::string standIn(const std::string& body);

  static std::string pathOf(std::string_view name) { return (folder / name).string(); }
  static std::string readFile(const std::string& path);

  /// The volume's files are what they were, and it breaks no rule.
  static void expectIntact(const std::string& path);

  static inline std::filesystem::path folder;
  static inline std::string volume;
};
