#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <set>

#include "support/OutsideReaders.hpp"
#include "support/OutsideReadersDigest.hpp"

namespace outsidereaders {

namespace {

using volumecheck::CatalogItem;
using volumecheck::Extent;
using volumecheck::Fork;
using volumecheck::RecordType;
using volumecheck::VolumeTruth;

// A volume embedded in an HFS wrapper, copied to a file of its own for as long as this lives.
class CutOutVolume {
 public:
  CutOutVolume(const std::string& path, std::uint64_t offset, std::uint64_t size) {
    _path = std::filesystem::temp_directory_path() / "embedded-volume-XXXXXX";
    const int descriptor = ::mkstemp(_path.data());
    if (descriptor < 0) {
      _path.clear();
      return;
    }
    ::close(descriptor);
    std::ifstream in(path, std::ios::binary);
    std::ofstream out(_path, std::ios::binary);
    in.seekg(static_cast<std::streamoff>(offset));
    std::vector<char> buffer(1 << 20);
    for (std::uint64_t left = size; left > 0;) {
      const std::uint64_t part = std::min<std::uint64_t>(left, buffer.size());
      if (!in.read(buffer.data(), static_cast<std::streamsize>(part))) {
        return;
      }
      out.write(buffer.data(), static_cast<std::streamsize>(part));
      left -= part;
    }
  }
  ~CutOutVolume() {
    if (!_path.empty()) {
      std::filesystem::remove(_path);
    }
  }
  CutOutVolume(const CutOutVolume&) = delete;
  CutOutVolume& operator=(const CutOutVolume&) = delete;
  const std::string& path() const { return _path; }

 private:
  std::string _path;
};

bool isFolder(const CatalogItem& item) {
  return item.type == RecordType::Folder;
}

std::string nameOf(const Fork& fork) {
  return std::string(fork.type == ForkType::Resource ? "resource" : "data") + " fork of file " +
         std::to_string(fork.cnid) + " (" + fork.path + ")";
}

// Asks the readers one after the other and collects what they contradict.
class Comparison {
 public:
  Comparison(const std::string& volume, const VolumeTruth& truth, const AgreeOptions& options)
      : _volume(volume), _truth(truth), _options(options) {
    for (const Fork& fork : truth.forks) {
      _forks[{fork.cnid, fork.type}] = &fork;
      if (fork.type == ForkType::Attribute) {
        _withAttributeForks.insert(fork.cnid);
      }
      _anyStray = _anyStray || fork.strayRecords > 0;
      _anyLongAttribute =
          _anyLongAttribute || (fork.type == ForkType::Attribute && fork.overflowRecords > 0);
      const std::uint64_t blockSize = truth.header.blockSize;
      const std::uint64_t needed = (fork.logicalSize + blockSize - 1) / blockSize;
      _anySpare = _anySpare || (fork.cnid >= volumecheck::kFirstUserID &&
                                fork.type != ForkType::Attribute && fork.totalBlocks > needed);
      _anyAcrossLeaves = _anyAcrossLeaves || fork.overflowLeafNodes > 1;
    }
    for (const CatalogItem& item : truth.items) {
      if (item.linkTarget != 0) {
        _links[item.cnid] = item.linkTarget;
      }
    }
  }

  std::vector<std::string> run() {
    _compareNumbers();
    _compareListing();
    _compareHierarchy();
    if (_options.askPartclone) {
      _compareBitmap();
    }
    // What fls does not read, resource forks, icat must where 7-Zip cannot.
    const bool sevenZipRead = _compareSevenZip();
    _compareIcat(!sevenZipRead);
    return std::move(_disagreements);
  }

 private:
  void _say(const std::string& sentence) { _disagreements.push_back(sentence); }

  template <typename T>
  bool _answered(const Answer<T>& answer) {
    if (!answer.value) {
      _say(answer.whyNot);
    }
    return answer.value.has_value();
  }

  void _compareNumber(const char* what, std::uint64_t said, std::uint64_t ours) {
    if (said != ours) {
      _say(std::string(what) + " says " + std::to_string(said) + " instead of " +
           std::to_string(ours));
    }
  }

  void _compareNumbers() {
    const auto numbers = fsstat(_volume);
    if (!_answered(numbers)) {
      return;
    }
    const auto& header = _truth.header;
    _compareNumber("fsstat's number of files", numbers.value->files, header.fileCount);
    _compareNumber("fsstat's number of folders", numbers.value->folders, header.folderCount);
    _compareNumber("fsstat's block size", numbers.value->blockSize, header.blockSize);
    _compareNumber("fsstat's last block", numbers.value->lastBlock, header.totalBlocks - 1);
    _compareNumber("fsstat's free blocks", numbers.value->freeBlocks, header.freeBlocks);
  }

