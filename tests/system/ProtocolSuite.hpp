#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "support/VolumeBuilder.hpp"
#include "support/VolumeChecker.hpp"
#include "support/VolumePresets.hpp"
#include "system/ProgramRunner.hpp"

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

/// A folder of the suite's own with one volume that no test changes.
class ProtocolSuite : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    std::string name = fs::temp_directory_path() / "ProtocolTest.XXXXXX";
    ASSERT_NE(::mkdtemp(name.data()), nullptr);
    folder = name;
    volume = folder / "volume.hfs";
    support::buildVolume(support::demoVolume(1), volume);
  }
  static void TearDownTestSuite() { fs::remove_all(folder); }

  /// A copy of the volume that a test may change.
  static std::string scratchVolume() {
    const fs::path path = folder / "scratch.hfs";
    fs::copy_file(volume, path, fs::copy_options::overwrite_existing);
    return path;
  }

  static std::string writeFile(const char* name, std::string_view text) {
    const fs::path path = folder / name;
    std::ofstream(path) << text;
    return path;
  }

  /// All that the program prints for these words and this input, once it has ended with status 0.
  static Lines transcript(Lines arguments, std::string_view input) {
    ProgramRunner program(std::move(arguments));
    program.write(input);
    program.closeInput();
    Lines lines = program.readAll();
    EXPECT_EQ(program.waitForExit(), 0);
    EXPECT_EQ(program.diagnostics(), "");
    return lines;
  }

  /// The volume's files are what they were, and it breaks no rule.
  static void expectIntact(const std::string& path) {
    const auto before = volumecheck::checkVolumeFile(volume);
    const auto after = volumecheck::checkVolumeFile(path);
    EXPECT_TRUE(after.findings.empty()) << after.report();
    EXPECT_EQ(volumecheck::compareVolumes(before.truth, after.truth), Lines{});
  }

  static inline fs::path folder;
  static inline std::string volume;
};
