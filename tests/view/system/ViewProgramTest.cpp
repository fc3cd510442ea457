#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <map>

#include "support/VolumeBuilder.hpp"
#include "support/VolumeChecker.hpp"
#include "view/system/ViewFixture.hpp"

namespace {

using Words = std::vector<std::string>;

/// A stand-in's answers to everything but the command that a test is about: a volume of 64 blocks
/// with one file in two pieces.
std::string answers(const std::string& special) {
  return R"(
while read -r line; do
  case $line in
)" + special +
         R"(
  BITMAP*) printf 'READY\nBITMAP,START\nBITMAP,LENGTH,8\nBITMAP,DATA,FF00FF0000000000\n'
           printf 'BITMAP,FIRSTUNUSEDBLOCK,8\nBITMAP,LASTUSEDBLOCK,23\nBITMAP,DONE\n' ;;
  SCAN*) printf 'SCAN,START\nSCAN,FILE,2,16,/one,0,0,0,00000000,00000000,4,4,16,8\nSCAN,DONE\n' ;;
  FRAGINFO) printf 'FRAGINFO,START\nFRAGINFO,12,12,100\nFRAGINFO,DONE\n' ;;
  QUIT) exit 0 ;;
  esac
done)";
}

/// The number behind a name in a JSON document of ours.
uint64_t figure(const std::string& json, const std::string& name) {
  const size_t place = json.find("\"" + name + "\": ");
  return place == std::string::npos ? UINT64_MAX
                                    : std::stoull(json.substr(place + name.size() + 4));
}

class ViewProgramTest : public ViewTest {};

}  // namespace

TEST_F(ViewProgramTest, ItsFiguresAreThoseOfAnIndependentReader) {
  const auto checked = volumecheck::checkVolumeFile(volume);
  std::map<uint32_t, std::pair<uint64_t, bool>> files;  // pieces, and whether a fork is in several
  for (const auto& item : checked.truth.items) {
    if (item.type == volumecheck::RecordType::File) {
      files[item.cnid];
    }
  }
  for (const auto& fork : checked.truth.forks) {
    if (const auto file = files.find(fork.cnid);
        file != files.end() && fork.type != volumecheck::ForkType::Attribute) {
      file->second.first += fork.extents.size();
      file->second.second |= fork.extents.size() > 1;
    }
  }
  uint64_t pieces = 0;
  uint64_t fragmented = 0;
  for (const auto& [id, file] : files) {
    pieces += file.first;
    fragmented += file.second ? 1 : 0;
  }
  const Result result = run({"--json", volume});
  EXPECT_EQ(result.status, 0) << result.diagnostics;
  EXPECT_EQ(figure(result.output, "files"), files.size());
  EXPECT_EQ(figure(result.output, "pieces"), pieces);
  EXPECT_EQ(figure(result.output, "fragmentedFiles"), fragmented);
  EXPECT_EQ(figure(result.output, "blocks"), checked.truth.header.totalBlocks);
  EXPECT_EQ(figure(result.output, "freeBlocks"), checked.truth.header.freeBlocks);
  EXPECT_EQ(figure(result.output, "blockBytes"), checked.truth.header.blockSize);
}

TEST_F(ViewProgramTest, WithoutATerminalItPrintsAShortReport) {
  const Result result = run({volume});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output, run({"--summary", volume}).output);
  EXPECT_NE(result.output.find("Most fragmented files"), std::string::npos);
  EXPECT_EQ(result.diagnostics, "");
}

TEST_F(ViewProgramTest, AnOrdinaryUserLooksAndDefragmentsInANamespace) {
  if (::geteuid() != 0) {
    GTEST_SKIP() << "only root can become nobody";
  }
  const std::string path = scratchVolume();
  ASSERT_EQ(::chown(path.c_str(), 65534, 65534), 0);
  const Result result = run({"--defrag", "--yes", "--summary", path}, ProgramSetup::User::Nobody);
  if (result.diagnostics.find("user namespace") != std::string::npos) {
    GTEST_SKIP() << result.diagnostics;
  }
  EXPECT_EQ(result.status, 0) << result.diagnostics;
  EXPECT_NE(result.output.find("0 (0.0 %)"), std::string::npos) << result.output;
  expectIntact(path);
}

