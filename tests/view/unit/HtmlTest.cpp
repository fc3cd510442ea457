#include <gtest/gtest.h>

#include "report/Html.hpp"
#include "report/HtmlHistogram.hpp"
#include "report/HtmlMap.hpp"
#include "report/HtmlReport.hpp"

using namespace view;

namespace {

Picture sample(std::string path) {
  Picture picture;
  picture.device = "/dev/sdb";
  picture.map = TileMap(4096);
  picture.map.addUsed({0, 2000});
  picture.files = 1;
  picture.fragmentedFiles = 1;
  picture.mostFragmented = {{5, std::move(path), 4, 100, true, 0}};
  return picture;
}

size_t countOf(const std::string& text, std::string_view part) {
  size_t count = 0;
  for (size_t place = text.find(part); place != std::string::npos;
       place = text.find(part, place + part.size())) {
    ++count;
  }
  return count;
}

}  // namespace

TEST(ViewHtmlTest, NothingInATextMeansAnythingToAPage) {
  EXPECT_EQ(html("<a href=\"x\" b='y'>&</a>"),
            "&lt;a href=&quot;x&quot; b=&#39;y&#39;&gt;&amp;&lt;/a&gt;");
  EXPECT_EQ(html("\x01\u202E\xFF"), "␁⟨202E⟩\uFFFD");
}

TEST(ViewHtmlTest, HostileNamesAddNoElement) {
  const std::string plain = htmlReport(nullptr, sample("/name"));
  for (const char* name : {"/</script><script>x</script>", "/<img src=x onerror=y>", "/--><b>",
                           "/\"><svg onload=z>", "/</td></tr></table>", "/]]><!--"}) {
    const std::string page = htmlReport(nullptr, sample(name));
    EXPECT_EQ(countOf(page, "<"), countOf(plain, "<")) << name;
    EXPECT_EQ(countOf(page, "\""), countOf(plain, "\"")) << name;
  }
}

TEST(ViewHtmlTest, ThePageAsksForNothingFromAnywhere) {
  const std::string page = htmlReport(nullptr, sample("/name"));
  for (const char* part : {"http:", "https:", "src=", "@import", "url(", "<link"}) {
    EXPECT_EQ(countOf(page, part), 0U) << part;
  }
  EXPECT_EQ(countOf(page, "default-src 'none'"), 1U);
}

TEST(ViewHtmlTest, ThePageIsBoundedWhateverTheVolume) {
  Picture picture = sample("/name");
  picture.map = TileMap(4'000'000'000);
  picture.files = picture.fragmentedFiles = 1'000'000;
  picture.mostFragmented.clear();
  for (uint64_t id = 0; id < 20000; ++id) {
    picture.mostFragmented.push_back({id, "/" + std::string(200, 'x'), 9, 9, true, 0});
  }
  const std::string page = htmlReport(&picture, picture);
  EXPECT_LT(page.size(), size_t{2} << 20);
  EXPECT_EQ(countOf(page, "<tr class=\"broken\">"), 1000U);
  EXPECT_NE(page.find("The 1,000 most fragmented of 1,000,000 files"), std::string::npos);
}

TEST(ViewHtmlTest, AFileThatIsNoLongerListedLiesInOnePieceWhenAllFragmentedOnesAre) {
  const Picture before = sample("/name");
  Picture after = sample("/name");
  after.mostFragmented.clear();
  after.fragmentedFiles = 0;
  const std::string known = htmlReport(&before, after);
  EXPECT_NE(known.find("data-value=\"4\">4</td><td class=\"number\" data-value=\"1\">1</td>"),
            std::string::npos);
  after.fragmentedFiles = 5000;
  const std::string unknown = htmlReport(&before, after);
  EXPECT_NE(unknown.find("data-value=\"4\">4</td><td class=\"number\" data-value=\"0\">–</td>"),
            std::string::npos);
}

TEST(ViewHtmlTest, ASquareIsFilledInProportion) {
  TileMap map(16, 1);
  map.addUsed({0, 8});
  map.addFile({0, 4}, true);
  const std::string svg = htmlMap(map, 8, 8, "x");
  EXPECT_NE(svg.find("class=\"system\" d=\"M0 12h16v4h-16z\""), std::string::npos) << svg;
  EXPECT_NE(svg.find("class=\"fragmented\" d=\"M0 8h16v4h-16z\""), std::string::npos) << svg;
}

TEST(ViewHtmlTest, AHistogramOfNothingSaysSo) {
  EXPECT_NE(htmlHistogram("Title", "Unit.", nullptr, {}).find("There are none."),
            std::string::npos);
}
