#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "support/OutsideReadersProcess.hpp"
#include "support/VolumeCheckerTruth.hpp"

// The HFS Plus readers that Debian ships, as judges that nobody here wrote. Every helper takes the
// path of a volume that is not inside a wrapper; `outsideReadersAgree` cuts embedded ones out.
namespace outsidereaders {

using volumecheck::ForkType;
using volumecheck::Hash128;

// What a reader said, or why it said nothing.
template <typename T>
struct Answer {
  std::optional<T> value;
  std::string whyNot;
};

// --- sleuthkit

struct ListedEntry {
  std::string path;  // control characters shown as '^', symbolic links with their target
  std::uint32_t cnid = 0;
  bool folder = false;
  std::uint64_t size = 0;  // of the data fork; 0 for special files
  std::string md5;         // of the data fork's bytes; all zeros when it could not be read
};
// Every file and folder, each read in full by one run of the program.
Answer<std::vector<ListedEntry>> fls(const std::string& volume);

struct ReadFork {
  std::uint64_t size = 0;
  Hash128 hash;
};
Answer<ReadFork> icat(const std::string& volume, std::uint32_t cnid, ForkType type);

// The blocks of both forks, in fork order, one number a block.
struct ForkBlocks {
  std::vector<std::uint32_t> data, resource;
};
Answer<ForkBlocks> istat(const std::string& volume, std::uint32_t cnid);

struct VolumeNumbers {
  std::uint64_t files = 0, folders = 0, blockSize = 0, lastBlock = 0, freeBlocks = 0;
};
Answer<VolumeNumbers> fsstat(const std::string& volume);

// --- 7-Zip

struct ArchiveEntry {
  std::string path;
  bool folder = false;
  bool stream = false;  // a resource fork ("…:rsrc") or an extended attribute
  std::uint64_t size = 0;
  Hash128 hash;  // files and streams
};
// Every entry in the order of the catalog, each read in full by one run of the program.
Answer<std::vector<ArchiveEntry>> sevenZip(const std::string& volume);
// Its own test of the volume.
Answer<bool> sevenZipTest(const std::string& volume);

// --- libfshfs: the paths of the hierarchy, root included, control characters as \xHH

Answer<std::vector<std::string>> fshfsinfo(const std::string& volume);

// --- partclone: the runs of blocks in use

Answer<std::vector<volumecheck::Extent>> partclone(const std::string& volume,
                                                   std::uint32_t blockSize);

// --- all of them against the checker

enum class ReadMode {
  Quick,     // one 7-Zip run for all forks, icat for the special files and a sample
  EveryFork  // also icat for every fork
};

struct AgreeOptions {
  ReadMode mode = ReadMode::Quick;
  std::size_t icatSample = 16;  // in quick mode
  bool askPartclone = true;     // about the bitmap; can take two seconds
};

// Holds what the outside readers say against the checker's reading (made with hashes and free
// runs): names, counts, the bitmap, and every byte of every fork. Plain sentences, none when all
// agree. A reader that is not installed is a disagreement; the known limits of the readers on
// sound volumes (see the comments in the source) are stepped around one by one.
std::vector<std::string> outsideReadersAgree(const std::string& path,
                                             const volumecheck::VolumeTruth& truth,
                                             const AgreeOptions& options = {});

}  // namespace outsidereaders
