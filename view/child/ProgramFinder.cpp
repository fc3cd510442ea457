#include "child/ProgramFinder.hpp"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <vector>

namespace view {

namespace fs = std::filesystem;

namespace {

bool isProgram(const fs::path& path) {
  std::error_code error;
  return fs::is_regular_file(path, error) && ::access(path.c_str(), X_OK) == 0;
}

std::string absolute(const fs::path& path) {
  std::error_code error;
  const fs::path whole = fs::absolute(path, error);
  return error ? path.string() : whole.lexically_normal().string();
}

std::vector<std::string> searchedFolders() {
  std::vector<std::string> folders;
  const char* path = std::getenv("PATH");
  std::string_view rest = path == nullptr ? "/usr/bin:/bin" : path;
  while (!rest.empty()) {
    const size_t colon = rest.find(':');
    // An empty word means the current folder, which is no place to take a privileged program from.
    if (const std::string_view folder = rest.substr(0, colon); folder.starts_with('/')) {
      folders.emplace_back(folder);
    }
    rest = colon == std::string_view::npos ? std::string_view() : rest.substr(colon + 1);
  }
  folders.insert(folders.end(), {"/usr/local/sbin", "/usr/sbin", "/sbin"});
  return folders;
}

}  // namespace

std::string findProgram(const std::string& name) {
  for (const std::string& folder : searchedFolders()) {
    if (const fs::path candidate = fs::path(folder) / name; isProgram(candidate)) {
      return candidate.string();
    }
  }
  return {};
}

Outcome<std::string> findXRDefrag(const std::string& wanted) {
  if (!wanted.empty()) {
    if (isProgram(wanted)) {
      return absolute(wanted);
    }
    return fail(ExitStatus::NotStarted, wanted + " is not a program that can be run.");
  }
  std::error_code error;
  const fs::path self = fs::read_symlink("/proc/self/exe", error);
  if (const fs::path neighbour = self.parent_path() / "xrdefrag"; !error && isProgram(neighbour)) {
    return neighbour.string();
  }
  const std::string found = findProgram("xrdefrag");
  if (found.empty()) {
    return fail(
        ExitStatus::NotStarted,
        "xrdefrag was found neither next to this program nor on PATH; --program says where it is.");
  }
  return found;
}

std::string findDevice(const std::string& word) {
  std::error_code error;
  const fs::path node = fs::path("/dev") / word;
  if (word.find('/') == std::string::npos && !fs::exists(word, error) && fs::exists(node, error)) {
    return node.string();
  }
  return absolute(word);
}

}  // namespace view
