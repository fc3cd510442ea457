// Makes HFS Plus volumes for people, scripts and benchmarks.

#include <getopt.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "support/RandomVolume.hpp"
#include "support/VolumeBuilder.hpp"
#include "support/VolumeNames.hpp"
#include "support/VolumePresets.hpp"

using namespace support;

namespace {

enum Option : int {
  kPreset = 256,
  kSeed,
  kSize,
  kBlockSize,
  kFill,
  kFiles,
  kFragments,
  kFileSize,
  kName,
  kUnwritten,
  kJournal,
  kWrapper,
  kHFSX,
  kBinaryNames,
  kCatalogNode,
  kExtentsNode,
  kCatalogFragments,
  kExtentsFragments,
  kLocked,
  kDirty,
  kInconsistent,
  kAnomalies,
  kPlacement,
  kList,
  kHelp
};

constexpr option kOptions[] = {{"preset", required_argument, nullptr, kPreset},
                               {"seed", required_argument, nullptr, kSeed},
                               {"size", required_argument, nullptr, kSize},
                               {"block-size", required_argument, nullptr, kBlockSize},
                               {"fill", required_argument, nullptr, kFill},
                               {"files", required_argument, nullptr, kFiles},
                               {"fragments", required_argument, nullptr, kFragments},
                               {"file-size", required_argument, nullptr, kFileSize},
                               {"name", required_argument, nullptr, kName},
                               {"unwritten", no_argument, nullptr, kUnwritten},
                               {"journal", optional_argument, nullptr, kJournal},
                               {"wrapper", no_argument, nullptr, kWrapper},
                               {"hfsx", no_argument, nullptr, kHFSX},
                               {"binary-names", no_argument, nullptr, kBinaryNames},
                               {"catalog-node-size", required_argument, nullptr, kCatalogNode},
                               {"extents-node-size", required_argument, nullptr, kExtentsNode},
                               {"catalog-fragments", required_argument, nullptr, kCatalogFragments},
                               {"extents-fragments", required_argument, nullptr, kExtentsFragments},
                               {"locked", no_argument, nullptr, kLocked},
                               {"dirty", no_argument, nullptr, kDirty},
                               {"inconsistent", no_argument, nullptr, kInconsistent},
                               {"anomalies", no_argument, nullptr, kAnomalies},
                               {"placement", no_argument, nullptr, kPlacement},
                               {"list", no_argument, nullptr, kList},
                               {"help", no_argument, nullptr, kHelp},
                               {}};

void printHelp() {
  std::printf(
      "Usage: makevolume [OPTION]... FILE\n"
      "Make an HFS Plus volume in FILE, which is replaced. The same options make the same bytes.\n"
      "\n"
      "  --preset NAME            one of the volumes below instead of a plain one\n"
      "  --seed N                 decides everything that is left open (1)\n"
      "\n"
      "A plain volume:\n"
      "  --size N[K|M|G|T]        its size; without, what --fill makes of the files\n"
      "  --block-size N           512 to 16777216 (4096)\n"
      "  --fill PERCENT           how full it is (50)\n"
      "  --files N                how many files it has (200)\n"
      "  --file-size N[K|M|G]     their average size; without, what --size and --fill ask\n"
      "  --fragments N            the most pieces of a fork (6)\n"
      "  --unwritten              leave the files' blocks unwritten\n"
      "\n"
      "Any volume:\n"
      "  --name TEXT              the volume's name\n"
      "  --journal[=N[K|M]]       journaled, with an empty journal of that size (512K)\n"
      "  --wrapper                inside an HFS wrapper\n"
      "  --hfsx, --binary-names   HFSX, and with case-sensitive names\n"
      "  --catalog-node-size N    4096 to 32768\n"
      "  --extents-node-size N    512 to 32768\n"
      "  --catalog-fragments N    pieces of the catalog file\n"
      "  --extents-fragments N    pieces of the extents file, at most 8\n"
      "  --locked, --dirty, --inconsistent\n"
      "                           the volume's state\n"
      "  --anomalies              (random) also blocks that the bitmap has wrong\n"
      "  --placement              (random) always with boot playlist, applications and hot files\n"
      "  --list                   print ID, fork, size, blocks, extents and path of every fork\n"
      "  --help                   print this text and exit\n"
      "\n"
      "Presets:\n");
  for (const VolumePreset& preset : volumePresets())
    std::printf("  %-8s %s\n", preset.name.data(), preset.summary.data());
}

[[noreturn]] void misuse(const std::string& what) {
  std::fprintf(stderr, "makevolume: %s\nTry --help.\n", what.c_str());
  std::exit(2);
}

// A number with an optional K, M, G or T behind it.
uint64_t numberFrom(const char* text) {
  char* end = nullptr;
  errno = 0;
  const uint64_t number = std::strtoull(text, &end, 0);
  const std::string_view units = "KMGT";
  const size_t unit = *end == '\0' ? std::string_view::npos : units.find(*end);
  const size_t shift = unit == std::string_view::npos ? 0 : 10 * (unit + 1);
  const bool whole = *end == '\0' || (shift != 0 && end[1] == '\0');
  if (end == text || !whole || errno != 0 || *text == '-' || number > UINT64_MAX >> shift)
    misuse(std::string("not a number: ") + text);
  return number << shift;
}

uint32_t smallNumberFrom(const char* text) {
  const uint64_t number = numberFrom(text);
  if (number > UINT32_MAX)
    misuse(std::string("too large: ") + text);
  return static_cast<uint32_t>(number);
}

// What the command line asks, over all kinds of volumes.
struct Request {
  PlainVolume plain;
  std::string preset;
  std::optional<std::string> name;
  std::optional<uint64_t> size, journal;
  std::optional<uint32_t> blockSize, fill, catalogNode, extentsNode;
  std::optional<uint32_t> catalogFragments, extentsFragments;
  uint32_t attributesSet = 0;
  uint32_t attributesCleared = 0;
  bool wrapper = false;
  bool hfsx = false;
  bool binaryNames = false;
  bool anomalies = false;
  bool placement = false;
  bool list = false;
  std::string file;
};

bool takeNumber(Request& request, int option, const char* value) {
  switch (option) {
    case kSeed:
      request.plain.seed = numberFrom(value);
      return true;
    case kSize:
      request.size = numberFrom(value);
      return true;
    case kBlockSize:
      request.blockSize = smallNumberFrom(value);
      return true;
    case kFill:
      request.fill = smallNumberFrom(value);
      return true;
    case kFiles:
      request.plain.files = smallNumberFrom(value);
      return true;
    case kFragments:
      request.plain.fragments = smallNumberFrom(value);
      return true;
    case kFileSize:
      request.plain.fileSize = numberFrom(value);
      return true;
    case kJournal:
      request.journal = value == nullptr ? 512 * 1024 : numberFrom(value);
      return true;
    case kCatalogNode:
      request.catalogNode = smallNumberFrom(value);
      return true;
    case kExtentsNode:
      request.extentsNode = smallNumberFrom(value);
      return true;
    case kCatalogFragments:
      request.catalogFragments = smallNumberFrom(value);
      return true;
    case kExtentsFragments:
      request.extentsFragments = smallNumberFrom(value);
      return true;
    default:
      return false;
  }
}

void takeOption(Request& request, int option, const char* value) {
  if (takeNumber(request, option, value))
    return;
  switch (option) {
    case kPreset:
      request.preset = value;
      break;
    case kName:
      request.name = value;
      break;
    case kUnwritten:
      request.plain.unwritten = true;
      break;
    case kWrapper:
      request.wrapper = true;
      break;
    case kBinaryNames:
      request.binaryNames = true;
      [[fallthrough]];
    case kHFSX:
      request.hfsx = true;
      break;
    case kLocked:
      request.attributesSet |= kVolumeSoftwareLock;
      break;
    case kInconsistent:
      request.attributesSet |= kVolumeInconsistent;
      break;
    case kDirty:
      request.attributesCleared |= kVolumeUnmounted;
      break;
    case kAnomalies:
      request.anomalies = true;
      break;
    case kPlacement:
      request.placement = true;
      break;
    case kList:
      request.list = true;
      break;
    case kHelp:
      printHelp();
      std::exit(0);
    default:
      misuse("unknown option");
  }
}

Request requestFrom(int argc, char** argv) {
  Request request;
  opterr = 0;
  for (int option; (option = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;)
    takeOption(request, option, optarg);
  if (argc - optind != 1)
    misuse("name one file to make");
  request.file = argv[optind];
  return request;
}

VolumeDescription startingPoint(const Request& request) {
  if (request.preset.empty()) {
    PlainVolume plain = request.plain;
    plain.size = request.size.value_or(0);
    plain.blockSize = request.blockSize.value_or(plain.blockSize);
    plain.fillPercent = request.fill.value_or(plain.fillPercent);
    return plainVolume(plain);
  }
  if (request.preset == "random") {
    RandomVolumeOptions options;
    options.mostBytes = request.size.value_or(options.mostBytes);
    options.blockSize = request.blockSize;
    options.fillPercent = request.fill;
    options.hfsx = request.hfsx;
    options.anomalies = request.anomalies;
    options.placementHints = request.placement;
    return randomVolume(request.plain.seed, options);
  }
  for (const VolumePreset& preset : volumePresets()) {
    if (preset.name != request.preset)
      continue;
    VolumeDescription volume = preset.make(request.plain.seed);
    volume.size = request.size.value_or(volume.size);
    volume.fillPercent = request.fill.value_or(volume.fillPercent);
    volume.blockSize = request.blockSize.value_or(volume.blockSize);
    return volume;
  }
  misuse("no such preset: " + request.preset);
}

VolumeDescription describedBy(const Request& request) {
  VolumeDescription volume = startingPoint(request);
  if (request.name)
    volume.name = storedName(*request.name);
  if (request.journal && volume.journalFile == nullptr)
    volume.addJournal(*request.journal);
  volume.wrapper |= request.wrapper;
  volume.hfsx |= request.hfsx;
  volume.binaryNames |= request.binaryNames;
  volume.attributesSet |= request.attributesSet;
  volume.attributesCleared |= request.attributesCleared;
  volume.catalog.nodeSize = request.catalogNode.value_or(volume.catalog.nodeSize);
  volume.extentsTree.nodeSize = request.extentsNode.value_or(volume.extentsTree.nodeSize);
  volume.catalog.fragments = request.catalogFragments.value_or(volume.catalog.fragments);
  volume.extentsTree.fragments = request.extentsFragments.value_or(volume.extentsTree.fragments);
  return volume;
}

void listForks(const BuiltVolume& volume) {
  for (const BuiltFork& fork : volume.forks) {
    const char* kind = fork.isAttribute ? "attr" : fork.forkType == kDataFork ? "data" : "rsrc";
    std::printf("%" PRIu32 " %s %" PRIu64 " %" PRIu32 " ", fork.fileID, kind, fork.logicalSize,
                fork.totalBlocks);
    for (size_t i = 0; i < fork.extents.size(); ++i) {
      std::printf("%s%" PRIu32 "+%" PRIu32, i == 0 ? "" : ",", fork.extents[i].start,
                  fork.extents[i].count);
    }
    std::printf(" %s\n", volume.path(fork.fileID).c_str());
  }
}

}  // namespace

// Sparse images are easily asked for by mistake with hundreds of gibibytes of stamped files.
void refuseTooMuchData(const Request& request) {
  constexpr uint64_t kMostWritten = uint64_t{16} << 30;
  const PlainVolume& plain = request.plain;
  const uint64_t filled = request.size.value_or(0) / 100 * request.fill.value_or(plain.fillPercent);
  const uint64_t data = plain.fileSize != 0 ? plain.fileSize * plain.files : filled;
  if (request.preset.empty() && !plain.unwritten && data > kMostWritten)
    misuse("this would write more than 16 GiB of data; --unwritten leaves it out");
}

int main(int argc, char** argv) {
  const Request request = requestFrom(argc, argv);
  refuseTooMuchData(request);
  const auto built = tryBuildVolume(describedBy(request), std::filesystem::path(request.file));
  if (!built) {
    std::fprintf(stderr, "makevolume: %s\n", built.error().c_str());
    return 1;
  }
  if (request.list)
    listForks(*built);
  return 0;
}