  // fls shows a hard link under the number of what it leads to, unless the link was not made at
  // the same time as the folder that this lies in, and then under its own. A link to a folder makes
  // it list that folder's content once more, so that volumes with such links cannot be counted.
  void _compareListing() {
    const auto entries = fls(_volume);
    if (!_answered(entries)) {
      return;
    }
    std::map<std::uint32_t, int> surplus;
    for (const CatalogItem& item : _truth.items) {
      if (item.linkTarget != 0 && item.fileType == kFolderLinkType) {
        return;
      }
      if (item.cnid >= volumecheck::kFirstUserID) {
        surplus[item.linkTarget != 0 ? item.linkTarget : item.cnid] -= 1;
      }
    }
    for (const ListedEntry& entry : *entries.value) {
      if (entry.cnid >= volumecheck::kFirstUserID) {
        const auto link = _links.find(entry.cnid);
        surplus[link == _links.end() ? entry.cnid : link->second] += 1;
      }
      const auto fork = _forks.find({entry.cnid, ForkType::Data});
      if (!entry.folder && fork != _forks.end() && _sleuthkitCanRead(*fork->second) &&
          entry.md5 != _md5Of(*fork->second)) {
        _say("fls finds other bytes (" + entry.md5 + ") in the " + nameOf(*fork->second));
      }
    }
    for (const auto& [cnid, count] : surplus) {
      if (count != 0) {
        _say("fls lists ID " + std::to_string(cnid) + " " + std::to_string(count) +
             " times more than the catalog");
      }
    }
  }

  // A node of the tree lies in two extents.
  bool _nodesStraddle(std::uint32_t treeID, const volumecheck::TreeTruth& tree) const {
    const auto fork = _forks.find({treeID, ForkType::Data});
    std::uint64_t end = 0;
    bool straddles = false;
    for (const Extent& extent :
         fork == _forks.end() ? std::vector<Extent>{} : fork->second->extents) {
      end += std::uint64_t{extent.blockCount} * _truth.header.blockSize;
      straddles = straddles || (tree.nodeSize != 0 && end < fork->second->logicalSize &&
                                end % tree.nodeSize != 0);
    }
    return straddles;
  }

  // fshfsinfo refuses a volume without an attributes file, cannot read nodes in two pieces, and
  // crashes at attributes whose forks have more than eight extents.
  void _compareHierarchy() {
    if (_truth.header.attributesFile.totalBlocks == 0 || _anyLongAttribute ||
        _nodesStraddle(volumecheck::kCatalogFileID, _truth.catalogTree) ||
        _nodesStraddle(volumecheck::kExtentsFileID, _truth.extentsTree) ||
        _nodesStraddle(volumecheck::kAttributesFileID, _truth.attributesTree)) {
      return;
    }
    const auto paths = fshfsinfo(_volume);
    if (_answered(paths)) {
      _compareNumber("fshfsinfo's number of paths", paths.value->size(), _truth.items.size());
    }
  }

  // partclone does not look for the bitmap's extents beyond the eighth.
  void _compareBitmap() {
    if (_forks.at({volumecheck::kAllocationFileID, ForkType::Data})->overflowRecords > 0) {
      return;
    }
    const auto used = partclone(_volume, _truth.header.blockSize);
    if (!_answered(used)) {
      return;
    }
    std::vector<Extent> ours;
    std::uint32_t at = 0;
    const auto addUsed = [&ours, &at](std::uint32_t end) {
      if (end > at) {
        ours.push_back({at, end - at});
      }
    };
    for (const Extent& run : _truth.freeRuns) {
      addUsed(run.startBlock);
      at = run.startBlock + run.blockCount;
    }
    addUsed(_truth.header.totalBlocks);
    if (ours != *used.value) {
      _say("partclone's map of used blocks is another one (" + std::to_string(used.value->size()) +
           " runs, here " + std::to_string(ours.size()) + ")");
    }
  }

  // False when 7-Zip could not be asked. It stops when one fork's overflow records span two leaf
  // nodes, at overflow records beyond a fork's end, at attributes whose forks have more than eight
  // extents, and at forks with more blocks than their bytes need.
  bool _compareSevenZip() {
    if (_anyAcrossLeaves || _anyStray || _anyLongAttribute || _anySpare) {
      return false;
    }
    const auto entries = sevenZip(_volume);
    if (!_answered(entries)) {
      return false;
    }
    // Files and folders come in the order of the catalog, each file's resource fork after it,
    // extended attributes at the end.
    auto item = _truth.items.begin();
    for (const ArchiveEntry& entry : *entries.value) {
      if (entry.stream) {
        if (item != _truth.items.begin() && entry.path.ends_with(":rsrc")) {
          _compareRead("7zz", _forkOf(*std::prev(item), ForkType::Resource), entry.size,
                       entry.hash);
        }
        continue;
      }
      if (item == _truth.items.end() || entry.folder != isFolder(*item)) {
        _say("7zz lists " + entry.path + " out of the order of the catalog");
        return false;
      }
      if (!entry.folder) {
        _compareRead("7zz", _forkOf(*item, ForkType::Data), entry.size, entry.hash);
      }
      ++item;
    }
    if (item != _truth.items.end()) {
      _say("7zz does not list " + item->path);
    }
    return true;
  }

