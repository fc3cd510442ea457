#include "support/OutsideReaders.hpp"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace outsidereaders {

namespace {

using volumecheck::StreamHasher;

std::string complaintOf(const std::vector<std::string>& words, const ProcessResult& result) {
  std::string text = words[0];
  if (!result.started) {
    return text + " is not installed";
  }
  if (result.timedOut) {
    return text + " did not come to an end";
  }
  for (std::size_t i = 1; i < words.size(); ++i) {
    text += " " + words[i];
  }
  const std::string& said = result.errors.empty() ? result.output : result.errors;
  return text + " failed with status " + std::to_string(result.status) + ": " + said.substr(0, 300);
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

// The number after `label` at the start of one of the lines; 0 when there is none.
std::uint64_t numberAfter(const std::vector<std::string>& lines, const std::string& label) {
  for (const std::string& line : lines) {
    if (line.starts_with(label)) {
      return std::strtoull(line.c_str() + label.size(), nullptr, 10);
    }
  }
  return 0;
}

// "md5|path|inode|mode|uid|gid|size|four dates"; only the path may hold bars of its own.
std::optional<ListedEntry> entryFrom(const std::string& line) {
  static constexpr int kFieldsAfterPath = 9;
  std::vector<std::string> fields;
  std::size_t end = line.size();
  while (fields.size() < kFieldsAfterPath) {
    const std::size_t bar = end == 0 ? std::string::npos : line.rfind('|', end - 1);
    if (bar == std::string::npos) {
      return std::nullopt;
    }
    fields.insert(fields.begin(), line.substr(bar + 1, end - bar - 1));
    end = bar;
  }
  const std::size_t first = line.find('|');
  if (first >= end) {
    return std::nullopt;
  }
  ListedEntry entry;
  entry.md5 = line.substr(0, first);
  entry.path = line.substr(first + 1, end - first - 1);
  entry.cnid = static_cast<std::uint32_t>(std::strtoul(fields[0].c_str(), nullptr, 10));
  entry.folder = fields[1].starts_with("d/");
  entry.size = std::strtoull(fields[4].c_str(), nullptr, 10);
  return entry;
}

std::vector<std::uint32_t> blocksAfter(const std::vector<std::string>& lines,
                                       const std::string& heading) {
  std::vector<std::uint32_t> blocks;
  auto line = std::find(lines.begin(), lines.end(), heading);
  if (line == lines.end()) {
    return blocks;
  }
  for (++line; line != lines.end() && !line->empty(); ++line) {
    // "277" or "37-38"; nobody asks for forks of more than this many blocks.
    static constexpr std::size_t kBlocksMax = 1 << 24;
    std::istringstream words(*line);
    for (std::string word; words >> word;) {
      const std::size_t dash = word.find('-');
      const std::uint64_t first = std::strtoull(word.c_str(), nullptr, 10);
      const std::uint64_t last =
          dash == std::string::npos ? first : std::strtoull(word.c_str() + dash + 1, nullptr, 10);
      for (std::uint64_t block = first; block <= last && blocks.size() < kBlocksMax; ++block) {
        blocks.push_back(static_cast<std::uint32_t>(block));
      }
    }
  }
  return blocks;
}

// The entries of a technical listing: blocks of "Field = value" lines after a line of dashes.
std::vector<ArchiveEntry> entriesFrom(const std::string& listing) {
  std::vector<ArchiveEntry> entries;
  bool listed = false;
  bool afterBlank = true;
  for (const std::string& line : linesOf(listing)) {
    const auto valueOf = [&line](const char* field) -> std::optional<std::string> {
      const std::string start = std::string(field) + " = ";
      return line.starts_with(start) ? std::optional(line.substr(start.size())) : std::nullopt;
    };
    if (line.starts_with("----------")) {
      listed = true;
    } else if (const auto path = valueOf("Path"); listed && afterBlank && path) {
      entries.push_back({*path, false, false, 0, {}});
    } else if (!entries.empty()) {
      ArchiveEntry& entry = entries.back();
      if (const auto folder = valueOf("Folder")) {
        entry.folder = *folder == "+";
      } else if (const auto size = valueOf("Size")) {
        entry.size = std::strtoull(size->c_str(), nullptr, 10);
      } else if (const auto stream = valueOf("Alternate Stream")) {
        entry.stream = *stream == "+";
      }
    }
    afterBlank = line.empty() || line.starts_with("----------");
  }
  return entries;
}

// Takes the bytes of all files and streams, one after the other, and gives each its hash.
class EntryHasher {
 public:
  explicit EntryHasher(std::vector<ArchiveEntry>& entries) : _entries(entries) { _finishDone(); }

  void take(std::span<const std::uint8_t> bytes) {
    while (!bytes.empty() && _at < _entries.size()) {
      const std::uint64_t part = std::min<std::uint64_t>(bytes.size(), _entries[_at].size - _taken);
      _hasher.update(bytes.first(part));
      _taken += part;
      bytes = bytes.subspan(part);
      _finishDone();
    }
    _surplus += bytes.size();
  }
  // True when there were exactly as many bytes as the entries say.
  bool complete() const { return _at == _entries.size() && _surplus == 0; }

 private:
  void _finishDone() {
    while (_at < _entries.size() && (_entries[_at].folder || _taken == _entries[_at].size)) {
      if (!_entries[_at].folder) {
        _entries[_at].hash = _hasher.finish();
      }
      _hasher = StreamHasher();
      _taken = 0;
      ++_at;
    }
  }

  std::vector<ArchiveEntry>& _entries;
  StreamHasher _hasher;
  std::size_t _at = 0;
  std::uint64_t _taken = 0;
  std::uint64_t _surplus = 0;
};

}  // namespace

Answer<std::vector<ListedEntry>> fls(const std::string& volume) {
  const std::vector<std::string> words{"fls", "-f", "hfs", "-r", "-m", "/", "-h", volume};
  const ProcessResult result = runProgram(words);
  if (!result.succeeded()) {
    return {std::nullopt, complaintOf(words, result)};
  }
  std::vector<ListedEntry> entries;
  for (const std::string& line : linesOf(result.output)) {
    if (auto entry = entryFrom(line)) {
      entries.push_back(std::move(*entry));
    }
  }
  return {std::move(entries), {}};
}

Answer<ReadFork> icat(const std::string& volume, std::uint32_t cnid, ForkType type) {
  // The special files are known by their number alone; for others the type picks the fork.
  std::string address = std::to_string(cnid);
  if (cnid >= volumecheck::kFirstUserID) {
    address += type == ForkType::Resource ? "-4353" : "-4352";
  }
  const std::vector<std::string> words{"icat", "-f", "hfs", volume, address};
  ReadFork read;
  StreamHasher hasher;
  const ProcessResult result = runProgram(words, [&](std::span<const std::uint8_t> bytes) {
    read.size += bytes.size();
    hasher.update(bytes);
  });
  if (!result.succeeded() || !result.errors.empty()) {
    return {std::nullopt, complaintOf(words, result)};
  }
  read.hash = hasher.finish();
  return {read, {}};
}

Answer<ForkBlocks> istat(const std::string& volume, std::uint32_t cnid) {
  const std::vector<std::string> words{"istat", "-f", "hfs", volume, std::to_string(cnid)};
  const ProcessResult result = runProgram(words);
  if (!result.succeeded()) {
    return {std::nullopt, complaintOf(words, result)};
  }
  const std::vector<std::string> lines = linesOf(result.output);
  return {ForkBlocks{blocksAfter(lines, "Data Fork Blocks:"),
                     blocksAfter(lines, "Resource Fork Blocks:")},
          {}};
}

Answer<VolumeNumbers> fsstat(const std::string& volume) {
  const std::vector<std::string> words{"fsstat", "-f", "hfs", volume};
  const ProcessResult result = runProgram(words);
  if (!result.succeeded()) {
    return {std::nullopt, complaintOf(words, result)};
  }
  const std::vector<std::string> lines = linesOf(result.output);
  VolumeNumbers numbers;
  numbers.files = numberAfter(lines, "Number of files: ");
  numbers.folders = numberAfter(lines, "Number of folders: ");
  numbers.blockSize = numberAfter(lines, "Allocation Block Size: ");
  numbers.lastBlock = numberAfter(lines, "Block Range: 0 - ");
  numbers.freeBlocks = numberAfter(lines, "Number of Free Blocks: ");
  return {numbers, {}};
}

Answer<std::vector<ArchiveEntry>> sevenZip(const std::string& volume) {
  const std::vector<std::string> list{"7zz", "l", "-slt", "-sns", "-thfs", volume};
  const ProcessResult listing = runProgram(list);
  if (!listing.succeeded()) {
    return {std::nullopt, complaintOf(list, listing)};
  }
  std::vector<ArchiveEntry> entries = entriesFrom(listing.output);
  EntryHasher hasher(entries);
  const std::vector<std::string> extract{"7zz", "x", "-so", "-sns", "-thfs", volume};
  const ProcessResult result =
      runProgram(extract, [&](std::span<const std::uint8_t> bytes) { hasher.take(bytes); });
  if (!result.succeeded()) {
    return {std::nullopt, complaintOf(extract, result)};
  }
  if (!hasher.complete()) {
    return {std::nullopt, "7zz gives other sizes when it lists than when it extracts"};
  }
  return {std::move(entries), {}};
}

Answer<bool> sevenZipTest(const std::string& volume) {
  const std::vector<std::string> words{"7zz", "t", "-thfs", volume};
  const ProcessResult result = runProgram(words);
  if (!result.started) {
    return {std::nullopt, complaintOf(words, result)};
  }
  return {result.succeeded(), result.succeeded() ? "" : complaintOf(words, result)};
}

Answer<std::vector<std::string>> fshfsinfo(const std::string& volume) {
  const std::vector<std::string> words{"fshfsinfo", "-H", volume};
  const ProcessResult result = runProgram(words);
  if (!result.succeeded() || !result.errors.empty()) {
    return {std::nullopt, complaintOf(words, result)};
  }
  std::vector<std::string> paths;
  for (const std::string& line : linesOf(result.output)) {
    if (line.starts_with("/")) {
      paths.push_back(line);
    }
  }
  return {std::move(paths), {}};
}

Answer<std::vector<volumecheck::Extent>> partclone(const std::string& volume,
                                                   std::uint32_t blockSize) {
  // The domain log is the map of the blocks in use; making it copies no data.
  std::string folder = std::filesystem::temp_directory_path() / "outside-readers-XXXXXX";
  if (::mkdtemp(folder.data()) == nullptr) {
    return {std::nullopt, "there is no room for partclone's map"};
  }
  const std::string map = folder + "/map";
  // Refreshed every second, its progress thread does not hold up the end.
  const std::vector<std::string> words{"partclone.hfsp", "-q", "-f",   "1",  "-D", "-L",
                                       folder + "/log",  "-s", volume, "-O", map};
  const ProcessResult result = runProgram(words);
  std::vector<volumecheck::Extent> used;
  std::ifstream lines(map);
  for (std::string line; std::getline(lines, line);) {
    unsigned long long position = 0;
    unsigned long long size = 0;
    char status = 0;
    if (std::sscanf(line.c_str(), "0x%llx 0x%llx %c", &position, &size, &status) == 3 &&
        status == '+') {
      used.push_back({static_cast<std::uint32_t>(position / blockSize),
                      static_cast<std::uint32_t>(size / blockSize)});
    }
  }
  std::filesystem::remove_all(folder);
  if (!result.succeeded()) {
    return {std::nullopt, complaintOf(words, result)};
  }
  return {std::move(used), {}};
}

}  // namespace outsidereaders
