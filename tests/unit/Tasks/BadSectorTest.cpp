// A sector that cannot be read, or not be written either, wherever on the volume it is and whenever
// it turns bad: what needs it says so and ends, nothing is half moved, and once the sector can be
// read again nothing is lost. XRDEFRAG_BAD_SECTOR_MOMENTS=n asks for n moments of each phase of a
// run at which each sector turns bad (4 by default), XRDEFRAG_TEST_SEED=n for others.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <regex>
#include <set>

#include "Tasks/HFSPlusBitmapTask.hpp"
#include "Tasks/HFSPlusDefragTask.hpp"
#include "Tasks/HFSPlusFragInfoTask.hpp"
#include "Tasks/HFSPlusMapTask.hpp"
#include "Tasks/HFSPlusScanTask.hpp"
#include "support/SeededRandom.hpp"
#include "support/VolumeSurgeon.hpp"
#include "support/doubles/AilingDevice.hpp"
#include "support/doubles/RecordingDevice.hpp"
#include "support/doubles/TestRandom.hpp"
#include "unit/Tasks/RewritingRun.hpp"
#include "unit/Tasks/TaskTranscript.hpp"

namespace {

using doubles::AilingDevice;
using doubles::MemoryDevice;
using doubles::RecordingDevice;
using Image = std::vector<std::byte>;

constexpr uint64_t kSectorSize = 512;

/// Trees of more than one level, forks in pieces of every kind, a journal.
support::VolumeDescription deepVolume() {
  support::SeededRandom random(11);
  support::VolumeDescription volume;
  volume.blockSize = 1024;
  volume.fillPercent = 70;
  volume.extentsTree.nodeSize = 512;
  volume.catalog.fragments = 3;
  volume.attributesTree.fragments = 2;
  volume.addJournal(8192);
  volume.root().addFile("pieces", support::fork(150 * 1024, 150));
  for (int i = 0; i < 70; ++i) {
    const std::string name = "a file with a name to fill nodes with " + std::to_string(i);
    auto& folder = i % 4 == 0 ? volume.root().folderAt("Applications/Some.app") : volume.root();
    auto& file = folder.addFile(
        name, support::fork(random.between(1, 9000), static_cast<uint32_t>(random.between(1, 12))));
    file.addAttribute("attribute", support::Bytes(200));
    if (i % 9 == 0) {
      file.resource = support::fork(3000, 3);
      file.addForkAttribute("fork", support::fork(2048, 2));
    }
  }
  return volume;
}

/// A sector by what lies in it.
struct Place {
  const char* what;
  uint64_t offset;
};

/// The volume as it was built, and the sectors of it that may turn bad.
struct Subject {
  Subject() : built(support::buildVolume(deepVolume())) {
    image.assign(built.image.begin(), built.image.end());
    const auto* bytes = reinterpret_cast<const uint8_t*>(image.data());
    const VolumeSurgeon surgeon({bytes, bytes + image.size()});
    addTree(surgeon, kHFSCatalogFileID,
            {"catalog header", "catalog index", "first catalog leaf", "last catalog leaf"});
    addTree(surgeon, kHFSExtentsFileID,
            {"extents header", "extents index", "first extents leaf", "last extents leaf"});
    addTree(
        surgeon, kHFSAttributesFileID,
        {"attributes header", "attributes index", "first attributes leaf", "last attributes leaf"});
    places.push_back({"bitmap", surgeon.forkByte(kHFSAllocationFileID, 0)});
    places.push_back({"volume header", 1024});
    places.push_back({"alternate header", image.size() - 1024});
    places.push_back({"boot blocks", 0});
    places.push_back({"last sector", image.size() - kSectorSize});
    const uint32_t inPieces = surgeon.cnid("/pieces");
    places.push_back({"data", surgeon.forkByte(inPieces, 70 * 1024)});
    places.push_back({"more data", surgeon.forkByte(inPieces, 149 * 1024 + kSectorSize)});
    places.push_back({"journal", surgeon.forkByte(surgeon.cnid("/.journal"), 0)});
    places.push_back(
        {"journal info block", surgeon.forkByte(surgeon.cnid("/.journal_info_block"), 0)});
  }