TEST_F(ViewProgramTest, DefragmentingShowsBeforeAndAfter) {
  const std::string path = scratchVolume();
  const Result result = run({"-d", "-y", "-j", "-r", pathOf("page.html"), path});
  EXPECT_EQ(result.status, 0) << result.diagnostics;
  const size_t after = result.output.find("\"after\": ");
  ASSERT_NE(after, std::string::npos);
  EXPECT_GT(figure(result.output, "fragmentedFiles"), 0U);
  EXPECT_EQ(figure(result.output.substr(after), "fragmentedFiles"), 0U);
  EXPECT_NE(readFile(pathOf("page.html")).find("<figcaption>After</figcaption>"),
            std::string::npos);
  EXPECT_NE(result.diagnostics.find("Defragmenting: "), std::string::npos) << result.diagnostics;
  expectIntact(path);
}

TEST_F(ViewProgramTest, CompactingLeavesOneFreeRun) {
  const std::string path = scratchVolume();
  const Result result = run({"--compact", "--yes", "--summary", path});
  EXPECT_EQ(result.status, 0) << result.diagnostics;
  EXPECT_NE(result.output.find("Largest free run"), std::string::npos);
  EXPECT_EQ(figure(run({"--json", path}).output, "freeRuns"), 1U);
  expectIntact(path);
}

TEST_F(ViewProgramTest, NothingIsRewrittenWithoutAYes) {
  const std::string path = scratchVolume();
  const Result result = run({"--defrag", path});
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.diagnostics.find("--yes"), std::string::npos);
  EXPECT_EQ(readFile(path), readFile(volume));
}

TEST_F(ViewProgramTest, SavedPicturesAreCompared) {
  const std::string path = scratchVolume();
  EXPECT_EQ(run({"--save", pathOf("a.json"), path}).output, "");
  EXPECT_EQ(run({"-d", "-y", "-o", pathOf("b.json"), path}).status, 0);
  const Result text = run({"--compare", pathOf("a.json"), pathOf("b.json")});
  EXPECT_EQ(text.status, 0) << text.diagnostics;
  EXPECT_NE(text.output.find("Fragmented files"), std::string::npos);
  const Result page =
      run({"--compare", "-r", pathOf("c.html"), pathOf("a.json"), pathOf("b.json")});
  EXPECT_EQ(page.status, 0) << page.diagnostics;
  EXPECT_NE(readFile(pathOf("c.html")).find("<figcaption>Before</figcaption>"), std::string::npos);
}

TEST_F(ViewProgramTest, FilesThatCannotBeUsedAreNamed) {
  EXPECT_EQ(run({"--compare", pathOf("none.json"), pathOf("none.json")}).status, 6);
  EXPECT_EQ(run({"--compare", volume, volume}).status, 6);
  const Result result = run({"--report", pathOf("no/such/page.html"), volume});
  EXPECT_EQ(result.status, 6);
  EXPECT_NE(result.diagnostics.find("no/such/page.html"), std::string::npos);
}

TEST_F(ViewProgramTest, HelpAndMistakesHaveTheirStatus) {
  EXPECT_EQ(run({"--help"}).status, 0);
  EXPECT_EQ(run({"--version"}).output.substr(0, 14), "xrdefrag-view ");
  EXPECT_EQ(run({}).status, 2);
  EXPECT_EQ(run({"--bogus"}).status, 2);
}

TEST_F(ViewProgramTest, AVolumeThatIsRefusedIsSaidWhy) {
  const Result none = run({pathOf("no.such.volume")});
  EXPECT_EQ(none.status, 1);
  EXPECT_NE(none.diagnostics.find("xrdefrag-view: "), std::string::npos);
  const Result empty = run({"/dev/null"});
  EXPECT_NE(empty.status, 0);
}

TEST_F(ViewProgramTest, AProgramThatIsNotThereIsSaidSo) {
  EXPECT_EQ(run({"--program", pathOf("none"), volume}).status, 3);
  const Result result = run({"--program", standIn("exit 13"), volume});
  EXPECT_EQ(result.status, 3);
  EXPECT_NE(result.diagnostics.find("must be root"), std::string::npos);
  const Result refused = run({"--program", standIn("echo no password >&2; exit 1"), volume});
  EXPECT_EQ(refused.status, 3);
  EXPECT_NE(refused.diagnostics.find("no password"), std::string::npos);
}

