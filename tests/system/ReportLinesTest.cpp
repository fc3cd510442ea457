// The lines of every command, byte by byte, and what every option of every command leads to.

#include <algorithm>
#include <array>

#include "system/ProtocolSuite.hpp"

namespace {

using support::forkAt;

/// A volume of 512 blocks of 4096 bytes of which every extent is known, dates excepted.
support::VolumeDescription knownVolume() {
  support::VolumeDescription description;
  description.size = 2 << 20;
  auto& root = description.root();
  auto& letter =
      root.addFile("letter", forkAt({{300, 2}, {310, 3}}, 5 * 4096 - 1), forkAt({{320, 1}}, 100));
  letter.type = 0x54455854;
  letter.creator = 0xABCD0123;
  root.addFile("a,b\\c", forkAt({{330, 4}}, 4 * 4096));
  std::vector<support::BlockExtent> pieces;
  for (uint32_t piece = 0; piece < 10; ++piece) {
    pieces.push_back({340 + 3 * piece, 1});
  }
  auto& folder = root.addFolder("folder");
  folder.addFile("empty");
  folder.addFile("pieces", forkAt(pieces, 10 * 4096));
  folder.addFile("with/slash", {}, forkAt({{380, 1}, {382, 1}}, 2 * 4096));
  return description;
}

constexpr std::string_view kPieces = ",340,1,343,1,346,1,349,1,352,1,355,1,358,1,361,1,364,1,367,1";

class ReportLines : public ProtocolSuite {
 protected:
  static void SetUpTestSuite() {
    ProtocolSuite::SetUpTestSuite();
    known = folder / "known.hfs";
    support::buildVolume(knownVolume(), known);
  }

  /// What a command prints on the known volume after READY, with D for the dates of every file.
  static Lines answer(const std::string& line) {
    Lines lines = transcript({known}, line + "\n");
    EXPECT_EQ(lines.front(), "READY");
    lines.erase(lines.begin());
    std::ranges::transform(lines, lines.begin(), withoutDates);
    return lines;
  }

  /// What a command that fails prints.
  static Lines failure(const std::string& task, const std::string& message) {
    return {task + ",START", task + ",ERROR," + message, task + ",DONE"};
  }

  static std::string withoutDates(std::string line) {
    constexpr size_t kFirstDate = 5;
    if (line.find(",FILE,") != line.find(',')) {
      return line;
    }
    size_t at = 0;
    const auto skipFields = [&](size_t count) {
      for (; count > 0 && at < line.size(); ++at) {
        if (line[at] == '\\') {
          ++at;
        } else if (line[at] == ',') {
          --count;
        }
      }
    };
    skipFields(kFirstDate);
    const size_t first = at;
    skipFields(3);
    return line.replace(first, at - first, "D,");
  }

  static inline std::string known;
};

}  // namespace

TEST_F(ReportLines, ScanListsEveryFileInTheOrderOfTheCatalog) {
  EXPECT_EQ(answer("SCAN"),
            (Lines{"SCAN,START", "SCAN,FILE,2,17,a\\,b\\\\c,D,00000000,00000000,330,4",
                   "SCAN,FILE,2,16,letter,D,54455854,ABCD0123,300,2,310,3,320,1",
                   "SCAN,FILE,18,19,empty,D,00000000,00000000",
                   "SCAN,FILE,18,20,pieces,D,00000000,00000000" + std::string(kPieces),
                   "SCAN,FILE,18,21,with:slash,D,00000000,00000000,380,1,382,1", "SCAN,DONE"}));
}

TEST_F(ReportLines, ScanGivesFullPathsWhenAsked) {
  const Lines expected = {
      "SCAN,START",
      "SCAN,FILE,2,17,/a\\,b\\\\c,D,00000000,00000000,330,4",
      "SCAN,FILE,2,16,/letter,D,54455854,ABCD0123,300,2,310,3,320,1",
      "SCAN,FILE,18,19,/folder/empty,D,00000000,00000000",
      "SCAN,FILE,18,20,/folder/pieces,D,00000000,00000000" + std::string(kPieces),
      "SCAN,FILE,18,21,/folder/with:slash,D,00000000,00000000,380,1,382,1",
      "SCAN,DONE"};
  EXPECT_EQ(answer("SCAN -f"), expected);
  EXPECT_EQ(answer("scan --full-paths -f"), expected);
}

TEST_F(ReportLines, ScanListsFilesInPiecesOnlyWhenAsked) {
  EXPECT_EQ(answer("SCAN --frag-only"),
            (Lines{"SCAN,START", "SCAN,FILE,2,16,letter,D,54455854,ABCD0123,300,2,310,3,320,1",
                   "SCAN,FILE,18,20,pieces,D,00000000,00000000" + std::string(kPieces),
                   "SCAN,FILE,18,21,with:slash,D,00000000,00000000,380,1,382,1", "SCAN,DONE"}));
  EXPECT_EQ(answer("SCAN -f --frag-only").at(1),
            "SCAN,FILE,2,16,/letter,D,54455854,ABCD0123,300,2,310,3,320,1");
}

