#include "support/doubles/ScratchFile.hpp"

#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace doubles {

namespace {

std::filesystem::path makeDirectory() {
  std::string pattern = std::filesystem::temp_directory_path() / "xrdefrag-test-XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error("cannot make a scratch directory");
  }
  return pattern;
}

}  // namespace

ScratchFile::ScratchFile(uint64_t sizeBytes) : ScratchFile(std::span<const std::byte>()) {
  std::filesystem::resize_file(path(), sizeBytes);
}

ScratchFile::ScratchFile(std::span<const std::byte> bytes) : _directory(makeDirectory()) {
  std::ofstream stream(path(), std::ios::binary);
  stream.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

ScratchFile::~ScratchFile() {
  std::error_code error;
  std::filesystem::remove_all(_directory, error);
}

std::vector<std::byte> ScratchFile::contents() const {
  std::vector<std::byte> bytes(std::filesystem::file_size(path()));
  std::ifstream stream(path(), std::ios::binary);
  stream.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  return bytes;
}

bool ScratchFile::makeForeignFileSystem() const {
  const std::string command =
      "PATH=$PATH:/sbin:/usr/sbin mke2fs -q -F '" + path() + "' >/dev/null 2>&1";
  return std::system(command.c_str()) == 0;
}

}  // namespace doubles
