#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

/// A folder for the volumes of one test, and the built program run on them.
class RewritingFixture : public testing::Test {
 protected:
  using Lines = std::vector<std::string>;

  RewritingFixture();
  ~RewritingFixture() override;

  std::filesystem::path path(const std::string& name) const { return _folder / name; }

  /// Runs one command to its DONE line and ends the program, which must leave with status 0.
  Lines run(const std::string& device, const std::string& command);

  /// The most memory, in KiB, that the last run had in use.
  uint64_t peakMemory() const { return _peakMemory; }

  static std::string joined(const Lines& lines);

  Lines _options;  // that the program is started with

 private:
  std::filesystem::path _folder;
  uint64_t _peakMemory = 0;
};
