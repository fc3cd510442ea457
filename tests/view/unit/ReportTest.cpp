#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "protocol/ReportLine.hpp"
#include "protocol/ReportReader.hpp"

using namespace view;
using Fields = std::vector<std::string>;

namespace {

/// Writes down what it is told, one line each.
class Notes : public ReportListener {
 public:
  Fields lines;

  void reportReady() override { lines.emplace_back("ready"); }
  void reportToolError(const std::string& message) override { lines.push_back("error " + message); }
  void reportStart(const std::string& task) override { lines.push_back(task + " start"); }
  void reportProgress(const std::string& task, const ProgressLine& progress) override {
    lines.push_back(task + " " + std::to_string(progress.percent));
  }
  void reportTaskError(const std::string& task, const std::string& message) override {
    lines.push_back(task + " error " + message);
  }
  void reportDone(const std::string& task) override { lines.push_back(task + " done"); }
  void reportFile(const std::string& task, const FileLine& file) override {
    lines.push_back(task + " file " + file.name + " " + std::to_string(file.extents.size()));
  }
  void reportData(const std::string& task, const Fields& fields) override {
    lines.push_back(task + " data " + std::to_string(fields.size()));
  }
};

Fields heard(std::string_view bytes, size_t atOnce = SIZE_MAX) {
  Notes notes;
  ReportReader reader(notes);
  while (!bytes.empty()) {
    EXPECT_TRUE(reader.feed(bytes.substr(0, atOnce)));
    bytes.remove_prefix(std::min(atOnce, bytes.size()));
  }
  return notes.lines;
}

}  // namespace

TEST(ViewReportTest, FieldsAreSplitAtCommasThatNothingProtects) {
  EXPECT_EQ(splitReportLine("a,b,,c"), (Fields{"a", "b", "", "c"}));
  EXPECT_EQ(splitReportLine(""), Fields{""});
  EXPECT_EQ(splitReportLine(R"(a\,b,c\\,d\\\,e)"), (Fields{"a,b", R"(c\)", R"(d\,e)"}));
}

TEST(ViewReportTest, AnEscapedNULIsOneAgainAndItsLookAlikeIsNot) {
  EXPECT_EQ(splitReportLine(R"(a\xC0\x80b)"), (Fields{std::string("a\0b", 3)}));
  EXPECT_EQ(splitReportLine(R"(a\\xC0\\x80b)"), (Fields{R"(a\xC0\x80b)"}));
  EXPECT_EQ(splitReportLine(R"(a\x)"), (Fields{R"(a\x)"}));
  EXPECT_EQ(splitReportLine("a\\"), (Fields{"a\\"}));
}

TEST(ViewReportTest, AFileLineHasItsExtentsInOrder) {
  FileLine file;
  ASSERT_TRUE(
      parseFileLine(splitReportLine("SCAN,FILE,2,18,/a\\,b,-2082844800,1,2,54455854,7474787,10,3"),
                    file) == false);
  ASSERT_TRUE(parseFileLine(
      splitReportLine("SCAN,FILE,2,18,/a\\,b,-2082844800,1,2,54455854,74747874,10,3,20,5"), file));
  EXPECT_EQ(file.name, "/a,b");
  EXPECT_EQ(file.fileID, 18U);
  EXPECT_EQ(file.modified, 1);
  EXPECT_EQ(file.extents, (std::vector<BlockRun>{{10, 3}, {20, 5}}));
}

TEST(ViewReportTest, AProgressLineMayNameACopy) {
  const auto plain = parseProgressLine(splitReportLine("SCAN,PROGRESS,12"));
  EXPECT_EQ(plain->percent, 12);
  EXPECT_FALSE(plain->move);
  const auto copy = parseProgressLine(splitReportLine("DEFRAG,PROGRESS,101,5,6,7,900"));
  EXPECT_EQ(copy->percent, 100);
  EXPECT_EQ(copy->move, (BlockMove{5, 6, 7}));
  EXPECT_FALSE(parseProgressLine(splitReportLine("SCAN,PROGRESS,x")));
}

TEST(ViewReportTest, LinesReachTheListenerHoweverTheyArrive) {
  const std::string bytes =
      "READY\nSCAN,START\nSCAN,PROGRESS,50\nSCAN,FILE,2,16,a,0,0,0,00000000,00000000,1,1\n"
      "SCAN,ERROR,No\\, not that.\nSCAN,DONE\nERROR,What?\nBITMAP,LENGTH,8\n\nnonsense\nlast";
  const Fields expected = {
      "ready",     "SCAN start",  "SCAN 50",      "SCAN file a 1", "SCAN error No, not that.",
      "SCAN done", "error What?", "BITMAP data 3"};
  EXPECT_EQ(heard(bytes), expected);
  EXPECT_EQ(heard(bytes, 1), expected);
  EXPECT_EQ(heard(bytes, 7), expected);
}

TEST(ViewReportTest, ANewlineInANameTearsNothingAndPretendsNothing) {
  const Fields expected = {"SCAN file a\nSCAN,DONE\nERROR,x 1", "SCAN done"};
  EXPECT_EQ(
      heard("SCAN,FILE,2,16,a\nSCAN\\,DONE\nERROR\\,x,0,0,0,00000000,00000000,1,1\nSCAN,DONE\n"),
      expected);
}

TEST(ViewReportTest, ALineWithoutEndIsGivenUp) {
  Notes notes;
  ReportReader reader(notes);
  const std::string block(size_t{1} << 24, 'x');
  size_t taken = 0;
  while (reader.feed(block)) {
    taken += block.size();
    ASSERT_LE(taken, ReportReader::kLineBytesMax);
  }
  EXPECT_GE(taken, ReportReader::kLineBytesMax - block.size());
}
