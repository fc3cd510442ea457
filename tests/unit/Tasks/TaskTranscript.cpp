#include "unit/Tasks/TaskTranscript.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "HFSPlus/HFSPlusByteOrder.hpp"
#include "LWKit/LWDebug.hpp"

OpenedVolume::OpenedVolume(const support::VolumeDescription& description)
    : _built(support::buildVolume(description)) {
  _open(std::move(_built.image));
}

OpenedVolume::OpenedVolume(std::vector<std::byte> image) {
  _open(std::move(image));
}

void OpenedVolume::_open(std::vector<std::byte> image) {
  const std::span bytes(reinterpret_cast<const uint8_t*>(image.data()), image.size());
  _truth = volumecheck::checkVolumeBytes(bytes, {.hashForks = false}).truth;
  const XRDefragVolume device("memory", std::make_shared<doubles::MemoryDevice>(image), false,
                              true);
  auto volume = HFSPlusVolume::open(device, HFSXVolumes::Accepted);
  if (!volume) {
    LWPanic("%@\n", volume.error().description());
  }
  _volume = std::move(*volume);
}

Transcript transcriptOf(const std::shared_ptr<XRDefragTask>& task) {
  testing::internal::CaptureStdout();
  EXPECT_TRUE(task->start());
  task->join();
  std::fflush(stdout);
  std::istringstream output(testing::internal::GetCapturedStdout());
  Transcript lines;
  for (std::string line; std::getline(output, line);) {
    lines.push_back(line);
  }
  return lines;
}

std::string extentsOf(const volumecheck::VolumeTruth& truth, uint32_t cnid) {
  std::string fields;
  for (const auto type : {volumecheck::ForkType::Data, volumecheck::ForkType::Resource}) {
    if (const auto* fork = truth.findFork(cnid, type)) {
      for (const auto& extent : fork->extents) {
        fields += LWFormat(",%u,%u", extent.startBlock, extent.blockCount);
      }
    }
  }
  return fields;
}

std::string escaped(const std::string& text) {
  std::string out;
  for (const char character : text) {
    if (character == '\0') {
      out += "\\xC0\\x80";
    } else {
      if (character == ',' || character == '\\') {
        out += '\\';
      }
      out += character;
    }
  }
  return out;
}

std::string printedPath(const volumecheck::CatalogItem& item) {
  return item.path == "/" ? "" : item.path;
}

Transcript dataLines(const Transcript& transcript) {
  EXPECT_GE(transcript.size(), 2U);
  EXPECT_TRUE(transcript.front().ends_with(",START"));
  EXPECT_TRUE(transcript.back().ends_with(",DONE"));
  return {transcript.begin() + 1, transcript.end() - 1};
}

namespace {

/// Where the field of a number begins; separators behind a backslash do not count.
size_t startOfField(const std::string& line, size_t number) {
  for (size_t at = 0; at < line.size(); at++) {
    if (number == 0) {
      return at;
    }
    if (line[at] == '\\') {
      at++;
    } else if (line[at] == ',') {
      number--;
    }
  }
  return line.size();
}

}  // namespace

Transcript withoutDates(Transcript lines) {
  constexpr size_t kFirstDate = 5;
  constexpr size_t kType = 8;
  for (std::string& line : lines) {
    if (const size_t first = startOfField(line, kFirstDate); first < line.size()) {
      line.replace(first, startOfField(line, kType) - first, "D,");
    }
  }
  return lines;
}

void loseOverflowRecord(std::vector<std::byte>& image, uint32_t fileID, uint32_t startBlock) {
  std::vector<std::byte> key(12);
  writeBigEndian(&key[0], uint16_t{10});
  writeBigEndian(&key[4], fileID);
  writeBigEndian(&key[8], startBlock);
  const auto found = std::ranges::search(image, key);
  ASSERT_FALSE(found.empty());
  writeBigEndian(&*found.begin() + 4, fileID + 1000);
}

std::vector<std::string> realVolumes() {
  std::vector<std::string> paths;
  if (const char* folder = std::getenv("XRDEFRAG_REAL_VOLUMES")) {
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
      if (entry.path().extension() == ".hfs") {
        paths.push_back(entry.path());
      }
    }
  }
  return paths;
}

std::vector<std::byte> bytesOfFile(const std::string& path) {
  std::vector<std::byte> bytes(std::filesystem::file_size(path));
  std::ifstream(path, std::ios::binary)
      .read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  return bytes;
}