TEST_F(ViewProgramTest, AChildThatDiesIsToldFromOneThatRefuses) {
  const std::string dies = answers("SCAN*) printf 'SCAN,START\\n'; exit 7 ;;");
  const Result ended = run({"--program", standIn(dies), volume});
  EXPECT_EQ(ended.status, 4);
  EXPECT_NE(ended.diagnostics.find("ended with status 7"), std::string::npos);
  const std::string killed = answers("FRAGINFO) kill -9 $$ ;;");
  const Result lost = run({"--program", standIn(killed), volume});
  EXPECT_EQ(lost.status, 4);
  EXPECT_NE(lost.diagnostics.find("signal 9 (SIGKILL)"), std::string::npos) << lost.diagnostics;
  const std::string fails = answers(
      "SCAN*) printf 'SCAN,START\\nSCAN,ERROR,Catalog\\\\, it is inconsistent.\\nSCAN,DONE\\n' ;;");
  const Result refused = run({"--program", standIn(fails), volume});
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.diagnostics, "xrdefrag-view: Catalog, it is inconsistent.\n");
}

TEST_F(ViewProgramTest, ARunIsOverWithDONEWhateverItsPercentage) {
  const std::string body =
      answers("DEFRAG) printf 'DEFRAG,START\\nDEFRAG,PROGRESS,3,16,8,8,12\\nDEFRAG,DONE\\n' ;;");
  const Result result = run({"--defrag", "--yes", "--summary", "--program", standIn(body), volume});
  EXPECT_EQ(result.status, 0) << result.diagnostics;
  EXPECT_NE(result.diagnostics.find("8.0 MiB moved"), std::string::npos) << result.diagnostics;
}

TEST_F(ViewProgramTest, ARunThatFailsSaysWhy) {
  const std::string body = answers(
      "DEFRAG) printf 'DEFRAG,START\\nDEFRAG,ERROR,Volume is mounted.\\nDEFRAG,DONE\\n' ;;");
  const Result result = run({"--defrag", "--yes", "--program", standIn(body), volume});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.diagnostics.find("Volume is mounted."), std::string::npos);
}

TEST_F(ViewProgramTest, ASignalStopsARunAtASafePoint) {
  const std::string path = scratchVolume();
  ProgramSetup how = setup({"--defrag", "--yes", "--summary", path});
  ProgramRunner program(how);
  while (program.isRunning() &&
         program.diagnostics().find("Defragmenting: ") == std::string::npos) {
    ::usleep(1000);
  }
  program.sendSignal(SIGTERM);
  EXPECT_EQ(program.waitForExit(), 5) << program.diagnostics();
  expectIntact(path);
}

TEST_F(ViewProgramTest, ItsOwnDeathLeavesASoundVolume) {
  const std::string path = scratchVolume();
  ProgramRunner program(setup({"--defrag", "--yes", "--summary", path}));
  while (program.isRunning() &&
         program.diagnostics().find("Defragmenting: ") == std::string::npos) {
    ::usleep(1000);
  }
  program.sendSignal(SIGKILL);
  EXPECT_EQ(program.waitForExit(), -SIGKILL);
  // The child has lost its input and ends by itself; the next look waits for nothing but the lock.
  for (int attempt = 0; run({path}).status == 1 && attempt < 500; ++attempt) {
    ::usleep(20000);
  }
  EXPECT_EQ(run({path}).status, 0);
  expectIntact(path);
}

TEST_F(ViewProgramTest, HostileNamesReachNeitherTheTerminalNorThePage) {
  support::VolumeDescription description;
  const char16_t* names[] = {u"</script><script>alert(1)</script>",
                             u"a\nSCAN,DONE",
                             u"\u001b[2Jclear",
                             u"\u202Egnp.exe",
                             u"comma, back\\slash",
                             u"\"quote\" & 'more'"};
  for (const char16_t* name : names) {
    description.root().addFile(std::u16string(name), support::fork(40960, 3));
  }
  description.root().addFile(std::u16string(1, u'\0') + u"x", support::fork(40960, 3));
  const std::string path = pathOf("hostile.hfs");
  support::buildVolume(std::move(description), path);

  const Result text = run({"--summary", path});
  EXPECT_EQ(text.status, 0) << text.diagnostics;
  for (const char* name :
       {"␛[2Jclear", "⟨202E⟩gnp.exe", "a␊SCAN,DONE", "comma, back\\slash", "␀x"}) {
    EXPECT_NE(text.output.find(name), std::string::npos) << name << "\n" << text.output;
  }
  EXPECT_TRUE(std::ranges::none_of(text.output, [](char byte) {
    return (byte >= 0 && byte < 0x20 && byte != '\n') || byte == 0x7F;
  }));
  EXPECT_EQ(run({"--report", pathOf("hostile.html"), path}).status, 0);
  EXPECT_EQ(readFile(pathOf("hostile.html")).find("<script>alert"), std::string::npos);
}
