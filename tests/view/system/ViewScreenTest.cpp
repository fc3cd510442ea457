#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <regex>

#include "view/system/TmuxScreen.hpp"
#include "view/system/ViewFixture.hpp"

namespace {

class ViewScreenTest : public ViewTest {
 protected:
  void SetUp() override {
    if (!TmuxScreen::isAvailable()) {
      GTEST_SKIP() << "tmux is not installed";
    }
  }

  /// The words that start the front end in a shell, with what became of it and of the terminal
  /// behind. Curses keeps some of its memory to the end, which is no leak to be told of.
  static std::string command(const std::string& arguments, const std::string& environment = "") {
    return "LSAN_OPTIONS=detect_leaks=0 " + environment + " " + XRDEFRAG_VIEW_PROGRAM + " " +
           arguments +
           "; echo status $?; stty -a | tr ' ;' '\n\n' | grep -x -e '-*isig' -e '-*icanon' -e "
           "'-*echo'";
  }

  /// Types a command on a screen that shows nothing of the one before.
  static void start(TmuxScreen& screen, const std::string& words) {
    screen.type("clear");
    screen.waitUntilGone("status");
    screen.type(words);
  }

  /// The terminal is as it was, and the program ended with a status.
  static void expectLeft(const TmuxScreen& screen, int status) {
    EXPECT_TRUE(screen.waitFor("status " + std::to_string(status))) << screen.text();
    EXPECT_TRUE(screen.waitFor("\nisig\nicanon\necho\n")) << screen.text();
    EXPECT_EQ(screen.text().find("defragment  c compact"), std::string::npos) << screen.text();
  }

  /// Asks for a run, and answers the question before it.
  static void defragment(TmuxScreen& screen) {
    screen.press("d");
    ASSERT_TRUE(screen.waitFor("Defragment this volume?"));
    screen.press("y");
  }

  static bool hasColour(const TmuxScreen& screen) {
    return std::regex_search(screen.colouredText(), std::regex("\033\\[[34][0-8]"));
  }

  /// The process of the front end that is running in this test's folder.
  static pid_t processOf(const std::string& argument) {
    std::FILE* pipe =
        ::popen(("pgrep -f '^" XRDEFRAG_VIEW_PROGRAM " .*" + argument + "'").c_str(), "r");
    int process = 0;
    if (std::fscanf(pipe, "%d", &process) != 1) {
      process = 0;
    }
    ::pclose(pipe);
    return process;
  }

  /// A stand-in whose rewriting run goes on until it is asked to quit.
  static std::string endlessRun() {
    return standIn(R"(
trap 'echo DEFRAG,DONE; exit 0' TERM
while read -r line; do
  case $line in
  BITMAP*) printf 'READY\nBITMAP,START\nBITMAP,LENGTH,8\nBITMAP,DATA,FF00FF0000000000\n'
           printf 'BITMAP,FIRSTUNUSEDBLOCK,8\nBITMAP,LASTUSEDBLOCK,23\nBITMAP,DONE\n' ;;
  SCAN*) printf 'SCAN,START\nSCAN,FILE,2,16,/one,0,0,0,00000000,00000000,4,4,16,8\nSCAN,DONE\n' ;;
  FRAGINFO) printf 'FRAGINFO,START\nFRAGINFO,12,12,100\nFRAGINFO,DONE\n' ;;
  DEFRAG) printf 'DEFRAG,START\nDEFRAG,PROGRESS,40,16,8,8,12\n' ;;
  QUIT) printf 'DEFRAG,DONE\n'; exit 0 ;;
  esac
done)");
  }
};

}  // namespace

TEST_F(ViewScreenTest, ASmallTerminalShowsMapThenFiles) {
  TmuxScreen screen(folder, 24, 80);
  start(screen, command(volume));
  ASSERT_TRUE(screen.waitFor("d defragment")) << screen.text();
  EXPECT_NE(screen.text().find("323 files in 1,553 pieces"), std::string::npos) << screen.text();
  EXPECT_NE(screen.text().find("several pieces"), std::string::npos);
  EXPECT_NE(screen.colouredText().find("\033[48;5;173m"), std::string::npos);
  screen.press("Tab");
  EXPECT_TRUE(screen.waitFor("60     6.0 MiB  /Archive.dmg")) << screen.text();
  screen.press("q");
  expectLeft(screen, 0);
}

