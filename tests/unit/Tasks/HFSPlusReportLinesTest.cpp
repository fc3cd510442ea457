#include "Tasks/HFSPlusReportLines.hpp"

#include <gtest/gtest.h>

#include <string>

#include "XRDefragReport.hpp"

namespace {

using Width = HFSPlusReportLines::DateWidth;

/// What comes out of a report into which `put` puts lines.
template <typename Put>
std::string printed(const Put& put) {
  std::string text;
  {
    XRDefragReport report([&text](std::string_view lines) { text += lines; });
    HFSPlusReportLines lines(report);
    put(lines);
  }
  return text;
}

std::string datesOf(uint32_t create, uint32_t contentMod, uint32_t access, Width width) {
  return printed([&](HFSPlusReportLines& lines) {
    lines.appendFileInfo({.createDate = create,
                          .contentModDate = contentMod,
                          .accessDate = access,
                          .fdType = 0x54455854,
                          .fdCreator = 0},
                         width);
    lines.endLine();
  });
}

}  // namespace

TEST(HFSPlusReportLines, ALineBeginsWithTaskKindParentAndItem) {
  EXPECT_EQ(printed([](HFSPlusReportLines& lines) {
              lines.beginLine(HFSPlusReportLines::lineStart("SCAN", "FILE", 0), 4294967295);
              lines.endLine();
            }),
            "SCAN,FILE,0,4294967295,\n");
}

TEST(HFSPlusReportLines, DatesAreWrittenWhicheverOfThemAreTheSame) {
  constexpr uint32_t kDates[] = {0, 2082844800, 2082844801, 4294967295};
  const std::string kTexts[] = {"-2082844800", "0", "1", "2212122495"};
  for (size_t a = 0; a < 4; a++) {
    for (size_t b = 0; b < 4; b++) {
      for (size_t c = 0; c < 4; c++) {
        EXPECT_EQ(datesOf(kDates[a], kDates[b], kDates[c], Width::Bits64),
                  "," + kTexts[a] + "," + kTexts[b] + "," + kTexts[c] + ",54455854,00000000\n");
      }
    }
  }
}

TEST(HFSPlusReportLines, DatesOf32BitsWrapAround) {
  EXPECT_EQ(datesOf(4294967295, 4294967295, 0, Width::Bits32),
            ",-2082844801,-2082844801,-2082844800,54455854,00000000\n");
}