TEST_F(ReportLines, ScanReportsAnUnknownOptionAfterItsLines) {
  for (const char* option : {"-F", "--frag", "--FULL-PATHS", "x,y", "/"}) {
    Lines expected = answer("SCAN");
    const std::string_view text = option;
    expected.insert(expected.end() - 1,
                    "SCAN,ERROR,Unknown option: " + (text == "x,y" ? "x\\,y" : std::string(text)));
    EXPECT_EQ(answer("SCAN " + std::string(option)), expected);
  }
}

TEST_F(ReportLines, FragInfoSumsUpTheForks) {
  EXPECT_EQ(answer("FRAGINFO"), (Lines{"FRAGINFO,START", "FRAGINFO,17,22,77", "FRAGINFO,DONE"}));
  EXPECT_EQ(answer("FRAGINFO --cnid 2"), failure("FRAGINFO", "Unknown option: --cnid"));
}

TEST_F(ReportLines, MapFindsItemsByIDAndByPath) {
  const std::string root = "MAP,DIR,1,2,";
  const std::string directory = "MAP,DIR,2,18,/folder";
  const std::string letter = "MAP,FILE,2,16,/letter,D,54455854,ABCD0123,300,2,310,3,320,1";
  const std::string slash = "MAP,FILE,18,21,/folder/with:slash,D,00000000,00000000,380,1,382,1";
  const auto mapped = [](const Lines& lines) {
    Lines expected = lines;
    expected.insert(expected.begin(), "MAP,START");
    expected.emplace_back("MAP,DONE");
    return expected;
  };
  EXPECT_EQ(answer("MAP --cnid 2"), mapped({root}));
  EXPECT_EQ(answer("MAP -i 18 -p /letter --path /folder/with:slash --cnid 16abc"),
            mapped({directory, letter, slash, letter}));
  EXPECT_EQ(answer("MAP -p letter -p //folder//"), mapped({letter, directory}));
  EXPECT_EQ(answer("MAP -p /folder/missing"), mapped({directory}));
  EXPECT_EQ(answer("MAP -i 20"),
            mapped({"MAP,FILE,18,20,/folder/pieces,D,00000000,00000000" + std::string(kPieces)}));
}

TEST_F(ReportLines, MapSaysWhatItCannotMap) {
  EXPECT_EQ(answer("MAP"), failure("MAP", "No options specified."));
  for (const char* option : {"-i", "--cnid", "-p", "--path"}) {
    EXPECT_EQ(answer("MAP " + std::string(option)),
              failure("MAP", "Option " + std::string(option) + " requires an argument."));
  }
  for (const char* word : {"0", "-1", "x", "4294967296", "99999999999999999999", "--cnid"}) {
    EXPECT_EQ(answer("MAP -i " + std::string(word)),
              failure("MAP", std::string(word) + " is not a valid CNID."));
  }
  EXPECT_EQ(answer("MAP -i 4294967295"), failure("MAP", "Lookup failed for CNID 4294967295."));
  EXPECT_EQ(answer("MAP -p /missing"), failure("MAP", "Lookup failed for path /missing."));
  EXPECT_EQ(answer("MAP -p /mis,sing\\"),
            failure("MAP", "Lookup failed for path /mis\\\\\\,sing\\\\\\\\."));
  EXPECT_EQ(answer("MAP -p /" + std::string(256, 'x')),
            failure("MAP",
                    "Unicode path conversion failed. A path component exceeded the maximum "
                    "allowed length."));
}

TEST_F(ReportLines, MapKeepsWhatItHasMappedBeforeAnError) {
  const Lines expected = {"MAP,START", "MAP,DIR,1,2,", "MAP,ERROR,Unknown option: x", "MAP,DONE"};
  EXPECT_EQ(answer("MAP x -i 2"), expected);
  EXPECT_EQ(answer("MAP -i 2 x"), expected);
  EXPECT_EQ(answer("MAP y -i 2 x"), expected);
  EXPECT_EQ(answer("MAP x -i 2 -p"),
            (Lines{"MAP,START", "MAP,DIR,1,2,", "MAP,ERROR,Option -p requires an argument.",
                   "MAP,DONE"}));
  EXPECT_EQ(answer("MAP -i 2 -i 0 -i 2"),
            (Lines{"MAP,START", "MAP,DIR,1,2,", "MAP,ERROR,0 is not a valid CNID.", "MAP,DONE"}));
}