  void addTree(const VolumeSurgeon& surgeon, uint32_t treeID,
               const std::array<const char*, 4>& names) {
    const auto nodeIn = [&](size_t field) {
      const auto index = static_cast<uint32_t>(surgeon.get(surgeon.treeHeader(treeID, field), 4));
      return surgeon.node(treeID, index);
    };
    EXPECT_GT(surgeon.get(surgeon.treeHeader(treeID, 0), 2), 1U) << names[1];
    places.push_back({names[0], surgeon.node(treeID, 0)});
    places.push_back({names[1], nodeIn(2)});
    places.push_back({names[2], nodeIn(10)});
    places.push_back({names[3], nodeIn(14)});
  }

  support::BuiltVolume built;
  Image image;
  std::vector<Place> places;
};

const Subject& subject() {
  static const Subject made;
  return made;
}

/// Whether a message tells that a sector could not be read.
bool tellsOfReading(const std::string& message, uint64_t offset) {
  static const std::regex form(
      "Read failed with an error 5 at offset ([0-9]+) and size ([0-9]+)\\.");
  std::smatch fields;
  if (!std::regex_match(message, fields, form)) {
    return false;
  }
  const uint64_t first = std::stoull(fields[1]);
  return first <= offset && offset < first + std::stoull(fields[2]);
}

/// The volume on a device whose sectors can turn bad.
struct AilingVolume {
  explicit AilingVolume(const Image& image)
      : memory(std::make_shared<MemoryDevice>(image)),
        ailing(std::make_shared<AilingDevice>(memory)) {}

  Result<> open() {
    volume = TRY(HFSPlusVolume::open(XRDefragVolume("/nowhere/volume", ailing, false, true)));
    return {};
  }

