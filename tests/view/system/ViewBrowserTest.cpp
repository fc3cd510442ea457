#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <regex>

#include "support/VolumeBuilder.hpp"
#include "view/system/ViewFixture.hpp"

namespace {

/// Runs before anything of the page and writes down what goes wrong there.
constexpr std::string_view kWatch = R"(<script>
window.problems = [];
addEventListener("error", (event) => problems.push("error: " + event.message));
addEventListener("securitypolicyviolation", (event) => problems.push("policy: " + event.blockedURI));
for (const kind of ["error", "warn"]) {
  console[kind] = (...words) => problems.push(kind + ": " + words.join(" "));
}
</script>)";

/// Uses the page as a reader does and leaves what it finds as text.
constexpr std::string_view kUse = R"(<script>
const found = {};
const table = document.getElementById("files");
const search = document.getElementById("search");
const only = document.getElementById("only");
const rows = () => Array.from(table.tBodies[0].rows);
const visible = () => rows().filter((row) => row.getClientRects().length > 0);
const column = (index) => rows().map((row) => row.cells[index].dataset.value);
const click = (index) => table.tHead.rows[0].cells[index].querySelector("button").click();
const status = () => document.getElementById("shown").textContent;
const sorted = (values, sign) => values.every((value, index) =>
  index === 0 || sign * (Number(values[index - 1]) - Number(value)) <= 0);
const filterBy = (text) => { search.value = text; search.dispatchEvent(new Event("input")); };

found.rows = rows().length;
found.status = status();
found.sortedAtFirst = sorted(column(1), -1);
click(1); found.ascending = sorted(column(1), 1) && visible().length === rows().length;
click(1); found.descending = sorted(column(1), -1);
click(2); found.otherColumn = sorted(column(2), -1);
click(0);
const paths = rows().map((row) => row.cells[0].textContent);
const order = new Intl.Collator(undefined, { numeric: true });
found.byPath = paths.every((path, index) => index === 0 || order.compare(paths[index - 1], path) <= 0);
found.marks = document.querySelectorAll("th[aria-sort]").length;
filterBy("SCAN3");
found.filtered = visible().length;
found.filterFits = visible().every((row) => row.cells[0].textContent.toLowerCase().includes("scan3"));
found.filterStatus = status();
filterBy("no such path"); found.nothing = visible().length;
filterBy("");
only.click(); found.onlyFragmented = visible().length;
only.click(); found.all = visible().length;

const layers = Array.from(document.querySelectorAll("svg.map path"));
found.layers = layers.length;
found.colours = new Set(layers.map((layer) => getComputedStyle(layer).fill)).size;
found.drawn = layers.filter((layer) => layer.getBoundingClientRect().width > 0).length;
found.wide = Array.from(document.querySelectorAll("svg.map"))
  .every((map) => map.getBoundingClientRect().width > 300);
found.bars = Array.from(document.querySelectorAll(".bar"))
  .filter((bar) => bar.getBoundingClientRect().width > 1).length;
found.overflow = document.documentElement.scrollWidth > innerWidth;
found.fetched = performance.getEntriesByType("resource").length;
found.scripts = document.scripts.length;
found.problems = problems;
const result = document.createElement("pre");
result.id = "found";
result.textContent = JSON.stringify(found);
document.body.append(result);
</script>)";

class ViewBrowserTest : public ViewTest {
 protected:
  void SetUp() override {
    if (std::system("command -v chromium >/dev/null") != 0) {
      GTEST_SKIP() << "chromium is not installed";
    }
  }

  /// What the browser makes of a page, and what it says meanwhile.
  struct Browsed {
    std::string document;
    std::string log;
  };

  static Browsed browse(const std::string& page, const std::string& options = "") {
    const std::string log = pathOf("browser.log");
    const std::string command =
        "timeout 120 chromium --headless --no-sandbox --disable-gpu --no-first-run "
        "--disable-background-networking --disable-component-update --disable-sync "
        "--disable-dev-shm-usage --window-size=1280,1000 --enable-logging=stderr "
        "--user-data-dir='" +
        pathOf("browser") + "' " + options + " --dump-dom 'file://" + page + "' 2>'" + log + "'";
    Browsed browsed;
    std::FILE* pipe = ::popen(command.c_str(), "r");
    std::array<char, 65536> buffer = {};
    while (const size_t bytes = std::fread(buffer.data(), 1, buffer.size(), pipe)) {
      browsed.document.append(buffer.data(), bytes);
    }
    ::pclose(pipe);
    browsed.log = readFile(log);
    return browsed;
  }