  const Fork* _forkOf(const CatalogItem& item, ForkType type) const {
    const auto fork = _forks.find({item.cnid, type});
    return fork == _forks.end() ? nullptr : fork->second;
  }

  void _compareRead(const char* reader, const Fork* fork, std::uint64_t size, const Hash128& hash) {
    if (fork == nullptr || !fork->hashed || fork->logicalSize != size || fork->hash != hash) {
      _say(std::string(reader) + " reads " + std::to_string(size) + " other bytes as the " +
           (fork == nullptr ? "fork of nobody" : nameOf(*fork)));
    }
  }

  // The MD5 digest of the fork as the checker finds it.
  std::string _md5Of(const Fork& fork) const {
    Md5 md5;
    std::string whyNot;
    const auto source = volumecheck::VolumeCheckerSource::openFile(_volume, whyNot);
    if (source == nullptr || !fork.hashed) {
      return whyNot;
    }
    const volumecheck::VolumeCheckerForkReader reader(*source, _truth.header.blockSize,
                                                      fork.extents);
    std::vector<std::uint8_t> buffer(
        std::min<std::uint64_t>(fork.logicalSize, std::uint64_t{1} << 20));
    for (std::uint64_t at = 0; at < fork.logicalSize; at += buffer.size()) {
      const std::uint64_t part = std::min<std::uint64_t>(buffer.size(), fork.logicalSize - at);
      if (!reader.read(at, std::span(buffer).first(part))) {
        return "unreadable";
      }
      md5.update(std::span(buffer).first(part));
    }
    return md5.finish();
  }

  // Sleuthkit reads wrong bytes for files that also have an attribute with a fork of its own,
  // fails on forks with overflow records beyond their end, and knows no empty resource forks, no
  // forks of hard links and no bad block file.
  bool _sleuthkitCanRead(const Fork& fork) const {
    const bool special = fork.cnid < volumecheck::kFirstUserID;
    const bool readable = fork.type != ForkType::Attribute && fork.strayRecords == 0 &&
                          !_withAttributeForks.contains(fork.cnid) && !_links.contains(fork.cnid);
    const bool known = special ? fork.totalBlocks > 0 && fork.cnid != volumecheck::kBadBlockFileID
                               : fork.type == ForkType::Data || fork.logicalSize > 0;
    return readable && known;
  }

  void _compareIcat(bool everyResourceFork) {
    std::vector<const Fork*> forks;
    std::vector<const Fork*> others;
    for (const Fork& fork : _truth.forks) {
      if (_sleuthkitCanRead(fork)) {
        const bool must = _options.mode == ReadMode::EveryFork ||
                          fork.cnid < volumecheck::kFirstUserID ||
                          (everyResourceFork && fork.type == ForkType::Resource);
        (must ? forks : others).push_back(&fork);
      }
    }
    // Of the others a sample, spread evenly.
    const std::size_t sample = std::max<std::size_t>(1, _options.icatSample);
    for (std::size_t i = 0; i < others.size(); i += others.size() / sample + 1) {
      forks.push_back(others[i]);
    }
    for (const Fork* fork : forks) {
      const auto read = icat(_volume, fork->cnid, fork->type);
      if (_answered(read)) {
        _compareRead("icat", fork, read.value->size, read.value->hash);
      }
    }
  }

  static constexpr std::uint32_t kFolderLinkType = 0x66647270;  // 'fdrp'

  const std::string& _volume;
  const VolumeTruth& _truth;
  const AgreeOptions& _options;
  std::map<std::pair<std::uint32_t, ForkType>, const Fork*> _forks;
  std::set<std::uint32_t> _withAttributeForks;
  std::map<std::uint32_t, std::uint32_t> _links;  // to what they lead to
  bool _anyStray = false;
  bool _anyAcrossLeaves = false;
  bool _anyLongAttribute = false;
  bool _anySpare = false;
  std::vector<std::string> _disagreements;
};

}  // namespace

std::vector<std::string> outsideReadersAgree(const std::string& path, const VolumeTruth& truth,
                                             const AgreeOptions& options) {
  if (truth.volumeOffset == 0) {
    return Comparison(path, truth, options).run();
  }
  const CutOutVolume embedded(path, truth.volumeOffset, truth.volumeSize);
  return Comparison(embedded.path(), truth, options).run();
}

}  // namespace outsidereaders