  std::shared_ptr<MemoryDevice> memory;
  std::shared_ptr<AilingDevice> ailing;
  std::unique_ptr<HFSPlusVolume> volume;
};

Transcript reportOf(HFSPlusVolume& volume, const std::string& line) {
  const std::string command = line.substr(0, line.find(' '));
  return command == "SCAN"       ? transcriptOf<HFSPlusScanTask>(volume, line)
         : command == "FRAGINFO" ? transcriptOf<HFSPlusFragInfoTask>(volume, line)
         : command == "MAP"      ? transcriptOf<HFSPlusMapTask>(volume, line)
                                 : transcriptOf<HFSPlusBitmapTask>(volume, line);
}

TEST(BadSector, EndsTheOpeningOfAVolumeThatNeedsIt) {
  const std::set<std::string> needed = {"volume header", "catalog header", "extents header",
                                        "attributes header"};
  const std::set<std::string> needless = {"last catalog leaf",
                                          "last extents leaf",
                                          "last attributes leaf",
                                          "bitmap",
                                          "alternate header",
                                          "data",
                                          "more data",
                                          "journal",
                                          "journal info block",
                                          "boot blocks",
                                          "last sector"};
  for (const Place& place : subject().places) {
    SCOPED_TRACE(place.what);
    AilingVolume volume(subject().image);
    volume.ailing->spoilSector(place.offset, true);
    const auto opened = volume.open();
    EXPECT_TRUE(opened || tellsOfReading(opened.error().description(), place.offset));
    EXPECT_TRUE(!opened || !needed.contains(place.what));
    EXPECT_TRUE(opened || !needless.contains(place.what));
    EXPECT_TRUE(volume.memory->image() == subject().image);
    volume.ailing->heal();
    EXPECT_TRUE(volume.open());
    EXPECT_TRUE(volume.memory->image() == subject().image);
  }
}

TEST(BadSector, InTheReservedBytesLeavesAVolumeToLookAtOnly) {
  for (const Place& place : subject().places) {
    if (place.what != std::string("boot blocks") && place.what != std::string("last sector")) {
      continue;
    }
    SCOPED_TRACE(place.what);
    AilingVolume volume(subject().image);
    volume.ailing->spoilSector(place.offset, false);
    ASSERT_TRUE(volume.open());
    EXPECT_EQ(RewritingRun::errorIn(reportOf(*volume.volume, "SCAN")), "");
    const auto run = [&] {
      return RewritingRun::errorIn(transcriptOf(RewritingRun::taskOf(*volume.volume, "DEFRAG")));
    };
    EXPECT_TRUE(tellsOfReading(run(), place.offset));
    EXPECT_TRUE(volume.memory->image() == subject().image);
    volume.ailing->heal();
    EXPECT_EQ(run(), "");
  }
}

TEST(BadSector, EndsTheSearchForAVolumeWhenItIsAHeaders) {
  for (const Place& place : subject().places) {
    SCOPED_TRACE(place.what);
    AilingVolume volume(subject().image);
    volume.ailing->spoilSector(place.offset, false);
    XRDefragVolume device("/nowhere/volume", volume.ailing, false, true);
    const auto probed = HFSPlusVolume::probe(device);
    const bool isHeader = place.offset == 1024 || place.offset == subject().image.size() - 1024;
    EXPECT_EQ(probed.has_value(), !isHeader);
    EXPECT_TRUE(probed || tellsOfReading(probed.error().description(), place.offset));
  }
}

/// A report from a volume with a bad sector is that of the sound one, or its beginning with a
/// message behind it; whether there was one.
bool endsWithMessage(const Transcript& report, const Transcript& sound, uint64_t offset) {
  const std::string error = RewritingRun::errorIn(report);
  if (error.empty()) {
    EXPECT_EQ(report, sound);
    return false;
  }
  EXPECT_TRUE(tellsOfReading(error, offset)) << error;
  EXPECT_EQ(report.back(), sound.back());
  const size_t lines = report.size() - 2;
  EXPECT_GE(lines, 1U);
  EXPECT_LT(lines, sound.size());
  for (size_t i = 0; i < std::min(lines, sound.size()); ++i) {
    // The last line tells as much of its file as could be read.
    EXPECT_TRUE(i + 1 < lines ? report[i] == sound[i] : sound[i].starts_with(report[i]))
        << report[i];
  }
  return true;
}

TEST(BadSector, EndsAReportThatNeedsIt) {
  const std::vector<std::string> lines = {"SCAN",     "SCAN -f",         "SCAN --frag-only",
                                          "FRAGINFO", "MAP -i 16 -i 60", "MAP -p /pieces",
                                          "BITMAP 1", "BITMAP -m 8"};
  AilingVolume healthy(subject().image);
  ASSERT_TRUE(healthy.open());
  std::set<std::string> ended;
  for (const std::string& line : lines) {
    const Transcript sound = reportOf(*healthy.volume, line);
    EXPECT_EQ(RewritingRun::errorIn(sound), "");
    for (const Place& place : subject().places) {
      SCOPED_TRACE(line + ", " + place.what);
      AilingVolume volume(subject().image);
      ASSERT_TRUE(volume.open());
      volume.ailing->spoilSector(place.offset, true);
      if (endsWithMessage(reportOf(*volume.volume, line), sound, place.offset)) {
        ended.insert(line.substr(0, line.find(' ')) + ", " + place.what);
      }
      volume.ailing->heal();
      EXPECT_EQ(reportOf(*volume.volume, line), sound);
      EXPECT_TRUE(volume.memory->image() == subject().image);
    }
  }
  for (const char* pair :
       {"SCAN, first catalog leaf", "SCAN, last catalog leaf", "SCAN, extents index",
        "SCAN, last extents leaf", "FRAGINFO, first catalog leaf", "FRAGINFO, last catalog leaf",
        "FRAGINFO, extents index", "FRAGINFO, last extents leaf", "MAP, catalog index",
        "MAP, extents index", "MAP, last extents leaf", "BITMAP, bitmap"}) {
    EXPECT_TRUE(ended.contains(pair)) << pair;
  }
  for (const std::string& pair : ended) {
    EXPECT_TRUE(pair == "BITMAP, bitmap" || pair.contains("catalog") || pair.contains("extents"))
        << pair;
  }
}

/// Who owns each block: file, fork and block of the fork.
using Owners = std::map<uint32_t, std::tuple<uint32_t, int, std::string, uint32_t>>;

Owners ownersIn(const volumecheck::VolumeTruth& truth) {
  Owners owners;
  for (const volumecheck::Fork& fork : truth.forks) {
    uint32_t forkBlock = 0;
    for (const volumecheck::Extent& extent : fork.extents) {
      for (uint32_t i = 0; i < extent.blockCount; ++i) {
        owners[extent.startBlock + i] = {fork.cnid, static_cast<int>(fork.type), fork.attributeName,
                                         forkBlock++};
      }
    }
  }
  return owners;
}

/// The owners after the moves that a run's lines tell of.
Owners moved(Owners owners, const std::vector<std::string>& lines) {
  for (const RewritingRun::Move& move : RewritingRun::movesIn(lines)) {
    for (uint32_t i = 0; i < move.count; ++i) {
      auto block = owners.extract(move.from + i);
      EXPECT_FALSE(block.empty());
      block.key() = move.to + i;
      EXPECT_TRUE(owners.insert(std::move(block)).inserted);
    }
  }
  return owners;
}

/// Runs of one line in which a sector turns bad.
class AilingRun {
 public:
  /// What a run does up to some call of its device.
  struct Phase {
    const char* what;
    uint64_t endCall;
  };
  enum class Sector { CannotBeRead, CannotBeReadOrWritten };