TEST_F(ViewScreenTest, ALargeTerminalShowsBothAndFollowsItsSize) {
  TmuxScreen screen(folder, 80, 300);
  start(screen, command(volume));
  ASSERT_TRUE(screen.waitFor("Most fragmented files")) << screen.text();
  EXPECT_NE(screen.text().find("metadata and immovable"), std::string::npos);
  screen.resize(24, 80);
  EXPECT_TRUE(screen.waitUntilGone("Most fragmented files")) << screen.text();
  EXPECT_TRUE(screen.waitFor("Tab files")) << screen.text();
  screen.resize(8, 40);
  EXPECT_TRUE(screen.waitFor("This window is a little small.")) << screen.text();
  screen.resize(50, 200);
  EXPECT_TRUE(screen.waitFor("Most fragmented files")) << screen.text();
  screen.press("q");
  expectLeft(screen, 0);
}

TEST_F(ViewScreenTest, EveryKindOfTerminalIsServed) {
  const std::pair<const char*, bool> kinds[] = {{"xterm-256color", true},
                                                {"xterm-color", true},
                                                {"linux", true},
                                                {"screen", true},
                                                {"vt100", false}};
  for (const auto& [terminal, hasColours] : kinds) {
    TmuxScreen screen(folder, 24, 80, terminal);
    start(screen, command(volume));
    ASSERT_TRUE(screen.waitFor("d defragment")) << terminal << "\n" << screen.text();
    EXPECT_EQ(hasColour(screen), hasColours) << terminal;
    screen.press("q");
    expectLeft(screen, 0);
  }
}

TEST_F(ViewScreenTest, WithoutColoursOrUnicodeTheMapHasSigns) {
  TmuxScreen screen(folder, 24, 80);
  start(screen, command(volume, "NO_COLOR=1"));
  ASSERT_TRUE(screen.waitFor("░ one piece")) << screen.text();
  EXPECT_FALSE(hasColour(screen));
  screen.press("q");
  expectLeft(screen, 0);
  start(screen, command("--no-color " + volume, "LC_ALL=C"));
  ASSERT_TRUE(screen.waitFor("o one piece  # several pieces  m metadata  . free")) << screen.text();
  screen.press("q");
  expectLeft(screen, 0);
}

TEST_F(ViewScreenTest, ATerminalWithoutAScreenIsToldWhatToDo) {
  TmuxScreen screen(folder, 24, 80);
  for (const char* terminal : {"TERM=no-such-terminal", "TERM=dumb", "TERM="}) {
    start(screen, command(volume, terminal));
    EXPECT_TRUE(screen.waitFor("has no screen")) << screen.text();
    expectLeft(screen, 2);
  }
}

TEST_F(ViewScreenTest, TheListIsSortedAndFiltered) {
  TmuxScreen screen(folder, 24, 80);
  start(screen, command(volume));
  ASSERT_TRUE(screen.waitFor("d defragment")) << screen.text();
  screen.press("/");
  ASSERT_TRUE(screen.waitFor("Filter:"));
  screen.press("a r c h");
  EXPECT_TRUE(screen.waitFor("1 of 219")) << screen.text();
  screen.press("Escape");
  EXPECT_TRUE(screen.waitUntilGone("Filter:"));
  screen.press("s s");
  EXPECT_TRUE(screen.waitFor("by path")) << screen.text();
  EXPECT_TRUE(screen.waitFor("/Applications/")) << screen.text();
  screen.press("l");
  EXPECT_TRUE(screen.waitFor("Largest files, by size")) << screen.text();
  screen.press("h");
  EXPECT_TRUE(screen.waitFor("any key goes on")) << screen.text();
  screen.press("Space q");
  expectLeft(screen, 0);
}

TEST_F(ViewScreenTest, DefragmentingAsksFirstAndNamesTheDevice) {
  const std::string path = scratchVolume();
  TmuxScreen screen(folder, 24, 80);
  start(screen, command(path));
  ASSERT_TRUE(screen.waitFor("d defragment")) << screen.text();
  screen.press("d");
  ASSERT_TRUE(screen.waitFor("Defragment this volume?")) << screen.text();
  EXPECT_NE(screen.text().find("│ " + path), std::string::npos) << screen.text();
  screen.press("n");
  ASSERT_TRUE(screen.waitUntilGone("Defragment this volume?"));
  EXPECT_NE(screen.text().find("219 fragmented"), std::string::npos) << screen.text();
  screen.press("d");
  ASSERT_TRUE(screen.waitFor("Defragment this volume?")) << screen.text();
  screen.press("y");
  EXPECT_TRUE(screen.waitFor("219 fragmented files before, 0 now.")) << screen.text();
  EXPECT_TRUE(screen.waitFor("0 fragmented (0.0 %)")) << screen.text();
  screen.press("q");
  expectLeft(screen, 0);
  expectIntact(path);
}