  /// The page with something that watches and uses it, which the page's own policy would not let
  /// in.
  static std::string used(const std::string& page) {
    std::string text = readFile(page);
    text = std::regex_replace(text, std::regex("script-src 'sha256-[^']*'"),
                              "script-src 'unsafe-inline'");
    text.replace(text.find("<head>"), 6, "<head>" + std::string(kWatch));
    text.replace(text.rfind("</body>"), 7, std::string(kUse) + "</body>");
    const std::string path = pathOf("used.html");
    std::ofstream(path) << text;
    return path;
  }

  static std::string found(const Browsed& browsed) {
    std::smatch match;
    return std::regex_search(browsed.document, match, std::regex("<pre id=\"found\">([^<]*)"))
               ? match[1].str()
               : "nothing was found: " + browsed.log;
  }
};

}  // namespace

TEST_F(ViewBrowserTest, ThePageSortsFiltersAndDrawsWithoutAComplaint) {
  const std::string page = pathOf("page.html");
  ASSERT_EQ(run({"--report", page, volume}).status, 0);
  EXPECT_EQ(found(browse(used(page))),
            R"({"rows":323,"status":"323 of 323 files","sortedAtFirst":true,"ascending":true,)"
            R"("descending":true,"otherColumn":true,"byPath":true,"marks":1,"filtered":3,)"
            R"("filterFits":true,"filterStatus":"3 of 323 files","nothing":0,"onlyFragmented":219,)"
            R"("all":323,"layers":4,"colours":4,"drawn":4,"wide":true,"bars":11,"overflow":false,)"
            R"("fetched":0,"scripts":3,"problems":[]})");
}

TEST_F(ViewBrowserTest, BeforeAndAfterStandSideBySide) {
  const std::string page = pathOf("both.html");
  ASSERT_EQ(run({"--defrag", "--yes", "--report", page, scratchVolume()}).status, 0);
  EXPECT_EQ(found(browse(used(page))),
            R"({"rows":323,"status":"323 of 323 files","sortedAtFirst":true,"ascending":true,)"
            R"("descending":true,"otherColumn":true,"byPath":true,"marks":1,"filtered":3,)"
            R"("filterFits":true,"filterStatus":"3 of 323 files","nothing":0,"onlyFragmented":219,)"
            R"("all":323,"layers":8,"colours":4,"drawn":7,"wide":true,"bars":13,"overflow":false,)"
            R"("fetched":0,"scripts":3,"problems":[]})");
}

TEST_F(ViewBrowserTest, ThePageAsItIsRunsItsOneScriptAndNoOther) {
  const std::string page = pathOf("asitis.html");
  ASSERT_EQ(run({"--report", page, volume}).status, 0);
  const Browsed browsed = browse(page);
  EXPECT_NE(browsed.document.find("class=\"scripted\""), std::string::npos) << browsed.log;
  EXPECT_NE(browsed.document.find("323 of 323 files"), std::string::npos);
  EXPECT_EQ(browsed.log.find("CONSOLE"), std::string::npos) << browsed.log;

  std::string text = readFile(page);
  text.replace(text.rfind("</body>"), 7, "<script>document.title = 'taken'</script></body>");
  std::ofstream(page) << text;
  EXPECT_EQ(browse(page).document.find("<title>taken"), std::string::npos);
}

TEST_F(ViewBrowserTest, HostileNamesAreText) {
  support::VolumeDescription description;
  const char16_t* names[] = {u"</script><script>document.title='taken'</script>",
                             u"<img src=x onerror=document.title='taken'>", u"\u202Egnp.exe",
                             u"--><svg onload=document.title='taken'>", u"\"'><b>"};
  for (const char16_t* name : names) {
    description.root().addFile(std::u16string(name), support::fork(40960, 3));
  }
  const std::string path = pathOf("hostile.hfs");
  support::buildVolume(std::move(description), path);
  const std::string page = pathOf("hostile.html");
  ASSERT_EQ(run({"--report", page, path}).status, 0);
  // With a policy that would let any script run, and still none does.
  const Browsed browsed = browse(used(page));
  EXPECT_EQ(browsed.document.find("<title>taken"), std::string::npos);
  EXPECT_NE(found(browsed).find("\"scripts\":3,\"problems\":[]"), std::string::npos)
      << found(browsed);
  EXPECT_NE(browsed.document.find("⟨202E⟩gnp.exe"), std::string::npos);
  EXPECT_EQ(browsed.document.find("<img"), std::string::npos);
}