  explicit AilingRun(std::string line) : _line(std::move(line)), _run(subject().built) {
    start();
    const auto lines = runOnce();
    EXPECT_EQ(RewritingRun::errorIn(lines), "");
    EXPECT_EQ(_run.faultsIn(_memory->image()), "");
    const auto& calls = _recording->records();
    const auto isWrite = [](const RecordingDevice::Record& record) {
      return record.call == RecordingDevice::Call::Write;
    };
    const auto first = std::ranges::find_if(calls, isWrite) - calls.begin();
    // The reserved bytes are read and written as the last thing.
    const auto end = static_cast<ptrdiff_t>(calls.size());
    _phases = {{"checking", static_cast<uint64_t>(first)},
               {"moving", static_cast<uint64_t>(end - kCallsOfEnding)},
               {"ending", static_cast<uint64_t>(end)}};
    for (const RewritingRun::Move& move : RewritingRun::movesIn(lines)) {
      _destinations.push_back(uint64_t{move.to} * subject().built.blockSize);
    }
  }

  const std::vector<Phase>& phases() const { return _phases; }
  /// Byte offsets of where blocks have been moved to.
  const std::vector<uint64_t>& destinations() const { return _destinations; }
  /// How many runs came to which end.
  const std::map<std::string, int>& ends() const { return _ends; }

  /// A run at whose n-th call of the device the sector turns bad.
  void run(uint64_t offset, uint64_t call, Sector sector) {
    const bool mayFailWrites = sector == Sector::CannotBeReadOrWritten;
    start();
    _ailing->at(call, [&] { _ailing->spoilSector(offset, mayFailWrites); });
    const auto lines = runOnce();
    const std::string error = RewritingRun::errorIn(lines);
    EXPECT_EQ(error.empty(), !_ailing->firstFailure().has_value()) << error;
    EXPECT_TRUE(error.empty() || tellsOfReading(error, offset) ||
                (mayFailWrites && tellsOfWriting(error)))
        << error;
    ++_ends[_ailing->firstFailure() ? "ended while " + phaseOf(*_ailing->firstFailure())
                                    : "completed"];
    const auto* told = mayFailWrites ? nullptr : &lines;
    expectNothingLost(_memory->image(), told);
    // The program may be started while the sector is still bad; that makes nothing worse.
    if (!HFSPlusVolume::open(XRDefragVolume("/nowhere/volume", _ailing, false, true))) {
      ++_ends["not opened with the bad sector"];
    }
    expectNothingLost(_memory->image(), told);
  }

  /// The same run again in the same process, once the sector is well.
  void runAgain() {
    _ailing->heal();
    EXPECT_EQ(RewritingRun::errorIn(runOnce()), "");
    expectNothingLost(_memory->image(), nullptr);
  }

 private:
  static constexpr ptrdiff_t kCallsOfEnding = 5;

  static bool tellsOfWriting(const std::string& message) {
    static const std::regex form(
        "Write failure\\.|Write failed with an error 5 at offset [0-9]+ and size [0-9]+\\.");
    return std::regex_match(message, form);
  }

