#include "view/system/ViewFixture.hpp"

#include <unistd.h>

#include <fstream>

#include "support/VolumeBuilder.hpp"
#include "support/VolumeChecker.hpp"
#include "support/VolumePresets.hpp"

namespace fs = std::filesystem;

void ViewTest::SetUpTestSuite() {
  std::string name = fs::temp_directory_path() / "ViewTest.XXXXXX";
  ASSERT_NE(::mkdtemp(name.data()), nullptr);
  folder = name;
  // Others may look in: one test is nobody.
  fs::permissions(folder, fs::perms::others_exec, fs::perm_options::add);
  volume = folder / "volume.hfs";
  support::buildVolume(support::demoVolume(1), volume);
}

void ViewTest::TearDownTestSuite() {
  fs::remove_all(folder);
}

ProgramSetup ViewTest::setup(Words arguments) {
  ProgramSetup setup;
  setup.program = XRDEFRAG_VIEW_PROGRAM;
  setup.arguments = std::move(arguments);
  setup.environment = {{"LC_ALL", "C.UTF-8"}};
  return setup;
}

ViewTest::Result ViewTest::run(Words arguments, ProgramSetup::User user) {
  ProgramSetup how = setup(std::move(arguments));
  how.input = ProgramSetup::Input::Nothing;
  how.user = user;
  ProgramRunner program(how);
  Result result = {};
  for (const std::string& line : program.readAll()) {
    result.output += line + "\n";
  }
  result.status = program.waitForExit();
  result.diagnostics = program.diagnostics();
  return result;
}

std::string ViewTest::scratchVolume() {
  const fs::path path = folder / "scratch.hfs";
  fs::copy_file(volume, path, fs::copy_options::overwrite_existing);
  return path;
}

std::string ViewTest::standIn(const std::string& body) {
  const fs::path path = folder / "xrdefrag-stand-in";
  std::ofstream(path) << "#!/bin/sh\n" << body << "\n";
  fs::permissions(path, fs::perms::owner_all | fs::perms::others_read | fs::perms::others_exec);
  return path;
}

std::string ViewTest::readFile(const std::string& path) {
  std::string bytes(fs::exists(path) ? fs::file_size(path) : 0, '\0');
  std::ifstream(path, std::ios::binary)
      .read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  return bytes;
}

void ViewTest::expectIntact(const std::string& path) {
  const auto before = volumecheck::checkVolumeFile(volume);
  const auto after = volumecheck::checkVolumeFile(path);
  EXPECT_TRUE(after.findings.empty()) << after.report();
  EXPECT_EQ(volumecheck::compareVolumes(before.truth, after.truth), Words{});
}