TEST_F(ViewScreenTest, ARunIsShownAndStoppedOnlyAfterAQuestion) {
  TmuxScreen screen(folder, 24, 80);
  start(screen, command("--program " + endlessRun() + " " + volume));
  ASSERT_TRUE(screen.waitFor("d defragment")) << screen.text();
  ASSERT_NO_FATAL_FAILURE(defragment(screen));
  ASSERT_TRUE(screen.waitFor("40 %")) << screen.text();
  ASSERT_TRUE(screen.waitFor("8.0 MiB moved")) << screen.text();
  ASSERT_TRUE(screen.waitFor("about ")) << screen.text();
  screen.press("x");
  ASSERT_TRUE(screen.waitFor("Stop?"));
  screen.press("n");
  ASSERT_TRUE(screen.waitUntilGone("Stop?"));
  EXPECT_NE(screen.text().find("40 %"), std::string::npos);
  screen.press("C-c");
  ASSERT_TRUE(screen.waitFor("Stop and leave?"));
  screen.press("n x");
  ASSERT_TRUE(screen.waitFor("Stop?"));
  screen.press("y");
  EXPECT_TRUE(screen.waitFor("Stopped; 8.0 MiB moved")) << screen.text();
  EXPECT_TRUE(screen.waitFor("d defragment")) << screen.text();
  ASSERT_NO_FATAL_FAILURE(defragment(screen));
  ASSERT_TRUE(screen.waitFor("40 %")) << screen.text();
  screen.press("q");
  ASSERT_TRUE(screen.waitFor("Stop and leave?"));
  screen.press("y");
  expectLeft(screen, 0);
}

TEST_F(ViewScreenTest, AChildThatIsKilledInARunIsSaidSo) {
  std::string body = readFile(endlessRun());
  body.replace(body.find("DEFRAG)"), 7, "DEFRAG) sleep 0.3; kill -9 $$;");
  TmuxScreen screen(folder, 24, 80);
  start(screen, command("--program " + standIn(body) + " " + volume));
  ASSERT_TRUE(screen.waitFor("d defragment")) << screen.text();
  ASSERT_NO_FATAL_FAILURE(defragment(screen));
  ASSERT_TRUE(screen.waitFor("xrdefrag is gone")) << screen.text();
  EXPECT_NE(screen.text().find("It was rewriting the volume."), std::string::npos) << screen.text();
  screen.press("Enter q");
  expectLeft(screen, 4);
}

TEST_F(ViewScreenTest, AnErrorIsShownAndTheScreenGoesOn) {
  std::string body = readFile(endlessRun());
  body.replace(
      body.find("DEFRAG)"), 7,
      "DEFRAG) printf 'DEFRAG,START\\nDEFRAG,ERROR,Volume is mounted.\\nDEFRAG,DONE\\n' ;;\n  X)");
  TmuxScreen screen(folder, 24, 80);
  start(screen, command("--program " + standIn(body) + " " + volume));
  ASSERT_TRUE(screen.waitFor("d defragment")) << screen.text();
  ASSERT_NO_FATAL_FAILURE(defragment(screen));
  ASSERT_TRUE(screen.waitFor("Volume is mounted.")) << screen.text();
  screen.press("Enter");
  EXPECT_TRUE(screen.waitUntilGone("Volume is mounted."));
  screen.press("q");
  expectLeft(screen, 0);
}

TEST_F(ViewScreenTest, AVolumeThatIsRefusedNeverTouchesTheScreen) {
  TmuxScreen screen(folder, 24, 80);
  start(screen, command(pathOf("none")));
  expectLeft(screen, 1);
  EXPECT_NE(screen.text().find("xrdefrag-view: "), std::string::npos) << screen.text();
}

