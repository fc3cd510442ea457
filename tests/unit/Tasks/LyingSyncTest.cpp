// A device that says of one sync that it was done, and loses power before the next one: what was
// written before that sync may be lost, kept or torn, whatever becomes of what was written since.
// No order of writes helps against that; these tests hold what is left then to what the program's
// documents say. XRDEFRAG_LIES=n asks for n states (2,500 by default), XRDEFRAG_TEST_SEED=n
// for the first volume.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>

#include "HFSPlus/HFSPlusByteOrder.hpp"
#include "HFSPlus/HFSPlusRunLocator.hpp"
#include "support/RandomVolume.hpp"
#include "support/SeededRandom.hpp"
#include "support/doubles/PowerCut.hpp"
#include "support/doubles/RecordingDevice.hpp"
#include "support/doubles/TestRandom.hpp"
#include "unit/Tasks/RewritingRun.hpp"

namespace {

using doubles::PowerCut;
using doubles::RecordingDevice;
using Image = std::vector<std::byte>;
using Unsynced = PowerCut::Unsynced;

constexpr size_t kSectorSize = 512;
constexpr size_t kHeaderOffset = 1024;

/// What a sync of a run has to keep.
enum class Kind {
  Beginning,   // the first locator
  Mark,        // the header with the mark
  Record,      // a batch's data, and its record
  Naming,      // the locator that names the record
  Applied,     // the record's bytes in place
  Retiring,    // the locator that names a record no more
  Alternate,   // the alternate header without the mark
  LastHeader,  // the header without the mark
  Erasing,     // the reserved bytes as they were
};

const char* nameOf(Kind kind) {
  constexpr const char* kNames[] = {"beginning", "mark",      "record",      "naming", "applied",
                                    "retiring",  "alternate", "last header", "erasing"};
  return kNames[static_cast<int>(kind)];
}

struct Sync {
  size_t record;  // its place among the changes
  Kind kind;
  size_t namings;                // records that were named before it
  size_t next;                   // the place of the sync after it, or the end
  std::optional<Kind> nextKind;  // what that one keeps
};

std::optional<HFSPlusRunLocator> locatorIn(std::span<const std::byte> sector) {
  for (size_t at = 0; at + HFSPlusRunLocator::kBytes <= sector.size();
       at += HFSPlusRunLocator::kBytes) {
    if (const auto locator =
            HFSPlusRunLocator::fromDisk(sector.subspan(at).first<HFSPlusRunLocator::kBytes>())) {
      return locator;
    }
  }
  return std::nullopt;
}

bool isMarked(std::span<const std::byte> header) {
  DiskOrder<HFSPlusVolumeHeader> image;
  std::ranges::copy(header.first(image.bytes.size()), image.bytes.begin());
  return (toHost(image).attributes & kHFSVolumeInconsistentMask) != 0;
}

/// What a sync keeps that follows on the writes from `first` to before `end`. `previous` is the
/// kind of the one before it.
Kind kindOf(const std::vector<RecordingDevice::Record>& changes, size_t first, size_t end,
            size_t volumeSize, std::optional<Kind> previous) {
  const RecordingDevice::Record& last = changes[end - 1];
  const bool isSector = end > first && last.bytes.size() == kSectorSize;
  if (isSector && (last.offset < kHeaderOffset || last.offset == volumeSize - kSectorSize)) {
    const auto locator = locatorIn(last.bytes);
    return !locator                    ? Kind::Erasing
           : locator->recordBytes != 0 ? Kind::Naming
           : previous                  ? Kind::Retiring
                                       : Kind::Beginning;
  }
  if (previous == Kind::Naming) {
    return Kind::Applied;
  }
  if (isSector && end == first + 1 && last.offset == kHeaderOffset) {
    return isMarked(last.bytes) ? Kind::Mark : Kind::LastHeader;
  }
  if (isSector && end == first + 1 && last.offset == volumeSize - 2 * kSectorSize) {
    return Kind::Alternate;
  }
  return Kind::Record;
}

/// The syncs of a run, or of what followed on the sync of kind `previous` and the naming of so many
/// records.
std::vector<Sync> syncsIn(const std::vector<RecordingDevice::Record>& changes, size_t volumeSize,
                          std::optional<Kind> previous = std::nullopt, size_t namings = 0) {
  std::vector<Sync> syncs;
  size_t first = 0;
  for (size_t i = 0; i < changes.size(); ++i) {
    if (changes[i].call != RecordingDevice::Call::Sync) {
      continue;
    }
    const Kind kind = kindOf(changes, first, i, volumeSize, previous);
    if (!syncs.empty()) {
      syncs.back().next = i;
      syncs.back().nextKind = kind;
    }
    syncs.push_back({i, kind, namings, changes.size(), std::nullopt});
    namings += kind == Kind::Naming ? 1 : 0;
    previous = kind;
    first = i + 1;
  }
  return syncs;
}

/// A volume between two batches.
struct State {
  Image image;
  volumecheck::VolumeTruth truth;
};

State stateOf(Image image) {
  auto truth =
      volumecheck::checkVolumeBytes({reinterpret_cast<const uint8_t*>(image.data()), image.size()})
          .truth;
  return {std::move(image), std::move(truth)};
}

/// Whether all forks but the volume's own have their bytes at the places that they have in a state.
bool holdsContentsOf(const Image& image, const State& state) {
  const uint64_t blockSize = state.truth.header.blockSize;
  const auto isHeld = [&](const volumecheck::Extent& extent) {
    const auto at = static_cast<ptrdiff_t>(extent.startBlock * blockSize);
    const auto end = at + static_cast<ptrdiff_t>(extent.blockCount * blockSize);
    return std::equal(image.begin() + at, image.begin() + end, state.image.begin() + at);
  };
  return std::ranges::all_of(state.truth.forks, [&](const volumecheck::Fork& fork) {
    return fork.cnid < volumecheck::kFirstUserID || std::ranges::all_of(fork.extents, isHeld);
  });
}

bool liesLike(const volumecheck::VolumeTruth& truth, const State& state) {
  return std::ranges::equal(truth.forks, state.truth.forks, {}, &volumecheck::Fork::extents,
                            &volumecheck::Fork::extents);
}

/// Takes the mark off both headers, as a repair tool would.
Image unmarked(Image image) {
  for (const size_t at : {kHeaderOffset, image.size() - 2 * kSectorSize}) {
    DiskOrder<HFSPlusVolumeHeader> disk;
    const auto place = image.begin() + static_cast<ptrdiff_t>(at);
    std::copy_n(place, disk.bytes.size(), disk.bytes.begin());
    HFSPlusVolumeHeader header = toHost(disk);
    header.attributes &= ~kHFSVolumeInconsistentMask;
    header.attributes |= kHFSVolumeUnmountedMask;
    disk = toDisk(header);
    std::ranges::copy(disk.bytes, place);
  }
  return image;
}

/// A run, and what is left of its volume when one of its syncs was a lie.
class BelievingRun {
 public:
  enum class Outcome { Whole, Refused, Mixed };
  using Outcomes = std::map<std::pair<Kind, Outcome>, int>;

