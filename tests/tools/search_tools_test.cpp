// The search tools of a worker over the demo samples (and generated names): the relevance table, ranking
// under crowding, the size cap over random queries, outlines against the scopes the indexer records, the
// source of every definition, argument errors and the path guards.
#include <unistd.h>

#include <fstream>
#include <functional>
#include <random>
#include <set>

#include <gtest/gtest.h>

#include "brenloc/daemon/worker.h"
#include "brenloc/tool_binding.h"
#include "brenloc/tools/tool_table.h"
#include "utils/tree_fixtures.h"

namespace brenloc::testing {
namespace {

namespace fs = std::filesystem;

const fs::path kSamples = fs::path(BRENLOC_SOURCE_DIR) / "samples/demo";

// A worker whose live store the test reads.
class Worker : public daemon::RepoWorker {
 public:
  using RepoWorker::RepoWorker;
  using RepoWorker::_repository;
};

aio::Task<json> call(daemon::RepoWorker& w, const std::string& tool, json arguments) {
  return tools::call_tool(w, tool, std::move(arguments));
}

json read_json(const fs::path& p) {
  std::ifstream in(p);
  return json::parse(in);
}

std::string hit_text(const json& h) {
  return h["name"].get<std::string>() + " " + h["kind"].get<std::string>() + " " + h["path"].get<std::string>();
}

// A started worker over a copy of the samples plus `extra` files, fully indexed; runs `body` on its loop.
template <class Body>
void with_samples(const std::vector<std::pair<std::string, std::string>>& extra, Body body) {
  TempDir root, data;
  fs::copy(kSamples, root.path(), fs::copy_options::recursive);
  for (const auto& [path, text] : extra) write_file(root.path() / path, text);
  aio::EventLoop loop;
  Worker w(root.path(), data.path());
  aio::run_until_complete(loop, [&]() -> aio::Task<void> {
    co_await w.start();
    json response = co_await w.force_reindex(json{{"clear_existing", true}});
    EXPECT_EQ(response["status"], "accepted");
    co_await aio::wait_all({w.last_run()->base()});
    std::exception_ptr failure;
    try {
      co_await body(w, root.path());
    } catch (...) {
      failure = std::current_exception();
    }
    co_await w.stop();
    if (failure) std::rethrow_exception(failure);
  }());
}

// Names that crowd a search: many that contain the query before the one that is it, in a file sorting last.
std::vector<std::pair<std::string, std::string>> crowd() {
  std::string text;
  for (int i = 0; i < 400; ++i) text += "def aconnect_" + std::to_string(i) + "():\n    pass\n";
  for (int i = 0; i < 50; ++i) text += "def connect_" + std::to_string(i) + "():\n    pass\n";
  text += "class getStatusBar:\n    pass\n\ndef get_sb():\n    pass\n";
  return {{"crowd/a.py", text}, {"zzz/last.py", "def connect(host):\n    pass\n"},
          {"decl/api.h", "int open_session(int fd);\n"}, {"src/api.c", "int open_session(int fd) { return fd; }\n"}};
}

TEST(SearchTools, TheRelevanceTableHolds) {
  const json table = read_json(fs::path(BRENLOC_SOURCE_DIR) / "tests/search_relevance.json");
  // Beside the shared table: ranking when hundreds of names crowd the one asked for.
  json cases = table["cases"];
  cases.push_back({{"args", {{"query", "connect"}}}, {"first", "connect function zzz/last.py"}, {"absent", json::array()}});
  cases.push_back({{"args", {{"query", "gSB"}}}, {"first", "getStatusBar class crowd/a.py"}, {"absent", json::array()}});
  // Letters anywhere in the name: a run of word starts beats a scatter, and fuzzy mode ranks word starts
  // before text inside a word.
  cases.push_back({{"args", {{"query", "statbar"}}}, {"first", "getStatusBar class crowd/a.py"}, {"absent", json::array()}});
  cases.push_back({{"args", {{"query", "nect4"}, {"match", "fuzzy"}}},
                   {"first", "connect_4 function crowd/a.py"}, {"absent", json::array()}});
  cases.push_back({{"args", {{"query", "CONNECT_4"}, {"match", "Prefix"}}},
                   {"first", "connect_4 function crowd/a.py"},
                   {"absent", {"aconnect_4 function crowd/a.py"}}});
  // A definition before the declaration of the same name, though its path sorts after.
  cases.push_back({{"args", {{"query", "open_session"}}}, {"first", "open_session function src/api.c"},
                   {"absent", json::array()}});
  with_samples(crowd(), [&](Worker& w, const fs::path&) -> aio::Task<void> {
    json source = co_await call(w, "symbol_source", {{"name", "open_session"}});
    EXPECT_EQ(source["path"], "src/api.c");
    EXPECT_EQ(source["kind"], "function");
    EXPECT_EQ(source["other_matches"], 1);
    for (const auto& c : cases) {
      SCOPED_TRACE(c["args"].dump());
      json answer = co_await call(w, "search_symbols", c["args"]);
      const json& results = answer["results"];
      if (c["first"].is_null()) {
        EXPECT_EQ(answer["total"], 0);
        EXPECT_TRUE(results.empty());
        continue;
      }
      EXPECT_FALSE(results.empty());
      if (results.empty()) continue;
      EXPECT_EQ(hit_text(results[0]), c["first"].get<std::string>());
      for (const auto& h : results) {
        for (const auto& absent : c["absent"]) EXPECT_NE(hit_text(h), absent.get<std::string>());
      }
    }
  });
}

// Whatever the query, limit and cap, the answer stays within the cap, has every key, and cuts hits only
// when it says so.
TEST(SearchTools, AnswersStayUnderTheSizeCap) {
  with_samples(crowd(), [&](Worker& w, const fs::path&) -> aio::Task<void> {
    std::mt19937 rng(19);
    const std::vector<std::string> stems = {"", "c", "co", "connect", "a", "_", "get", "x*", "*t?", "r", "Cart.a"};
    const std::vector<std::string> keys = {"query", "match", "total", "more", "count", "truncated", "results"};
    for (int i = 0; i < 60; ++i) {
      const std::string query = stems[rng() % stems.size()] + (rng() % 3 ? "" : std::to_string(rng() % 10));
      const int limit = 1 + static_cast<int>(rng() % 1000);
      const int max_bytes = 1024 + static_cast<int>(rng() % 30000);
      SCOPED_TRACE(fmt::format("{} {} {}", query, limit, max_bytes));
      json answer = co_await call(w, "search_symbols", {{"query", query}, {"limit", limit}, {"max_bytes", max_bytes}});
      EXPECT_LE(answer.dump().size(), static_cast<std::size_t>(max_bytes));
      std::vector<std::string> got;
      for (const auto& [k, v] : answer.items()) got.push_back(k);
      EXPECT_EQ(got, keys);
      const auto count = answer["count"].get<std::int64_t>();
      EXPECT_EQ(count, static_cast<std::int64_t>(answer["results"].size()));
      const bool cut = count < std::min<std::int64_t>(limit, answer["total"].get<std::int64_t>());
      EXPECT_EQ(answer["truncated"].get<bool>(), cut);
    }
  });
}

// A file too large for one answer comes in pages, each under the cap, that together hold every definition
// once, in file order; a cursor that no answer gave is refused.
TEST(SearchTools, AnOutlineTooLargeForOneAnswerComesInPages) {
  std::string text;
  for (int i = 0; i < 1500; ++i) text += fmt::format("class Shape{}:\n    def area_of_shape_{}(self):\n        pass\n", i, i);
  with_samples({{"big.py", text}}, [&](Worker& w, const fs::path&) -> aio::Task<void> {
    std::vector<std::string> names;
    json args = {{"path", "big.py"}};
    int pages = 0;
    for (;; ++pages) {
      json page = co_await call(w, "file_outline", args);
      EXPECT_LE(page.dump().size(), 64u * 1024);
      EXPECT_EQ(page["total"], 3000);
      std::function<void(const json&)> walk = [&](const json& nodes) {
        for (const auto& n : nodes) names.push_back(n["name"].get<std::string>()), walk(n["children"]);
      };
      walk(page["symbols"]);
      EXPECT_EQ(page["truncated"], page.contains("next_cursor"));
      if (!page.contains("next_cursor")) break;
      args["cursor"] = page["next_cursor"];
    }
    EXPECT_GT(pages, 1);
    EXPECT_EQ(names.size(), 3000u);
    if (names.size() != 3000u) co_return;
    for (int i = 0; i < 1500; ++i) {
      EXPECT_EQ(names[2 * i], fmt::format("Shape{}", i));
      EXPECT_EQ(names[2 * i + 1], fmt::format("area_of_shape_{}", i));
    }
    for (const std::string bad : {"x", "-1", "99999"}) {
      EXPECT_THROW(co_await call(w, "file_outline", {{"path", "big.py"}, {"cursor", bad}}), ArgumentError) << bad;
    }
  });
}

// A name used thousands of times comes in pages, cut by the byte cap or the limit: following next_cursor
// shows each use once, with the definition around it.
TEST(SearchTools, ReferencesComeInPagesThatACursorWalks) {
  std::vector<std::pair<std::string, std::string>> files;
  for (int f = 0; f < 30; ++f) {
    std::string text = "def tick(n):\n    return n\n\n";
    for (int i = 0; i < 40; ++i) text += fmt::format("def caller_{}():\n    tick(1); tick(2)  # tick\n", i);
    files.emplace_back(fmt::format("pkg{}/m.py", f % 3 == 0 ? 0 : f), text);
  }
  with_samples(files, [&](Worker& w, const fs::path&) -> aio::Task<void> {
    for (const json& asked : {json{{"max_bytes", 2048}}, json{{"limit", 7}, {"role", "call"}}}) {
      std::set<std::string> seen;
      json args = asked;
      args["name"] = "tick";
      int pages = 0;
      for (; pages < 1000; ++pages) {
        json page = co_await call(w, "find_references", args);
        EXPECT_LE(page.dump().size(), args.value("max_bytes", 16384));
        for (const auto& file : page["files"]) {
          for (const auto& r : file["references"]) {
            EXPECT_TRUE(seen.insert(fmt::format("{}:{}:{}", file["path"].get<std::string>(), r["line"].get<int>(),
                                                r["column"].get<int>()))
                            .second);
            if (r["role"] == "call") EXPECT_EQ(r["definition"]["name"].get<std::string>().rfind("caller_", 0), 0u);
          }
        }
        if (!page.contains("next_cursor")) break;
        args["cursor"] = page["next_cursor"];
      }
      EXPECT_GT(pages, 3);
      // 21 files (pkg0 written ten times over), 80 calls each, and with every role their definitions.
      EXPECT_EQ(seen.size(), asked.contains("role") ? 21u * 80 : 21u * 81) << asked.dump();
    }
    EXPECT_THROW(co_await call(w, "find_references", {{"name", "tick"}, {"cursor", "x"}}), ArgumentError);
  });
}

// Every file's outline holds each of its definitions once; a definition's parent in the tree is the one
// its recorded scope ends with, and its lines hold the child's.
TEST(SearchTools, OutlinesFollowTheRecordedScopes) {
  with_samples({}, [&](Worker& w, const fs::path&) -> aio::Task<void> {
    for (const auto& file : w._repository->list_files()) {
      SCOPED_TRACE(file.path);
      json outline = co_await call(w, "file_outline", {{"path", file.path}});
      auto rows = w._repository->file_symbols(file.path)->symbols;
      EXPECT_EQ(outline["total"], rows.size());
      EXPECT_EQ(outline["count"], rows.size());
      EXPECT_FALSE(outline["truncated"].get<bool>());
      std::size_t seen = 0;
      std::function<void(const json&, const json*)> walk = [&](const json& node, const json* parent) {
        ++seen;
        const std::string name = node["name"];
        const int line = node["line"];
        auto row = std::ranges::find_if(rows, [&](const auto& s) { return s.name == name && s.line == line; });
        ASSERT_NE(row, rows.end()) << node.dump();
        if (parent) {
          const std::string outer = (*parent)["name"];
          EXPECT_TRUE(row->scope.ends_with(outer)) << row->scope << " under " << outer;
          EXPECT_GE(node["line"], (*parent)["line"]);
          EXPECT_LE(node["line"], (*parent)["end_line"]);
        }
        for (const auto& child : node["children"]) walk(child, &node);
      };
      for (const auto& node : outline["symbols"]) walk(node, nullptr);
      EXPECT_EQ(seen, rows.size());
    }
    // The classes of the samples hold their members.
    json cart = co_await call(w, "file_outline", {{"path", "./python/shop/cart.py"}});
    EXPECT_EQ(cart["symbols"][2]["name"], "Cart");
    EXPECT_EQ(cart["symbols"][2]["children"].size(), 3u);
  });
}

// The source of every definition of the samples, asked by path and line, starts where the definition
// starts (a template header or return type above the name included), and its signature runs from there
// to the name; asked by name within its file and kind, the same definition comes back.
TEST(SearchTools, SymbolSourceStartsAtTheSignature) {
  with_samples({}, [&](Worker& w, const fs::path& root) -> aio::Task<void> {
    int checked = 0, headed = 0;
    for (const auto& file : w._repository->list_files()) {
      std::ifstream in(root / file.path);
      std::vector<std::string> lines;
      for (std::string l; std::getline(in, l);) lines.push_back(l);
      const auto rows = w._repository->file_symbols(file.path)->symbols;
      for (const auto& s : rows) {
        SCOPED_TRACE(fmt::format("{} {}:{}", s.name, file.path, s.line));
        json by_line = co_await call(w, "symbol_source", {{"path", file.path}, {"line", s.line}});
        const std::string source = by_line["source"];
        const int first = s.start_line > 0 ? s.start_line : s.line;
        headed += first < s.line;
        EXPECT_EQ(source.substr(0, source.find('\n')), lines.at(first - 1));
        const std::string signature = by_line["signature"];
        EXPECT_TRUE(signature.starts_with(lines.at(first - 1).substr(lines.at(first - 1).find_first_not_of(" \t"))));
        EXPECT_NE(signature.find(s.name), std::string::npos);
        EXPECT_EQ(by_line["line"], s.line);
        EXPECT_EQ(by_line["start_line"], first);
        json by_name = co_await call(w, "symbol_source", {{"name", s.name}, {"path", file.path}, {"kind", s.kind}});
        if (by_name["other_matches"] == 0) {
          EXPECT_EQ(by_name["source"], by_line["source"]);
          ++checked;
        }
      }
    }
    EXPECT_GT(checked, 50);
    EXPECT_GT(headed, 0);
    json templated = co_await call(w, "symbol_source", {{"name", "clamped"}});
    EXPECT_EQ(templated["signature"], "template <typename T> static T clamped(T value, T low, T high) {");
    json capped = co_await call(w, "symbol_source", {{"name", "Cart"}, {"max_lines", 2}});
    EXPECT_EQ(capped["source"], "class Cart:\n    def __init__(self):");
    EXPECT_TRUE(capped["truncated"].get<bool>());
  });
}

// Bad arguments are errors naming what is wrong; paths that force_reindex refuses are refused with its
// texts; what is not there is an error answer.
TEST(SearchTools, RefusalsAndErrors) {
  with_samples({}, [&](Worker& w, const fs::path& root) -> aio::Task<void> {
    fs::create_directory_symlink(root / "python", root / "linked");
    const std::vector<std::pair<json, std::string>> errors = {
        {{{"query", "x"}, {"kind", "klass"}}, "must be one of: function, method, class,"},
        {{{"query", "x"}, {"match", "regex"}}, "must be one of: auto, exact, prefix, substring, fuzzy"},
        {{{"query", "x"}, {"language", "cobol"}}, "must be one of: python, c, cpp,"},
        {{{"query", "x"}, {"max_bytes", 10}}, "max_bytes"},
        {{{"query", std::string("a\0b", 3)}}, "argument 'query' must not hold a NUL byte"},
        {{{"query", "x"}, {"path", std::string("src\0", 4)}}, "argument 'path' must not hold a NUL byte"},
    };
    for (const auto& [args, message] : errors) {
      try {
        co_await call(w, "search_symbols", args);
        ADD_FAILURE() << args.dump();
      } catch (const ArgumentError& e) {
        EXPECT_NE(std::string(e.what()).find(message), std::string::npos) << e.what();
      }
    }
    EXPECT_THROW(co_await call(w, "symbol_source", {{"path", "c/ring.c"}}), ArgumentError);
    EXPECT_THROW(co_await call(w, "file_outline", {{"path", std::string("c/ring.c\0", 9)}}), ArgumentError);
    EXPECT_THROW(co_await call(w, "symbol_source", {{"name", std::string("\0", 1)}}), ArgumentError);
    EXPECT_THROW(co_await w.force_reindex({{"paths", {"c", std::string("\0", 1)}}}), ArgumentError);
    EXPECT_EQ((co_await call(w, "search_symbols", {{"query", "ring"}, {"kind", "STRUCT"}}))["total"], 1);

    auto failed = [](const std::string& error) { return json{{"error", error}, {"status", "failed"}}; };
    const std::vector<std::pair<json, json>> answers = {
        {{{"path", "../outside.py"}}, failed("Path outside repository")},
        {{{"path", "/etc/passwd"}}, failed("Path outside repository")},
        {{{"path", "linked/shop/cart.py"}}, failed("Symlinks are not allowed in paths")},
        {{{"path", "no/such.py"}}, failed("File not in the index: no/such.py")},
    };
    for (const auto& [args, answer] : answers) {
      EXPECT_EQ(co_await call(w, "file_outline", args), answer) << args.dump();
      json source_args = args;
      source_args["line"] = 1;
      EXPECT_EQ(co_await call(w, "symbol_source", source_args), answer) << args.dump();
    }
    // A search's path is guarded as the other tools guard theirs (a glob included), not answered empty.
    for (const std::string path : {"../..", "/etc", "python/../../x", "../*.py"}) {
      EXPECT_EQ(co_await call(w, "search_symbols", {{"query", "x"}, {"path", path}}), failed("Path outside repository"))
          << path;
    }
    EXPECT_EQ((co_await call(w, "search_symbols", {{"query", "Cart"}, {"path", "python/../python"}}))["total"], 1);
    EXPECT_EQ(co_await call(w, "symbol_source", {{"name", "nowhere"}}), failed("No definition named 'nowhere'"));
    EXPECT_EQ(co_await call(w, "symbol_source", {{"path", "c/ring.c"}, {"line", 2}}), failed("No definition at c/ring.c:2"));
  });
}

}  // namespace
}  // namespace brenloc::testing
