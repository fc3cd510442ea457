// What the program answers to its own words: every option, every device that is none.

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "system/ProtocolSuite.hpp"

namespace {

class CommandLine : public ProtocolSuite {
 protected:
  /// What the program prints for these words when it ends by itself.
  static Lines answer(Lines arguments) { return transcript(std::move(arguments), ""); }

  static Lines errorOfDevice(const std::string& path, int error) {
    return {"ERROR,Unable to open " + path + ". An error " + std::to_string(error) + " occurred."};
  }
};

std::string stringsFile(std::string_view key, std::string_view translation) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict><key>" +
         std::string(key) + "</key><string>" + std::string(translation) +
         "</string></dict></plist>";
}

}  // namespace

TEST_F(CommandLine, HelpIsSilentAndStopsTheWalkWhereItStands) {
  for (const char* option : {"-h", "--help"}) {
    EXPECT_EQ(answer({option}), Lines{});
    EXPECT_EQ(answer({option, "-i", "nonsense", "-s"}), Lines{});
    EXPECT_EQ(answer({volume, option}), Lines{});
    EXPECT_EQ(answer({"/nowhere", "-q", option}), Lines{});
    EXPECT_EQ(answer({"-i", "0", option}),
              Lines{"ERROR,Option -i requires a positive time interval."});
  }
}

TEST_F(CommandLine, AnIntervalIsAPositiveNumberWithWhateverFollowsIt) {
  for (const char* option : {"-i", "--interval"}) {
    const Lines refusal = {"ERROR,Option " + std::string(option) +
                           " requires a positive time interval."};
    for (const char* number : {"2.5s", "2.5", " \t3", ".5", "1e-3", "+1", "0.0001,", "1e999"}) {
      EXPECT_EQ(answer({option, number, "-q", volume}), Lines{}) << number;
    }
    for (const char* number : {"0", "-1", "0.0", "-0", "abc", "", " ", "nan", "inf", "0x10", "-q",
                               "s2.5", "-1e9", "1e-999"}) {
      EXPECT_EQ(answer({option, number, "-q", volume}), refusal) << number;
    }
  }
}

TEST_F(CommandLine, AnOptionAtTheEndMissesItsArgument) {
  for (const char* option : {"-i", "--interval", "-s", "--strings"}) {
    EXPECT_EQ(answer({volume, "-q", option}),
              Lines{"ERROR,Option " + std::string(option) + " requires an argument."});
  }
}

TEST_F(CommandLine, TheFirstErrorIsTheOne) {
  EXPECT_EQ(answer({"-s", "nowhere", "-i", "0"}), Lines{"ERROR,Strings file nowhere is invalid."});
  EXPECT_EQ(answer({"-i", "0", "-s", "nowhere"}),
            Lines{"ERROR,Option -i requires a positive time interval."});
  EXPECT_EQ(answer({"/nowhere", "-i"}), Lines{"ERROR,Option -i requires an argument."});
}

TEST_F(CommandLine, WithoutAPlainWordThereIsNoDevice) {
  EXPECT_EQ(answer({}), Lines{"ERROR,No device specified."});
  EXPECT_EQ(answer({"-q", "--lowpri", "-i", "1"}), Lines{"ERROR,No device specified."});
}

TEST_F(CommandLine, OptionsAreExactWordsAndEverythingElseIsADevice) {
  for (const char* word :
       {"-X", "--HFSX", "--Help", "-H", "-l", "--interval=1", "-qL", "--", "-"}) {
    EXPECT_EQ(answer({word}), errorOfDevice(word, ENOENT));
  }
}

TEST_F(CommandLine, TheFirstPlainWordIsTheDeviceWhereverItStands) {
  EXPECT_EQ(answer({"-q", volume, "/nowhere"}), Lines{});
  EXPECT_EQ(answer({"/nowhere", volume}), errorOfDevice("/nowhere", ENOENT));
  EXPECT_EQ(answer({volume, "-q", "-i", "1", "--lowpri"}), Lines{});
  EXPECT_EQ(answer({volume, "-L"}), Lines{"READY"});
}

TEST_F(CommandLine, WhatIsNoDeviceIsToldWhy) {
  const std::string fifo = folder / "fifo";
  ::mkfifo(fifo.c_str(), 0600);
  EXPECT_EQ(answer({""}), errorOfDevice("", ENOENT));
  EXPECT_EQ(answer({folder}), errorOfDevice(folder, EISDIR));
  EXPECT_EQ(answer({volume + "/below"}), errorOfDevice(volume + "/below", ENOTDIR));
  EXPECT_EQ(answer({"/dev/null"}), errorOfDevice("/dev/null", ENOTTY));
  EXPECT_EQ(answer({fifo}), errorOfDevice(fifo, ENOTTY));
  EXPECT_EQ(answer({std::string(5000, 'x')}), errorOfDevice(std::string(5000, 'x'), ENAMETOOLONG));
}

TEST_F(CommandLine, WhatHoldsNoVolumeIsToldSo) {
  EXPECT_EQ(answer({writeFile("nothing", "")}),
            Lines{"ERROR,Out of range read failed at offset 1024 and size 512."});
  EXPECT_EQ(answer({writeFile("zeros", std::string(1 << 20, '\0'))}),
            Lines{"ERROR,Unsupported volume format."});
}