  BelievingRun(uint64_t seed, const support::BuiltVolume& built)
      : _random(seed), _before(built.image.begin(), built.image.end()), _run(built) {
    std::shared_ptr<RecordingDevice> recording;
    _run.openThrough([&](std::shared_ptr<PlatformDevice> device) {
      return recording = std::make_shared<RecordingDevice>(std::move(device));
    });
    static_cast<void>(_run.run(seed % 2 == 0 ? "COMPACT -q" : "DEFRAG -q",
                               {.copyBufferBlocks = _random.between(10, 150)}));
    _changes = recording->changes();
    _syncs = syncsIn(_changes, _before.size());
    PowerCut cut(_before, _changes);
    _states.push_back(stateOf(_before));
    for (const Sync& sync : _syncs) {
      if (sync.kind == Kind::Naming) {
        cut.advanceTo(sync.record);
        const auto opened = RewritingRun::reopened(cut.image(Unsynced::Kept));
        EXPECT_TRUE(opened);
        _states.push_back(stateOf(opened ? *opened : _before));
      }
    }
  }

  size_t batches() const { return _states.size() - 1; }

  /// Lets the syncs of the run lie in turn, for about so many states.
  void lie(uint64_t states, Outcomes& outcomes) {
    lie(_before, _changes, _syncs, states, outcomes);
  }

  /// The same for the syncs of an opening that brings a batch to its end.
  void lieInOpening(uint64_t states, Outcomes& outcomes) {
    std::vector<Sync> namings = _syncs;
    std::erase_if(namings, [](const Sync& sync) { return sync.kind != Kind::Naming; });
    const Sync& naming = namings[_random.below(namings.size())];
    PowerCut cut(_before, _changes);
    cut.advanceTo(naming.record + 1);
    const Image image = cut.image(Unsynced::Lost);
    std::vector<RecordingDevice::Record> changes;
    ASSERT_TRUE(RewritingRun::reopened(image, &changes));
    lie(image, changes, syncsIn(changes, image.size(), Kind::Naming, naming.namings + 1), states,
        outcomes);
  }