TEST_F(ReportLines, BitmapDrawsTheVolume) {
  const auto truth = volumecheck::checkVolumeFile(known).truth;
  for (const uint32_t scale : {1U, 7U, 64U, 512U, 1000U}) {
    const Lines lines = answer("BITMAP " + std::to_string(scale));
    const uint32_t bytes = ((512 + scale - 1) / scale + 7) / 8;
    ASSERT_EQ(lines.size(), 6U);
    EXPECT_EQ(lines[0], "BITMAP,START");
    EXPECT_EQ(lines[1], "BITMAP,LENGTH," + std::to_string(bytes));
    EXPECT_TRUE(lines[2].starts_with("BITMAP,DATA,")) << lines[2];
    EXPECT_EQ(lines[2].size(), std::string_view("BITMAP,DATA,").size() + size_t{2} * bytes);
    EXPECT_EQ(lines[2].find_first_not_of("0123456789ABCDEF", 12), std::string::npos);
    EXPECT_TRUE(lines[3].starts_with("BITMAP,FIRSTUNUSEDBLOCK,")) << lines[3];
    EXPECT_EQ(lines[4], "BITMAP,LASTUSEDBLOCK,382");
    EXPECT_EQ(lines[5], "BITMAP,DONE");
  }
  // Blocks 376 to 399: of these 380 and 382 are in use.
  EXPECT_EQ(answer("BITMAP 1").at(2).substr(12 + 376 / 4, 6), "0A0000");
}

TEST_F(ReportLines, BitmapPrintsFullLinesAndARest) {
  // 16384 blocks: one full line of 4096 digits, or parts of one.
  const Lines one = transcript({volume}, "BITMAP 1\n");
  ASSERT_EQ(one.size(), 7U);
  EXPECT_EQ(one[2], "BITMAP,LENGTH,2048");
  EXPECT_EQ(one[3].size(), 12U + 4096);
  const Lines three = transcript({volume}, "BITMAP 3\n");
  EXPECT_EQ(three[2], "BITMAP,LENGTH,683");
  EXPECT_EQ(three[3].size(), 12U + 1366);
}

TEST_F(ReportLines, BitmapWantsOneScaleAndPerhapsAMask) {
  EXPECT_EQ(answer("BITMAP"), failure("BITMAP", "Scale argument is required."));
  EXPECT_EQ(answer("BITMAP -m"), failure("BITMAP", "Scale argument is required."));
  for (const char* word : {"0", "-1", "x", "-M", "--mask", ".5"}) {
    EXPECT_EQ(answer("BITMAP " + std::string(word)),
              failure("BITMAP", std::string(word) + " is not a positive integer."));
  }
  EXPECT_EQ(answer("BITMAP 1 2"), failure("BITMAP", "Unknown option: 2"));
  EXPECT_EQ(answer("BITMAP -m 1 --x y"), failure("BITMAP", "Unknown option: --x"));
  EXPECT_EQ(answer("BITMAP 4blocks"), answer("BITMAP 4"));
  EXPECT_EQ(answer("BITMAP -m 4"), answer("BITMAP 4 -m"));
  EXPECT_EQ(answer("BITMAP 99999999999999999999").at(1), "BITMAP,LENGTH,1");
}

TEST_F(ReportLines, RewritingCommandsRefuseWhatTheyDoNotKnow) {
  for (const std::string task : {"DEFRAG", "COMPACT"}) {
    for (const char* word : {"x", "--profiles", "-Q", "-i"}) {
      EXPECT_EQ(answer(task + " -q " + word),
                failure(task, "Unknown option: " + std::string(word)));
    }
  }
  EXPECT_EQ(answer("COMPACT --profile boot"), failure("COMPACT", "Unknown option: --profile"));
  for (const char* option : {"-p", "--profile"}) {
    EXPECT_EQ(answer("DEFRAG -q " + std::string(option)),
              failure("DEFRAG", "Option " + std::string(option) + " requires an argument."));
    EXPECT_EQ(answer("DEFRAG " + std::string(option) + " app,nap"),
              failure("DEFRAG", "Unknown profile: nap"));
    EXPECT_EQ(answer("DEFRAG " + std::string(option) + " ,"),
              failure("DEFRAG", "Unknown profile: \\,"));
  }
}

TEST_F(ReportLines, AVerboseRunTellsEveryMove) {
  const fs::path copy = folder / "copy.hfs";
  fs::copy_file(known, copy, fs::copy_options::overwrite_existing);
  ProgramRunner program({copy});
  program.writeLine("DEFRAG");
  const Lines lines = program.readUntil("DEFRAG,DONE");
  program.writeLine("FRAGINFO");
  EXPECT_EQ(program.readUntil("FRAGINFO,DONE").at(1), "FRAGINFO,0,22,0");
  program.closeInput();
  EXPECT_EQ(program.waitForExit(), 0);
  ASSERT_GT(lines.size(), 3U);
  for (size_t index = 2; index + 1 < lines.size(); ++index) {
    EXPECT_TRUE(lines[index].starts_with("DEFRAG,PROGRESS,")) << lines[index];
    EXPECT_EQ(std::ranges::count(lines[index], ','), 6) << lines[index];
  }
  const auto before = volumecheck::checkVolumeFile(known);
  const auto after = volumecheck::checkVolumeFile(copy);
  EXPECT_TRUE(after.findings.empty()) << after.report();
  EXPECT_EQ(volumecheck::compareVolumes(before.truth, after.truth), Lines{});
}