TEST_F(CommandLine, ADeviceInUseIsBusy) {
  ProgramRunner first({volume});
  first.writeLine("FRAGINFO");
  first.readUntil("FRAGINFO,DONE");
  EXPECT_EQ(answer({volume}), Lines{"ERROR,The device is busy."});
  first.closeInput();
  EXPECT_EQ(first.waitForExit(), 0);
  EXPECT_EQ(answer({volume, "-q"}), Lines{});
}

TEST_F(CommandLine, FreeTextInAnErrorIsEscaped) {
  EXPECT_EQ(answer({"a,b\\c"}), Lines{"ERROR,Unable to open a\\,b\\\\c. An error 2 occurred."});
  EXPECT_EQ(answer({"-s", "a,b\\c"}), Lines{"ERROR,Strings file a\\,b\\\\c is invalid."});
}

TEST_F(CommandLine, AStringsFileMustBeADictionary) {
  const Lines paths = {
      folder / "missing",
      folder,
      writeFile("empty.plist", ""),
      writeFile("text.plist", "No device specified."),
      writeFile("cut.plist", "<plist version=\"1.0\"><dict><key>a</key>"),
      writeFile("array.plist", "<?xml version=\"1.0\"?><plist version=\"1.0\"><array/></plist>"),
  };
  for (const std::string& path : paths) {
    for (const char* option : {"-s", "--strings"}) {
      EXPECT_EQ(answer({option, path, volume}),
                Lines{"ERROR,Strings file " + path + " is invalid."});
    }
  }
}

TEST_F(CommandLine, TranslationsServeTheMessagesThatFollow) {
  const std::string interval = writeFile(
      "interval.plist",
      stringsFile("Option %1$@ requires a positive time interval.", "%1$@: Zahl, bitte!"));
  EXPECT_EQ(answer({"-s", interval, "-i", "x"}), Lines{"ERROR,-i: Zahl\\, bitte!"});
  EXPECT_EQ(answer({"-i", "x", "-s", interval}),
            Lines{"ERROR,Option -i requires a positive time interval."});
}

TEST_F(CommandLine, MessagesAboutTheStringsFileAreNeverTranslated) {
  const std::string both = writeFile(
      "both.plist",
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict>"
      "<key>Option %1$@ requires an argument.</key><string>%1$@ allein</string>"
      "<key>Strings file %1$@ is invalid.</key><string>%1$@ kaputt</string></dict></plist>");
  EXPECT_EQ(answer({"-s", both, "-i"}), Lines{"ERROR,-i allein"});
  EXPECT_EQ(answer({"-s", both, "-s"}), Lines{"ERROR,Option -s requires an argument."});
  EXPECT_EQ(answer({"-s", both, "-s", "x"}), Lines{"ERROR,Strings file x is invalid."});
}

TEST_F(CommandLine, ASecondStringsFileReplacesTheFirst) {
  const std::string device =
      writeFile("device.plist", stringsFile("No device specified.", "Kein Ger\xC3\xA4t."));
  const std::string other = writeFile("other.plist", stringsFile("Something else.", "Anderes."));
  EXPECT_EQ(answer({"-s", device}), Lines{"ERROR,Kein Ger\xC3\xA4t."});
  EXPECT_EQ(answer({"-s", device, "-s", other}), Lines{"ERROR,No device specified."});
}

TEST_F(CommandLine, TranslationsReachTheMessagesOfTasksAndOfTheDevice) {
  const std::string words =
      writeFile("words.plist",
                "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict>"
                "<key>Unknown option: %1$@</key><string>Was ist %1$@?</string>"
                "<key>Unable to open %1$@. An error %2$d occurred.</key>"
                "<string>Fehler %2$d bei %1$@</string></dict></plist>");
  EXPECT_EQ(answer({"-s", words, "/nowhere"}), Lines{"ERROR,Fehler 2 bei /nowhere"});
  EXPECT_EQ(transcript({"-s", words, volume}, "FRAGINFO x\n"),
            (Lines{"READY", "FRAGINFO,START", "FRAGINFO,ERROR,Was ist x?", "FRAGINFO,DONE"}));
}

TEST_F(CommandLine, TheDebugLogTellsAboutTheDeviceAtLevelInfo) {
  ProgramSetup setup;
  setup.arguments = {"-q", volume};
  for (const char* level : {"INFO", "info", "Debug", "debug_more"}) {
    setup.environment = {{"LWDebugLevel", level}};
    ProgramRunner program(setup);
    EXPECT_EQ(program.readAll(), Lines{});
    EXPECT_EQ(program.waitForExit(), 0);
    const uint64_t blocks = fs::file_size(volume) / 512;
    const std::string line = "Device info         = " + volume + ", ";
    const std::string end = " (block size = 512, total blocks = " + std::to_string(blocks) + ")\n";
    EXPECT_NE(program.diagnostics().find("xrdefrag[" + std::to_string(program.processID()) +
                                         "]: " + line),
              std::string::npos)
        << program.diagnostics();
    EXPECT_NE(program.diagnostics().find(end), std::string::npos) << program.diagnostics();
  }
  for (const char* level : {"", "warn", "nonsense", "5", "information"}) {
    setup.environment = {{"LWDebugLevel", level}};
    ProgramRunner program(setup);
    program.readAll();
    EXPECT_EQ(program.waitForExit(), 0);
    EXPECT_EQ(program.diagnostics(), "");
  }
}
