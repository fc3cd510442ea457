#include "Platform/PlatformMounts.hpp"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>

namespace {

// A line of mountinfo: ID, parent ID, device, root, mount point, options, any number of optional
// fields, "-", file system type, source, super block options.
constexpr size_t kDeviceField = 2;
constexpr size_t kFirstOptionalField = 6;

std::vector<std::string_view> fieldsOf(std::string_view line) {
  std::vector<std::string_view> fields;
  while (!line.empty()) {
    const size_t end = std::min(line.find(' '), line.size());
    fields.push_back(line.substr(0, end));
    line.remove_prefix(std::min(end + 1, line.size()));
  }
  return fields;
}

bool isOctalDigit(char c) {
  return c >= '0' && c <= '7';
}

/// Undoes the kernel's "\040" for characters that would break the line into wrong fields.
std::string unescaped(std::string_view text) {
  std::string result;
  for (size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '\\' && at + 3 < text.size() && isOctalDigit(text[at + 1]) &&
        isOctalDigit(text[at + 2]) && isOctalDigit(text[at + 3])) {
      const int code = (text[at + 1] - '0') * 64 + (text[at + 2] - '0') * 8 + (text[at + 3] - '0');
      result += static_cast<char>(static_cast<unsigned char>(code));
      at += 3;
    } else {
      result += text[at];
    }
  }
  return result;
}

std::optional<PlatformDeviceNumber> parseDevice(std::string_view text) {
  PlatformDeviceNumber device;
  const char* begin = text.data();
  const char* end = begin + text.size();
  const auto [colon, error] = std::from_chars(begin, end, device.major);
  if (error != std::errc() || colon == end || *colon != ':') {
    return std::nullopt;
  }
  const auto [rest, minorError] = std::from_chars(colon + 1, end, device.minor);
  if (minorError != std::errc() || rest != end) {
    return std::nullopt;
  }
  return device;
}

std::optional<PlatformMounts::Mount> parseLine(std::string_view line) {
  const std::vector<std::string_view> fields = fieldsOf(line);
  if (fields.size() < kFirstOptionalField) {
    return std::nullopt;
  }
  const auto separator = std::find(fields.begin() + kFirstOptionalField, fields.end(), "-");
  if (std::distance(separator, fields.end()) < 3) {
    return std::nullopt;
  }
  const auto device = parseDevice(fields[kDeviceField]);
  if (!device) {
    return std::nullopt;
  }
  return PlatformMounts::Mount{.device = *device, .source = unescaped(separator[2])};
}

std::optional<std::string> resolved(const std::string& path) {
  const std::unique_ptr<char, decltype(&std::free)> result(::realpath(path.c_str(), nullptr),
                                                           &std::free);
  return result ? std::optional<std::string>(result.get()) : std::nullopt;
}

}  // namespace

std::vector<PlatformMounts::Mount> PlatformMounts::parse(std::string_view mountInfo) {
  std::vector<Mount> mounts;
  while (!mountInfo.empty()) {
    const size_t end = std::min(mountInfo.find('\n'), mountInfo.size());
    if (auto mount = parseLine(mountInfo.substr(0, end))) {
      mounts.push_back(std::move(*mount));
    }
    mountInfo.remove_prefix(std::min(end + 1, mountInfo.size()));
  }
  return mounts;
}

std::vector<PlatformMounts::Mount> PlatformMounts::current() {
  std::ifstream stream("/proc/self/mountinfo");
  return parse(std::string(std::istreambuf_iterator<char>(stream), {}));
}

bool PlatformMounts::containsSource(const std::vector<Mount>& mounts, std::string_view path) {
  constexpr std::string_view kRawPrefix = "/dev/r";
  std::string blockNode(path);
  if (path.size() > kRawPrefix.size() && path.starts_with(kRawPrefix)) {
    blockNode.erase(kRawPrefix.size() - 1, 1);
  }
  return std::any_of(mounts.begin(), mounts.end(), [&](const Mount& mount) {
    return mount.source == path || mount.source == blockNode;
  });
}

bool PlatformMounts::containsDevice(const std::vector<Mount>& mounts, PlatformDeviceNumber device) {
  return std::any_of(mounts.begin(), mounts.end(),
                     [&](const Mount& mount) { return mount.device == device; });
}

bool PlatformMounts::isMounted(const std::string& path) {
  const std::optional<std::string> place = resolved(path);
  if (!place) {
    return false;
  }
  const std::vector<Mount> mounts = current();
  if (containsSource(mounts, *place)) {
    return true;
  }
  const std::vector<PlatformDeviceNumber> devices = PlatformStorage::devicesSharingBytes(*place);
  return std::any_of(devices.begin(), devices.end(),
                     [&](PlatformDeviceNumber device) { return containsDevice(mounts, device); });
}
