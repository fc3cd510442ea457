#include "base/Files.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>

namespace view {

namespace {

struct Closer {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

std::unexpected<Failure> trouble(const std::string& path) {
  return fail(ExitStatus::FileTrouble, path + ": " + std::strerror(errno) + ".");
}

bool writeAll(std::FILE* file, std::string_view bytes) {
  return std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size() && std::fflush(file) == 0;
}

}  // namespace

Outcome<std::string> readFile(const std::string& path, size_t bytesMax) {
  const std::unique_ptr<std::FILE, Closer> file(std::fopen(path.c_str(), "re"));
  if (!file) {
    return trouble(path);
  }
  std::string bytes;
  std::string buffer(65536, '\0');
  while (const size_t count = std::fread(buffer.data(), 1, buffer.size(), file.get())) {
    bytes.append(buffer, 0, count);
    if (bytes.size() > bytesMax) {
      return fail(ExitStatus::FileTrouble, path + " is too large for what it should be.");
    }
  }
  if (std::ferror(file.get()) != 0) {
    return trouble(path);
  }
  return bytes;
}

Outcome<> writeFile(const std::string& path, std::string_view bytes) {
  struct stat status = {};
  const bool isThere = ::stat(path.c_str(), &status) == 0;
  if (isThere && !S_ISREG(status.st_mode)) {
    const std::unique_ptr<std::FILE, Closer> file(std::fopen(path.c_str(), "we"));
    return file && writeAll(file.get(), bytes) ? Outcome<>() : trouble(path);
  }
  std::string draft = path + ".XXXXXX";
  const int descriptor = ::mkstemp(draft.data());
  if (descriptor < 0) {
    return trouble(path);
  }
  const mode_t mask = ::umask(0);
  ::umask(mask);
  const std::unique_ptr<std::FILE, Closer> file(::fdopen(descriptor, "w"));
  const bool written = file && writeAll(file.get(), bytes) &&
                       ::fchmod(descriptor, isThere ? status.st_mode & 0777 : 0666 & ~mask) == 0 &&
                       std::rename(draft.c_str(), path.c_str()) == 0;
  if (!written) {
    const auto failure = trouble(path);
    ::unlink(draft.c_str());
    return failure;
  }
  return {};
}

}  // namespace view