  void start() {
    _memory = std::make_shared<MemoryDevice>(subject().image);
    _recording = std::make_shared<RecordingDevice>(_memory);
    _ailing = std::make_shared<AilingDevice>(_recording);
    _run.openThrough([&](std::shared_ptr<PlatformDevice>) { return _ailing; });
    _recording->clear();
    _callsOfOpening = _ailing->calls();
  }

  std::vector<std::string> runOnce() {
    const auto lines = _run.run(_line, {.copyBufferBlocks = 40});
    EXPECT_EQ(lines.back(), _line.substr(0, _line.find(' ')) + ",DONE");
    return lines;
  }

  std::string phaseOf(uint64_t failure) const {
    const uint64_t call = failure - _callsOfOpening;
    return std::ranges::find_if(_phases, [&](const Phase& phase) { return call < phase.endCall; })
        ->what;
  }

  /// What is left must open and be whole, and lie as the lines have told.
  void expectNothingLost(const Image& left, const std::vector<std::string>* lines) {
    const auto opened = RewritingRun::reopened(left);
    ASSERT_TRUE(opened) << opened.error().description();
    EXPECT_EQ(_run.faultsIn(*opened), "");
    EXPECT_EQ(RewritingRun::reservedBytes(*opened), RewritingRun::reservedBytes(subject().image));
    if (lines) {
      const auto truth = volumecheck::checkVolumeBytes(
          {reinterpret_cast<const uint8_t*>(opened->data()), opened->size()}, {.hashForks = false});
      EXPECT_TRUE(ownersIn(truth.truth) == moved(ownersIn(_run.truthBefore()), *lines));
    }
  }

  std::string _line;
  RewritingRun _run;
  std::shared_ptr<MemoryDevice> _memory;
  std::shared_ptr<RecordingDevice> _recording;
  std::shared_ptr<AilingDevice> _ailing;
  uint64_t _callsOfOpening = 0;
  std::vector<Phase> _phases;
  std::vector<uint64_t> _destinations;
  std::map<std::string, int> _ends;
};

class BadSectorInARun : public testing::TestWithParam<const char*> {
 protected:
  void spoil(AilingRun::Sector sector) {
    AilingRun run(GetParam());
    support::SeededRandom random(numberFromEnvironment("XRDEFRAG_TEST_SEED", 5));
    for (const Place& place : subject().places) {
      spoil(run, place, sector, random);
      ASSERT_FALSE(HasFailure());
    }
    for (int i = 0; i < 4; ++i) {
      spoil(run, {"a destination", random.pick(run.destinations())}, sector, random);
      ASSERT_FALSE(HasFailure());
    }
    for (const auto& [end, count] : run.ends()) {
      RecordProperty(end, count);
    }
    for (const AilingRun::Phase& phase : run.phases()) {
      EXPECT_TRUE(run.ends().contains(std::string("ended while ") + phase.what)) << phase.what;
    }
  }

  static void spoil(AilingRun& run, const Place& place, AilingRun::Sector sector,
                    support::SeededRandom& random) {
    const uint64_t moments = numberFromEnvironment("XRDEFRAG_BAD_SECTOR_MOMENTS", 4);
    uint64_t firstCall = 0;
    for (const AilingRun::Phase& phase : run.phases()) {
      const uint64_t calls = phase.endCall - firstCall;
      for (uint64_t moment = 0; moment < moments; ++moment) {
        const uint64_t call = firstCall + (moment * calls + random.below(calls)) / moments;
        SCOPED_TRACE(std::string(place.what) + " at call " + std::to_string(call));
        run.run(place.offset, call, sector);
        if (random.chance(25)) {
          run.runAgain();
        }
        if (HasFailure()) {
          return;
        }
      }
      firstCall = phase.endCall;
    }
  }
};

TEST_P(BadSectorInARun, EndsItWhenItCannotBeReadAndLeavesNothingHalfMoved) {
  spoil(AilingRun::Sector::CannotBeRead);
}

TEST_P(BadSectorInARun, EndsItWhenItCannotBeReadOrWrittenAndLosesNothing) {
  spoil(AilingRun::Sector::CannotBeReadOrWritten);
}

INSTANTIATE_TEST_SUITE_P(Lines, BadSectorInARun,
                         testing::Values("DEFRAG", "COMPACT", "DEFRAG -p app"));

}  // namespace