TEST_F(ViewScreenTest, APasswordIsAskedForBeforeTheScreenIsTaken) {
  const std::filesystem::path tools = folder / "tools";
  std::filesystem::create_directory(tools);
  const std::string sudo = tools / "sudo";
  std::filesystem::rename(standIn(R"(
printf 'Password: ' >/dev/tty
read -r word </dev/tty
[ "$word" = right ] || { echo 'sudo: 1 incorrect password attempt' >&2; exit 1; }
shift
exec "$@")"),
                          sudo);
  TmuxScreen screen(folder, 24, 80);
  const std::string words =
      command("--privilege sudo " + volume, "PATH=" + tools.string() + ":$PATH");
  start(screen, words);
  ASSERT_TRUE(screen.waitFor("Password:")) << screen.text();
  screen.type("wrong");
  expectLeft(screen, 3);
  EXPECT_NE(screen.text().find("1 incorrect password attempt"), std::string::npos);
  start(screen, words);
  ASSERT_TRUE(screen.waitFor("Password:")) << screen.text();
  screen.type("right");
  ASSERT_TRUE(screen.waitFor("d defragment")) << screen.text();
  screen.press("q");
  expectLeft(screen, 0);
}

TEST_F(ViewScreenTest, WithoutAScreenTheQuestionIsAskedAtTheTerminal) {
  const std::string path = scratchVolume();
  TmuxScreen screen(folder, 24, 80);
  start(screen, command("--defrag " + path));
  ASSERT_TRUE(screen.waitFor("Type yes:")) << screen.text();
  screen.press("C-c");
  expectLeft(screen, 5);
  start(screen, command("--defrag " + path));
  ASSERT_TRUE(screen.waitFor("Type yes:")) << screen.text();
  screen.type("no");
  expectLeft(screen, 5);
  EXPECT_EQ(readFile(path), readFile(volume));
  start(screen, command("--defrag " + path));
  ASSERT_TRUE(screen.waitFor("Type yes:")) << screen.text();
  screen.type("yes");
  EXPECT_TRUE(screen.waitFor("moved in")) << screen.text();
  expectLeft(screen, 0);
  expectIntact(path);
}

TEST_F(ViewScreenTest, SignalsAndCrashesGiveTheTerminalBack) {
  const std::pair<int, int> ends[] = {{SIGTERM, 5},
                                      {SIGINT, 5},
                                      {SIGHUP, 5},
                                      {SIGQUIT, 5},
                                      {SIGSEGV, 128 + SIGSEGV},
                                      {SIGABRT, 128 + SIGABRT}};
  for (const auto& [number, status] : ends) {
    const std::string path = scratchVolume();
    TmuxScreen screen(folder, 24, 80);
    start(screen, "ulimit -c 0; " + command(path));
    ASSERT_TRUE(screen.waitFor("d defragment")) << screen.text();
    const pid_t process = processOf(path);
    ASSERT_GT(process, 0);
    ::kill(process, number);
    expectLeft(screen, status);
  }
}

TEST_F(ViewScreenTest, ItIsSuspendedAndGoesOn) {
  TmuxScreen screen(folder, 24, 80);
  start(screen, command(volume));
  ASSERT_TRUE(screen.waitFor("d defragment")) << screen.text();
  screen.press("C-z");
  ASSERT_TRUE(screen.waitFor("Stopped")) << screen.text();
  EXPECT_EQ(screen.text().find("d defragment"), std::string::npos) << screen.text();
  screen.type("clear; fg; echo back $?");
  ASSERT_TRUE(screen.waitFor("d defragment")) << screen.text();
  ::kill(processOf(volume), SIGSTOP);
  ASSERT_TRUE(screen.waitFor("Stopped")) << screen.text();
  screen.type("clear; fg; echo back $?");
  ASSERT_TRUE(screen.waitFor("d defragment")) << screen.text();
  screen.press("q");
  EXPECT_TRUE(screen.waitFor("back 0")) << screen.text();
}

TEST_F(ViewScreenTest, ATerminalThatIsTakenAwayEndsItAndItsChild) {
  const std::string path = scratchVolume();
  TmuxScreen screen(folder, 24, 80);
  start(screen, command(path));
  ASSERT_TRUE(screen.waitFor("d defragment")) << screen.text();
  ASSERT_GT(processOf(path), 0);
  screen.close();
  for (int attempt = 0; processOf(path) != 0 && attempt < 1000; ++attempt) {
    ::usleep(10000);
  }
  EXPECT_EQ(processOf(path), 0);
  EXPECT_EQ(run({path}).status, 0);  // the child has let go of the volume
}