  /// Loses the data of each batch in turn, and keeps the record and its naming.
  void loseData(Outcomes& outcomes) {
    PowerCut truthful(_before, _changes);
    for (const Sync& sync : _syncs) {
      truthful.advanceTo(sync.record);
      if (sync.kind != Kind::Record ||
          _changes[sync.next - 1].call == RecordingDevice::Call::Sync) {
        continue;
      }
      PowerCut cut = truthful;
      cut.lieAbout(sync.record);
      cut.advanceTo(sync.next);
      Image image = cut.image(Unsynced::Lost, Unsynced::Kept, 0);
      keepRecord(sync, image);
      SCOPED_TRACE("record at " + std::to_string(sync.record));
      ++outcomes[{sync.kind, outcomeOf(sync, image)}];
    }
  }

 private:
  void lie(const Image& before, const std::vector<RecordingDevice::Record>& changes,
           const std::vector<Sync>& syncs, uint64_t states, Outcomes& outcomes) {
    // Of some kinds there are many syncs, and one of others; that one is looked at more closely.
    std::map<Kind, uint64_t> count;
    for (const Sync& sync : syncs) {
      ++count[sync.kind];
    }
    PowerCut truthful(before, changes);
    for (const Sync& sync : syncs) {
      truthful.advanceTo(sync.record);
      const uint64_t perKind = states / count.size();
      const uint64_t mine = perKind / count[sync.kind] +
                            (_random.below(count[sync.kind]) < perKind % count[sync.kind] ? 1 : 0);
      for (uint64_t i = 0; i < mine && !testing::Test::HasFailure(); ++i) {
        PowerCut cut = truthful;
        cut.lieAbout(sync.record);
        cut.advanceTo(_random.between(sync.record + 1, sync.next));
        const Image image = cut.image(kFates[_random.below(std::size(kFates))],
                                      kFates[_random.below(std::size(kFates))], _random.next());
        SCOPED_TRACE(std::string(nameOf(sync.kind)) + " at " + std::to_string(sync.record) +
                     " cut at " + std::to_string(cut.point()));
        ++outcomes[{sync.kind, outcomeOf(sync, image)}];
      }
    }
  }

  static constexpr Unsynced kFates[] = {Unsynced::Lost, Unsynced::Kept, Unsynced::Torn};

  /// Judges what is left after a sync has lied.
  Outcome outcomeOf(const Sync& sync, const Image& image) {
    const State& last = _states[sync.kind == Kind::Applied ? sync.namings - 1 : sync.namings];
    const State& next = _states[std::min(sync.namings + 1, _states.size() - 1)];
    std::vector<RecordingDevice::Record> changes;
    const auto opened = RewritingRun::reopened(image, &changes);
    const Image& left = opened ? *opened : image;
    // What a batch moves is at its old place until it is also at the new one.
    const bool isMoved = sync.kind == Kind::Applied;
    EXPECT_TRUE(holdsContentsOf(left, isMoved ? _states[sync.namings] : last));
    EXPECT_TRUE(sync.kind != Kind::Naming || holdsContentsOf(left, next));
    if (opened) {
      const bool isWhole = _run.faultsIn(*opened).empty();
      EXPECT_TRUE(isWhole || mayMix(sync)) << _run.faultsIn(*opened);
      return isWhole ? Outcome::Whole : Outcome::Mixed;
    }
    const std::string error = opened.error().description();
    EXPECT_TRUE(changes.empty());
    EXPECT_TRUE(error.ends_with(" is inconsistent.") || error == "Overflow extent record missing.")
        << error;
    const Image mended = unmarked(image);
    const bool isWhole = _run.faultsIn(mended).empty();
    EXPECT_TRUE(isWhole || mayMix(sync)) << _run.faultsIn(mended);
    if (!mayMix(sync) || sync.kind == Kind::Record) {
      EXPECT_TRUE(isWhole);
      EXPECT_TRUE(liesLike(stateOf(mended).truth, last));
    }
    return isWhole ? Outcome::Refused : Outcome::Mixed;
  }

  /// Whether metadata may be of two batches, or that of what was not copied, after a lie of a sync.
  static bool mayMix(const Sync& sync) {
    if (sync.kind == Kind::Applied) {
      // As long as the record is named and the header marked, opening applies it again.
      return !sync.nextKind || sync.nextKind == Kind::Retiring || sync.nextKind == Kind::LastHeader;
    }
    return sync.kind == Kind::Naming || sync.kind == Kind::Record;
  }

  /// Puts the record that the naming after a sync names where it was written.
  void keepRecord(const Sync& sync, Image& image) const {
    const auto locator = locatorIn(_changes[sync.next - 1].bytes);
    ASSERT_TRUE(locator);
    const uint64_t offset = uint64_t{locator->recordBlock} * _states[0].truth.header.blockSize;
    size_t i = sync.record;
    while (i > 0 && _changes[i].offset != offset) {
      --i;
    }
    for (; i < sync.record; ++i) {
      std::ranges::copy(_changes[i].bytes,
                        image.begin() + static_cast<ptrdiff_t>(_changes[i].offset));
    }
  }

