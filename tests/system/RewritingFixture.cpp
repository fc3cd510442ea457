#include "system/RewritingFixture.hpp"

#include <unistd.h>

#include <chrono>
#include <cstdlib>

#include "system/ProgramRunner.hpp"

namespace fs = std::filesystem;

RewritingFixture::RewritingFixture() {
  std::string name = fs::temp_directory_path() / "Rewriting.XXXXXX";
  _folder = ::mkdtemp(name.data());
}

RewritingFixture::~RewritingFixture() {
  fs::remove_all(_folder);
}

auto RewritingFixture::run(const std::string& device, const std::string& command) -> Lines {
  Lines words = _options;
  words.push_back(device);
  ProgramRunner program(words);
  program.writeLine(command);
  const Lines lines =
      program.readUntil(command.substr(0, command.find(' ')) + ",DONE", std::chrono::minutes(5));
  _peakMemory = std::strtoull(program.processStatus("VmHWM").c_str(), nullptr, 10);
  program.writeLine("QUIT");
  EXPECT_EQ(program.waitForExit(), 0);
  return lines;
}

std::string RewritingFixture::joined(const Lines& lines) {
  std::string text;
  for (const std::string& line : lines) {
    text += line + "\n";
  }
  return text;
}
