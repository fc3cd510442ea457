// Runs every input of the corpus through its target: seeds, and what has once broken something.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "FuzzTargets.hpp"

namespace {

namespace fs = std::filesystem;

class Corpus : public testing::TestWithParam<fuzz::Target> {};

std::vector<uint8_t> bytesOf(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

TEST_P(Corpus, BreaksNothing) {
  size_t inputs = 0;
  for (const auto& entry :
       fs::directory_iterator(fs::path(XRDEFRAG_CORPUS_DIR) / GetParam().name)) {
    SCOPED_TRACE(entry.path().string());
    GetParam().run(bytesOf(entry.path()));
    ++inputs;
  }
  EXPECT_GT(inputs, 0U);
}

TEST_P(Corpus, HasATargetThatTakesAnEmptyInput) {
  GetParam().run({});
}

INSTANTIATE_TEST_SUITE_P(Targets, Corpus, testing::ValuesIn(fuzz::targets()),
                         [](const auto& target) { return std::string(target.param.name); });

}  // namespace