  support::SeededRandom _random;
  Image _before;
  RewritingRun _run;
  std::vector<RecordingDevice::Record> _changes;
  std::vector<Sync> _syncs;
  std::vector<State> _states;
};

/// Makes runs of several batches, one after the other, until there is enough of them.
void makeRuns(int most, const std::function<void(BelievingRun&)>& use) {
  int runs = 0;
  for (uint64_t seed = numberFromEnvironment("XRDEFRAG_TEST_SEED", 1); runs < most; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    support::RandomVolumeOptions options;
    options.mostBytes = 1 << 20;
    options.mostFiles = 40;
    options.fillPercent = 50 + 12 * (seed % 5);
    options.wrapper = false;
    auto description = support::randomVolume(seed, options);
    const auto built = support::tryBuildVolume(description);
    if (!built) {
      continue;
    }
    BelievingRun run(seed, *built);
    if (run.batches() >= 3) {
      use(run);
      ++runs;
    }
    ASSERT_FALSE(testing::Test::HasFailure());
  }
}

using Outcome = BelievingRun::Outcome;
using Outcomes = BelievingRun::Outcomes;

constexpr int kRuns = 8;

uint64_t statesARun() {
  return numberFromEnvironment("XRDEFRAG_LIES", 2400) / 2 / kRuns;
}

/// That nothing happens but what is said, and that it does; `rare` outcomes need not. Tells how
/// often.
void expectOutcomes(const Outcomes& outcomes, const std::set<Outcomes::key_type>& usual,
                    const std::set<Outcomes::key_type>& rare = {}) {
  constexpr const char* kNames[] = {"whole", "refused", "mixed"};
  const auto textOf = [&](const Outcomes::key_type& outcome) {
    return std::string(nameOf(outcome.first)) + ", " + kNames[static_cast<int>(outcome.second)];
  };
  for (const auto& [outcome, count] : outcomes) {
    testing::Test::RecordProperty(textOf(outcome), count);
    EXPECT_TRUE(usual.contains(outcome) || rare.contains(outcome)) << textOf(outcome);
  }
  for (const auto& outcome : usual) {
    EXPECT_TRUE(outcomes.contains(outcome)) << textOf(outcome);
  }
}

TEST(LyingSync, OfARunCostsNoMoreThanIsSaid) {
  Outcomes outcomes;
  makeRuns(kRuns, [&](BelievingRun& run) { run.lie(statesARun(), outcomes); });
  expectOutcomes(outcomes,
                 {{Kind::Beginning, Outcome::Whole},
                  {Kind::Beginning, Outcome::Refused},
                  {Kind::Mark, Outcome::Whole},
                  {Kind::Record, Outcome::Whole},
                  {Kind::Record, Outcome::Refused},
                  {Kind::Naming, Outcome::Whole},
                  {Kind::Naming, Outcome::Mixed},
                  {Kind::Applied, Outcome::Whole},
                  {Kind::Alternate, Outcome::Whole},
                  {Kind::LastHeader, Outcome::Whole},
                  {Kind::LastHeader, Outcome::Refused},
                  {Kind::Erasing, Outcome::Whole}},
                 {{Kind::Record, Outcome::Mixed},
                  {Kind::Naming, Outcome::Refused},
                  {Kind::Applied, Outcome::Refused},
                  {Kind::Applied, Outcome::Mixed},
                  {Kind::Retiring, Outcome::Whole},
                  {Kind::Retiring, Outcome::Refused}});
}

TEST(LyingSync, OfAnOpeningCostsNoMoreThanIsSaid) {
  Outcomes outcomes;
  makeRuns(kRuns, [&](BelievingRun& run) { run.lieInOpening(statesARun(), outcomes); });
  expectOutcomes(outcomes,
                 {{Kind::Applied, Outcome::Whole},
                  {Kind::LastHeader, Outcome::Whole},
                  {Kind::LastHeader, Outcome::Refused},
                  {Kind::Erasing, Outcome::Whole}},
                 {{Kind::Applied, Outcome::Mixed},
                  {Kind::Applied, Outcome::Refused},
                  {Kind::Alternate, Outcome::Whole}});
}

// The one lie that nobody can tell from the truth: the record is there, what it relies on is not.
TEST(LyingSync, ThatLosesDataLeavesItWhereItWas) {
  Outcomes outcomes;
  makeRuns(kRuns / 2, [&](BelievingRun& run) { run.loseData(outcomes); });
  // Some flushes have no data of their own, and what was not copied may be a tree that is needed.
  expectOutcomes(outcomes, {{Kind::Record, Outcome::Mixed}},
                 {{Kind::Record, Outcome::Whole}, {Kind::Record, Outcome::Refused}});
}

}  // namespace
