// Single things wrong with an otherwise sound volume, which once made a run go wrong: it takes them
// as they are, or refuses, and costs no file a byte.

#include <gtest/gtest.h>

#include "HFSPlus/HFSPlusByteOrder.hpp"
#include "support/VolumeSurgeon.hpp"
#include "unit/Tasks/RewritingRun.hpp"

namespace {

using Image = std::vector<std::byte>;

constexpr const char* kLines[] = {"DEFRAG", "COMPACT"};

/// Files in pieces, one of them in so many that the overflow file tells of most.
support::VolumeDescription scatteredVolume() {
  support::VolumeDescription volume;
  volume.fillPercent = 60;
  for (int i = 0; i < 9; ++i) {
    volume.root().addFile("file " + std::to_string(i), support::fork(40'000, 5));
  }
  volume.root().addFile("pieces", support::fork(60 * 4096, 60));
  return volume;
}

/// A volume that has been damaged after it was built.
class DamagedVolume {
 public:
  explicit DamagedVolume(const std::function<void(VolumeSurgeon&)>& damage)
      : _built(support::buildVolume(scatteredVolume())) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(_built.image.data());
    VolumeSurgeon surgeon({bytes, bytes + _built.image.size()});
    damage(surgeon);
    const auto damaged = std::as_bytes(std::span(surgeon.bytes()));
    std::ranges::copy(damaged, _built.image.begin());
  }

  /// The message of a run, after which the volume must open and hold what it held.
  std::string messageOf(const char* line) const {
    RewritingRun run(_built);
    const auto lines = run.run(line, {.copyBufferBlocks = 7});
    const Image left = run.device().image();
    const auto opened = RewritingRun::reopened(left);
    EXPECT_TRUE(opened) << opened.error().description();
    EXPECT_EQ(differencesIn(left, run.truthBefore()), "");
    return RewritingRun::errorIn(lines);
  }

 private:
  static std::string differencesIn(const Image& image, const volumecheck::VolumeTruth& before) {
    const auto after = volumecheck::checkVolumeBytes(
        {reinterpret_cast<const uint8_t*>(image.data()), image.size()});
    std::string lines;
    for (const std::string& line : volumecheck::compareVolumes(before, after.truth)) {
      lines += line + "\n";
    }
    return lines;
  }

  support::BuiltVolume _built;
};

TEST(DamagedVolumes, AFreeBlockCountThatIsTooSmallStaysOneThatVolumesOpenWith) {
  constexpr size_t kFreeBlocks = 48;  // in the volume header
  const DamagedVolume volume([](VolumeSurgeon& surgeon) {
    // A block that a file owns and the bitmap calls free is counted off once it is marked.
    const uint64_t owned = surgeon.forkByte(surgeon.cnid("/file 3"), 0);
    surgeon.setBitmap(static_cast<uint32_t>(owned / surgeon.truth().header.blockSize), false);
    surgeon.setHeader(kFreeBlocks, 4, 0);
  });
  for (const char* line : kLines) {
    SCOPED_TRACE(line);
    EXPECT_EQ(volume.messageOf(line), "");
  }
}

TEST(DamagedVolumes, AThreadThatLeadsToAnotherFileEndsTheRun) {
  constexpr size_t kNameLength = 8;  // in a thread record
  const DamagedVolume volume([](VolumeSurgeon& surgeon) {
    const auto thread = surgeon.thread("/file 3");
    const auto length = surgeon.get(thread.data + kNameLength, 2);
    surgeon.set(thread.data + kNameLength + 2 * length, 2, '4');
  });
  for (const char* line : kLines) {
    EXPECT_EQ(volume.messageOf(line),
              "File ID = 19 (file 4) could not be found. The catalog file may be corrupt.");
  }
}

TEST(DamagedVolumes, TwoFilesWithOneIDEndTheRun) {
  constexpr size_t kFileID = 8;  // in a file record
  const DamagedVolume volume([](VolumeSurgeon& surgeon) {
    surgeon.set(surgeon.catalogRecord("/file 3").data + kFileID, 4, surgeon.cnid("/file 4"));
  });
  for (const char* line : kLines) {
    const std::string message = volume.messageOf(line);
    EXPECT_TRUE(message.starts_with("Invalid extent range with start block = ") ||
                message == "Catalog file is inconsistent.")
        << message;
  }
}

TEST(DamagedVolumes, PaddingInOverflowKeysIsTakenAsItIs) {
  constexpr size_t kPadding = 3;  // in an overflow key
  const DamagedVolume volume([](VolumeSurgeon& surgeon) {
    surgeon.set(surgeon.leaf(kHFSExtentsFileID).key + kPadding, 1, 0xA5);
  });
  for (const char* line : kLines) {
    EXPECT_EQ(volume.messageOf(line), "");
  }
}

}  // namespace
