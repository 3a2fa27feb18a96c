// The repository report: its figures against the index, and when it is rewritten.
#include <chrono>
#include <functional>

#include <gtest/gtest.h>

#include "brenloc/workers/report_generator.h"
#include "workers_fixtures.h"

namespace brenloc::workers {
namespace {

using testing::c_source;
using testing::Harness;
namespace fs = std::filesystem;

void fill(Harness& h) {
  h.write("src/a.c", c_source("a", 3));
  h.write("src/b.c", c_source("b", 2));
  h.write("src/deep/c.c", c_source("c", 1));
  h.write("tools/run.py", "def main():\n    pass\n\n\nclass Runner:\n    def go(self):\n        pass\n");
}

TEST(Report, FiguresMatchTheIndex) {
  Harness h;
  fill(h);
  IndexerOptions o = h.options();
  o.refresh_report = true;
  Indexer ix(o);
  ASSERT_EQ(h.index(ix).errors, 0);

  const auto r = nlohmann::json::parse(testing::read_file(h.data / "report.json"));
  const storage::Counts counts = h.repo->counts();
  EXPECT_EQ(r["repository"], h.root.string());
  EXPECT_EQ(r["totals"]["files"], 4);
  EXPECT_EQ(r["totals"]["symbols"], counts.symbols);
  // Languages, most files first, each with the symbols of its files; their bytes add up to the total.
  auto languages = nlohmann::json::array();
  std::int64_t bytes = 0;
  for (auto l : r["languages"]) {
    bytes += l["bytes"].get<std::int64_t>();
    l.erase("bytes");
    languages.push_back(l);
  }
  EXPECT_EQ(languages, nlohmann::json::parse(R"([{"language": "c", "files": 3, "symbols": 6}, {"language": "python",
                                                 "files": 1, "symbols": )" + std::to_string(counts.symbols - 6) + "}]"));
  EXPECT_EQ(r["totals"]["bytes"], bytes);
  ASSERT_GE(r["largest_directories"].size(), 3u);
  EXPECT_EQ(r["largest_directories"][0]["path"], "src");
  EXPECT_EQ(r["largest_directories"][0]["files"], 2);
  EXPECT_EQ(r["largest_directories"][0]["symbols"], 5);
  EXPECT_GE(r["symbol_kinds"]["function"].get<std::int64_t>(), 6);
  EXPECT_EQ(r["last_index"]["type"], "full");
  EXPECT_EQ(r["last_index"]["files_processed"], 4);
  EXPECT_EQ(r["last_index"]["errors"], 0);
  EXPECT_TRUE(r["last_index"]["finished_at"].is_string());

  const std::string md = testing::read_file(h.data / "report.md");
  for (const char* part : {"| c | 3 | 6 |", "| src | 2 | 5 |", "- Type: full"}) {
    EXPECT_NE(md.find(part), std::string::npos) << part << " not in\n" << md;
  }
}

TEST(Report, RewrittenOnlyWhenForcedOrOutOfDate) {
  struct Case {
    const char* name;
    std::function<void(Harness&)> between;  // what happens after the first report
    bool force;
    bool rewritten;
  };
  const Case cases[] = {
      {"nothing changed", [](Harness&) {}, false, false},
      {"nothing changed, forced", [](Harness&) {}, true, true},
      {"a file changed and was indexed",
       [](Harness& h) {
         h.write("src/a.c", c_source("a", 4));
         h.index();
       },
       false, true},
      {"a file changed but is not indexed yet", [](Harness& h) { h.write("src/a.c", c_source("a", 4)); }, false,
       false},
      {"a pass that changed nothing", [](Harness& h) { h.index(); }, false, true},
      {"the markdown went missing", [](Harness& h) { fs::remove(h.data / "report.md"); }, false, true},
  };
  const auto old_time = fs::file_time_type::clock::now() - std::chrono::hours(48);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Harness h;
    fill(h);
    h.index();
    write_report(h.repo, h.root, false);
    ASSERT_TRUE(fs::exists(h.data / "report.json"));
    fs::last_write_time(h.data / "report.json", old_time);
    c.between(h);
    write_report(h.repo, h.root, c.force);
    EXPECT_EQ(fs::last_write_time(h.data / "report.json") != old_time, c.rewritten);
    EXPECT_TRUE(fs::exists(h.data / "report.md"));
  }
}

}  // namespace
}  // namespace brenloc::workers
