// The index database and the repository over it: the schema, storing and removing files, searches, the
// query cache, queries beside the writer; and the swap of a staged index onto the live connection: its
// result, its failures (each leaving the live index exactly as it was), and what readers on other
// connections see while it runs.
#include "brenloc/storage/repository.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <functional>
#include <map>
#include <future>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "brenloc/storage/errors.h"
#include "brenloc/storage/symbol_match.h"
#include "brenloc/storage/symbol_search.h"
#include "storage/storage_fixture.h"

namespace brenloc::storage {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
namespace fs = std::filesystem;
using testing::dump;
using testing::entries;
using testing::file_entry;
using testing::make_staging;

// create_schema accepts a new file or one of its own version, any number of times (the rows survive),
// replaces the tables of an older one, and refuses a newer one without touching it. close() may be
// repeated; a closed database refuses work.
TEST(Database, SchemaIsVersionedAndIdempotent) {
  for (int found : {0, 1, kSchemaVersion, kSchemaVersion + 1}) {
    SCOPED_TRACE(found);
    testing::TempDir dir;
    auto db = std::make_shared<Database>(dir.path() / "index.db");
    db->connect();
    EXPECT_EQ(testing::query_text(*db, "PRAGMA journal_mode") + testing::query_text(*db, "PRAGMA busy_timeout"), "wal5000");
    if (found == 1) {  // the layout of version 1, with a row
      db->execute("CREATE TABLE files(id INTEGER PRIMARY KEY, path TEXT UNIQUE); "
                  "CREATE TABLE symbols(id INTEGER PRIMARY KEY, file_id INTEGER, name TEXT); "
                  "INSERT INTO symbols VALUES(1, 1, 'old')");
    }
    db->execute(fmt::format("PRAGMA user_version = {}", found));
    try {
      db->create_schema();
      Repository(db).store_files(testing::entries("a", 1, 1));
      db->close();
      db->close();
      EXPECT_THROW(db->execute("SELECT 1"), StorageError);
      db->connect();
      db->create_schema();
      EXPECT_EQ(testing::query_text(*db, "SELECT count(*) FROM symbols"), "1");
    } catch (const StorageError& e) {
      EXPECT_GT(found, kSchemaVersion);
      EXPECT_THAT(e.what(), AllOf(HasSubstr("index.db"), HasSubstr(fmt::format("schema version {} is newer", found))));
      EXPECT_EQ(testing::query_text(*db, "SELECT count(*) FROM sqlite_schema"), "0");
    }
    EXPECT_EQ(testing::query_text(*db, "PRAGMA user_version"), std::to_string(std::max(found, kSchemaVersion)));
  }
}

using Hashes = std::unordered_map<std::string, std::string>;

class RepositoryTest : public ::testing::Test {
 protected:
  testing::TempDir dir;
  std::shared_ptr<Database> db = testing::open_database(dir.path() / "index.db");
  Repository repo{db};

  // A search hit or a stored row, as one line.
  static std::string text(const auto& s, const std::string& path) {
    return fmt::format("{} {} {}:{}:{}-{} {}", s.name, s.kind, path, s.line, s.column, s.end_line, s.scope);
  }
  std::vector<std::string> found(const SymbolQuery& q) {
    std::vector<std::string> out;
    for (const auto& h : repo.search_symbols(q)) out.push_back(text(h, h.path));
    return out;
  }
};

// Storing a file again replaces its row and all its symbols, also twice in one call; one call is one transaction, so a file that
// cannot be stored leaves none of its call behind, and the error names it.
TEST_F(RepositoryTest, StoresReplacesAndRemovesFiles) {
  repo.store_files(entries("a", 2, 3));
  repo.store_files({file_entry("a/f0.cpp", {{"only", "class", 1, 1, 2, 1, ""}})});
  repo.remove_files({"never-indexed.cpp"});
  EXPECT_EQ(repo.file_hashes(), (Hashes{{"a/f0.cpp", "hash-a/f0.cpp"}, {"a/f1.cpp", "hash-a/f1.cpp"}}));
  EXPECT_EQ(repo.counts().symbols, 4);

  db->execute("CREATE TRIGGER refuse BEFORE INSERT ON files WHEN NEW.path = 'bad.cpp' BEGIN SELECT RAISE(ABORT, 'no'); END");
  try {
    repo.store_files({file_entry("good.cpp", {}), file_entry("bad.cpp", {})});
    ADD_FAILURE() << "no error";
  } catch (const StorageError& e) {
    EXPECT_THAT(e.what(), AllOf(HasSubstr("index.db"), HasSubstr("storing bad.cpp")));
  }
  // Of a path stored twice in one call, the last entry counts; the directory way of searching reads each
  // file's own rows.
  repo.store_files({file_entry("a/f1.cpp", {{"x", "class", 1, 1, 1, 1, ""}}),
                    file_entry("a/f1.cpp", {{"y", "class", 1, 1, 1, 1, ""}, {"z", "class", 2, 1, 2, 1, ""}})});
  EXPECT_EQ(found({.text = "", .match = SymbolQuery::Match::substring, .path_prefix = "a"}),
            (std::vector<std::string>{"y class a/f1.cpp:1:1-1 ", "z class a/f1.cpp:2:1-2 ", "only class a/f0.cpp:1:1-2 "}));
  EXPECT_EQ(testing::search_tables_problem(*db), "");
  repo.remove_files({"a/f1.cpp"});
  EXPECT_EQ(repo.file_hashes(), (Hashes{{"a/f0.cpp", "hash-a/f0.cpp"}}));
  EXPECT_EQ(found({.text = "", .match = SymbolQuery::Match::prefix}), (std::vector<std::string>{"only class a/f0.cpp:1:1-2 "}));
  EXPECT_EQ(repo.counts().symbols, 1);
}

// A declaration ranks after the definitions of its match tier, whatever the paths, so the best exact hit
// (what symbol_source takes) is a definition where there is one; it still ranks before the next tier.
TEST_F(RepositoryTest, DeclarationsRankAfterTheDefinitionsOfTheirTier) {
  repo.store_files({file_entry("a/api.h", {{"open_session", "function_declaration", 3, 5, 3, 30, ""},
                                           {"session_count", "variable_declaration", 4, 12, 4, 30, ""},
                                           {"close_session", "function_declaration", 5, 5, 5, 30, ""}}),
                    file_entry("z/api.c", {{"open_session", "function", 10, 5, 12, 1, ""},
                                           {"session_count", "variable", 2, 5, 2, 20, ""},
                                           {"open_session_later", "function", 20, 5, 22, 1, ""}})});
  using M = SymbolQuery::Match;
  EXPECT_EQ(found({.text = "open_session"}),
            (std::vector<std::string>{"open_session function z/api.c:10:5-12 ",
                                      "open_session function_declaration a/api.h:3:5-3 ",
                                      "open_session_later function z/api.c:20:5-22 "}));
  EXPECT_EQ(found({.text = "session_count", .match = M::exact}),
            (std::vector<std::string>{"session_count variable z/api.c:2:5-2 ",
                                      "session_count variable_declaration a/api.h:4:12-4 "}));
  // Where there is no definition, the declaration is the hit; and the kind filter finds declarations.
  EXPECT_EQ(found({.text = "close_session", .match = M::exact}),
            (std::vector<std::string>{"close_session function_declaration a/api.h:5:5-5 "}));
  EXPECT_EQ(found({.text = "session", .match = M::substring, .kind = "function_declaration"}),
            (std::vector<std::string>{"open_session function_declaration a/api.h:3:5-3 ",
                                      "close_session function_declaration a/api.h:5:5-5 "}));
}

// Which hit comes first: a qualifier names a module (from the file's path) or a scope; within a tier of
// exact names the symbol more likely meant goes first, whatever the paths' order; a qualifier that
// nothing lives under leaves the name alone.
TEST_F(RepositoryTest, QualifiersAndImportancePickTheFirstHit) {
  struct Row {
    std::string path, language, name, kind, scope;
    bool specialization = false;
    bool conditional = false;  // under an `#if`
  };
  const std::vector<Row> rows = {
      {"json/__init__.py", "python", "loads", "function", ""},
      {"json/decoder.py", "python", "loads", "method", "JSONDecoder"},
      {"pickle.py", "python", "loads", "function", ""},
      {"http/server.py", "python", "HTTPServer", "class", ""},
      {"http/client.py", "python", "HTTPServer", "variable", ""},
      {"_boot.py", "python", "Popen", "class", ""},
      {"subprocess.py", "python", "Popen", "class", ""},
      {"test/test_request.py", "python", "urlopen", "function", ""},
      {"urllib/request.py", "python", "urlopen", "function", ""},
      {"net/http/client.go", "go", "Client", "struct", ""},
      {"net/rpc/client.go", "go", "Client", "struct", ""},
      {"net/http/all_test.go", "go", "Do", "method", "Client"},
      {"net/http/client.go", "go", "Do", "method", "Client"},
      {"std/src/collections/hash/map.rs", "rust", "HashMap", "struct", ""},
      {"core/src/lib.rs", "rust", "HashMap", "type", "bench"},
      {"src/schemas.ts", "typescript", "object", "function", ""},
      {"boost/nowide/convert.hpp", "cpp", "strlen", "function", "boost::nowide"},
      {"string.h", "c", "strlen", "function_declaration", ""},
      {"repository.cpp", "cpp", "Repository", "constructor", "Repository"},
      {"repository.h", "cpp", "Repository", "class", ""},
      {"sqlite3ext.h", "c", "sqlite3_exec", "macro", ""},
      {"sqlite3.h", "c", "sqlite3_exec", "function_declaration", ""},
      {"absl/core.h", "cpp", "string_view", "type", ""},
      {"c++/string_view", "cpp", "string_view", "class", "std"},
      {"asio/detail/thread.hpp", "cpp", "thread", "class", "asio::detail"},
      {"asio/thread.hpp", "cpp", "thread", "class", "asio"},
      {"unistd.h", "c", "close", "function_declaration", ""},
      {"c++/fstream", "cpp", "close", "method", "std::basic_ifstream"},
      {"bits/stdio2.h", "c", "snprintf", "function", ""},
      {"stdio.h", "c", "snprintf", "function_declaration", ""},
      {"lib/benchmarks/realworld.ts", "typescript", "array", "function", ""},
      {"lib/v3/core/types.ts", "typescript", "array", "function", ""},
      {"boost/format.hpp", "cpp", "format", "function", ""},
      {"fmt/core.h", "cpp", "format", "function", ""},
      {"c++/bits/stl_bvector.h", "cpp", "vector", "class", "std", true},
      {"c++/bits/stl_vector.h", "cpp", "vector", "class", "std"},
      // Zeta is defined in three files and used in none, Beta used in one: their definitions refer too,
      // once per file (Beta's constructors are in the file of its class).
      {"beta.hpp", "cpp", "Beta", "class", ""},
      {"beta.hpp", "cpp", "step", "method", "Beta"},
      {"beta.hpp", "cpp", "Beta", "constructor", "Beta"},
      {"beta.hpp", "cpp", "Beta", "constructor", "Beta"},
      {"zeta.hpp", "cpp", "Zeta", "class", ""},
      {"zeta.hpp", "cpp", "step", "method", "Zeta"},
      {"zeta_fwd.hpp", "cpp", "Zeta", "class", ""},
      {"zeta_impl.hpp", "cpp", "Zeta", "class", ""},
      {"c++/bits/stl_deque.h", "cpp", "push_back", "method", "std::deque"},
      {"c++/bits/stl_vector.h", "cpp", "push_back", "method", "std::vector"},
      {"python3/cpython/pthread_stubs.h", "c", "pthread_mutex_t", "type", ""},
      {"x86/bits/pthreadtypes.h", "c", "pthread_mutex_t", "type", ""},
      {"ntpath.py", "python", "join", "function", ""},
      {"lzma.h", "c", "uint64_t", "type", "", false, true},
      {"x86/bits/stdint-uintn.h", "c", "uint64_t", "type", ""},
      {"posixpath.py", "python", "join", "function", ""},
  };
  // Files that use names and include or import others: vector is used more than deque; pthreadtypes.h is
  // included once, other files named pthread_stubs.h twice; posixpath is imported.
  struct User {
    std::string path, language;
    std::vector<std::string> names, imports;
  };
  const std::vector<User> users = {
      {"app/a.cpp", "cpp", {"vector", "deque"}, {"<bits/pthreadtypes.h>", "<sys/pthread_stubs.h>"}},
      {"app/b.cpp", "cpp", {"vector", "Beta"}, {"\"compat/pthread_stubs.h\""}},
      {"app/c.py", "python", {}, {"posixpath"}},
  };
  std::map<std::string, FileEntry> files;
  int line = 0;
  for (const Row& r : rows) {
    auto [at, added] = files.try_emplace(r.path, file_entry(r.path, {}));
    at->second.file.language = r.language;
    ++line;
    at->second.symbols.push_back({r.name, r.kind, line, 1, line, 1, r.scope, 0, r.specialization, r.conditional});
  }
  for (const User& u : users) {
    auto [at, added] = files.try_emplace(u.path, file_entry(u.path, {}));
    at->second.file.language = u.language;
    for (const std::string& name : u.names) pack_name_uses(at->second.uses, name, encode_uses({{0, UseRole::type}}));
    for (const std::string& target : u.imports) at->second.imports.push_back({target, 1});
  }
  std::vector<FileEntry> entries;
  for (auto& [path, e] : files) entries.push_back(std::move(e));
  repo.store_files(entries);  // a live store: the uses stay apart until an idle moment moves them
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"json.loads", "loads json/__init__.py"},
      {"decoder.JSONDecoder.loads", "loads json/decoder.py"},
      {"loads", "loads pickle.py"},  // the shallower scope, then the shallower path
      {"http.server.HTTPServer", "HTTPServer http/server.py"},
      {"Popen", "Popen subprocess.py"},         // a private module after a public one
      {"urlopen", "urlopen urllib/request.py"},  // tests after the code they test
      {"http.Client", "Client net/http/client.go"},
      {"rpc.Client", "Client net/rpc/client.go"},
      {"http.Client.Do", "Do net/http/client.go"},
      {"Do", "Do net/http/client.go"},
      {"std::collections::HashMap", "HashMap std/src/collections/hash/map.rs"},
      {"z.object", "object src/schemas.ts"},     // nothing under "z": the name alone
      {"strlen", "strlen string.h"},             // the global name before a library's wrapper
      {"Repository", "Repository repository.h"},  // the class before its constructor
      {"sqlite3_exec", "sqlite3_exec sqlite3.h"},  // the declaration before a macro standing in for it
      {"string_view", "string_view c++/string_view"},
      {"thread", "thread asio/thread.hpp"},      // a detail namespace after the public one
      {"close", "close unistd.h"},               // a C API's prototype before a class's member
      {"snprintf", "snprintf stdio.h"},          // the declaration before a C header's inline wrapper
      {"array", "array lib/v3/core/types.ts"},   // benchmarks after the code they measure
      {"fmt::format", "format fmt/core.h"},      // nothing under "fmt": where a path holds it
      {"stl_deque::push_back", "push_back c++/bits/stl_deque.h"},  // or a file's name
      {"std::vector", "vector c++/bits/stl_vector.h"},  // a template before its specialization
      {"uint64_t", "uint64_t x86/bits/stdint-uintn.h"},  // what is compiled always before a fallback under #if
      // Among equally likely hits, where more files refer to: a member of the class more used, a header
      // more included (by its path), a module more imported.
      {"push_back", "push_back c++/bits/stl_vector.h"},
      {"step", "step zeta.hpp"},
      {"pthread_mutex_t", "pthread_mutex_t x86/bits/pthreadtypes.h"},
      {"join", "join posixpath.py"},
  };
  for (const char* when : {"before the uses move", "after"}) {
    SCOPED_TRACE(when);
    for (const auto& [query, first] : cases) {
      SCOPED_TRACE(query);
      const auto hits = repo.search_symbols({.text = query});
      EXPECT_EQ(hits.empty() ? "nothing" : hits.front().name + " " + hits.front().path, first);
    }
    repo.move_fresh_uses();
  }
  // A qualifier that names nothing here finds nothing, unless the name alone does.
  EXPECT_TRUE(repo.search_symbols({.text = "nowhere.nothing"}).empty());
  EXPECT_EQ(repo.search_symbols({.text = "xml.loads"}).size(), 3u);
  // A path that a later store brings holds it from then on.
  auto first = [&](const std::string& text) {
    const auto hits = repo.search_symbols({.text = text});
    return hits.empty() ? "nothing" : hits.front().name + " " + hits.front().path;
  };
  EXPECT_EQ(first("Later.push_back"), "push_back c++/bits/stl_vector.h");
  FileEntry later = file_entry("src/later/list.hpp", {});
  later.file.language = "cpp";
  later.symbols.push_back({"push_back", "method", 1, 1, 1, 1, "detail::List", 0});  // set aside but for the path
  repo.store_files({later});
  EXPECT_EQ(first("Later.push_back"), "push_back src/later/list.hpp");
}

// Every way a search runs (by name, with or without the name index, from summaries that a rebuild made
// exact or that later changes left wider than the rows; by the rows of the files a path selects) finds
// what ranking every row finds: the same best hits in order and the same total, or, when it stopped
// counting, the same best hits and the cap.
// One instance per phase of the index's life (each replays the phases before it without querying), so that the
// phases, slow under the sanitizers, run side by side.
class EveryRowSearch : public RepositoryTest, public ::testing::WithParamInterface<int> {};

TEST_P(EveryRowSearch, AgreesWithRankingEveryRow) {
  const std::vector<std::string> stems = {"get", "getValue", "Get_value", "get%x", "GETXvalue", "parse", "Parser",
                                          "setGreatValue", "target"};
  std::vector<FileEntry> rows;
  for (auto [dir, files] : {std::pair{"big", 100}, {"small", 3}, {"big/sub", 2}, {"bigger", 700}, {"a.cpp", 1}}) {
    for (int f = 0; f < files; ++f) {
      std::vector<SymbolRow> symbols;
      for (int n = 0; n < 6; ++n) {
        auto i = static_cast<std::size_t>(f * 7 + n * 3);
        symbols.push_back({stems[i % stems.size()] + std::to_string(n % 2), n % 3 ? "function" : "class", n + 1,
                           n + 2, n + 9, 1, n % 2 ? (f % 3 ? "ns::K" : "ns::L") : ""});
      }
      auto entry = file_entry(files == 1 ? dir : fmt::format("{}/f{}.cpp", dir, f), std::move(symbols));
      if (f % 5 == 1) entry.file.language = "c";
      // Uses of the scopes' names and includes of other files, so that equally important rows have more
      // or fewer referrers.
      if (f % 4 == 0) pack_name_uses(entry.uses, "K", encode_uses({{0, UseRole::type}}));
      if (f % 6 == 0) pack_name_uses(entry.uses, "L", encode_uses({{0, UseRole::type}}));
      entry.imports = {{fmt::format("<f{}.cpp>", f % 7), 1}, {fmt::format("\"sub/f{}.cpp\"", f % 2), 2}};
      rows.push_back(std::move(entry));
    }
  }
  // Loaded in bulk: the name index is deferred while the index is empty, and not once it has rows; the
  // searches must agree without it and after it is rebuilt.
  ASSERT_TRUE(repo.defer_name_index());
  repo.store_files(rows);
  EXPECT_FALSE(repo.defer_name_index());
  // Later changes: files stored again with other kinds and names (their rows move to the end of the
  // table), and files removed.
  auto change = [&] {
    std::vector<FileEntry> changed;
    std::vector<std::string> removed;
    for (std::size_t i = 0; i < rows.size(); ++i) {
      if (i % 11 == 4) {
        for (auto& s : rows[i].symbols) s.kind = s.line % 2 ? "variable" : "macro";
        rows[i].symbols[1].name += "_again";
        changed.push_back(rows[i]);
      } else if (i % 13 == 6) {
        removed.push_back(rows[i].file.path);
      }
    }
    std::erase_if(rows, [&](const FileEntry& e) { return std::ranges::find(removed, e.file.path) != removed.end(); });
    repo.store_files(changed);
    repo.remove_files(removed);
  };

  std::map<std::string, std::int64_t> referrers_of;  // by path or scope, as the rows are now
  bool uses_counted = false;
  // `hint`: the qualifier dropped when nothing lives under it, which paths that hold it rank first by.
  std::function<std::vector<SymbolHit>(const SymbolQuery&, const std::string&)> reference = [&](const SymbolQuery& q,
                                                                                               const std::string& hint) {
    const NamePattern pattern = parse_pattern(q.text, q.match);
    // Referrers: of a member, the files that use its scope's last name (uses loaded in bulk are counted
    // once the name index is built); of a top-level row, the includes whose path is its file's path or
    // ends it.
    auto referrers = [&](const std::string& path, const std::string& scope) {
      auto [at, fresh] = referrers_of.try_emplace(scope.empty() ? path : scope);
      if (!fresh) return at->second;
      std::int64_t& n = at->second;
      for (const auto& e : rows) {
        if (!scope.empty()) {
          if (!uses_counted) break;
          bool uses = false;
          for_each_name_uses(e.uses, [&](const NameUses& u) { uses = uses || u.name == scope.substr(scope.rfind(':') + 1); });
          n += uses;
          continue;
        }
        for (const auto& i : e.imports) {
          const std::string written = i.target.substr(1, i.target.size() - 2);
          n += path == written || path.ends_with("/" + written);
        }
      }
      return n;
    };
    const std::string dir = q.path_prefix.value_or("");
    const bool glob = dir.find('*') != std::string::npos;
    std::vector<SymbolHit> hits;
    for (const auto& e : rows) {
      const std::string& p = e.file.path;
      if (glob ? !glob_match(dir, p) : !dir.empty() && p != dir && !p.starts_with(dir + "/")) continue;
      if (q.language && *q.language != e.file.language) continue;
      for (const auto& s : e.symbols) {
        const SymbolPlace place{p, e.file.language, s.scope};
        const Tier tier = match_tier(pattern, s.name, place);
        if (tier == Tier::none || (q.kind && *q.kind != s.kind)) continue;
        hits.push_back({s.name, s.kind, p, s.line, s.column, s.end_line, s.scope, e.file.language,
                        tier_rank(tier, q.match), 0,
                        hint.empty() ? importance(pattern, place, s.kind)
                                     : importance(path_holds_qualifier(hint, p) ? 0 : 1, place_rank(place, s.kind))});
      }
    }
    if (hits.empty() && !pattern.scope.empty() && !pattern.text.empty()) {
      SymbolQuery bare = q;
      bare.text = pattern.text;
      return reference(bare, pattern.scope);
    }
    std::sort(hits.begin(), hits.end(), [&](const SymbolHit& a, const SymbolHit& b) {
      return ranks_before(a, b, [&](const SymbolHit& h) { return referrers(h.path, h.scope); });
    });
    return hits;
  };
  auto lines = [&](const std::vector<SymbolHit>& hits) {
    std::vector<std::string> out;
    for (const auto& h : hits) out.push_back(text(h, h.path) + " " + std::to_string(h.tier));
    return out;
  };

  using Opt = std::optional<std::string>;
  using M = SymbolQuery::Match;
  const std::vector<std::string> phases = {"without the name index", "rebuilt", "changed since"};
  for (int at = 0; at <= GetParam(); ++at) {
    const std::string& phase = phases[at];
    SCOPED_TRACE(phase);
    if (phase == "rebuilt") {
      repo.restore_indexes();
      uses_counted = true;
    }
    if (phase == "changed since") {
      change();
      referrers_of.clear();
    }
    if (at < GetParam()) continue;
    repo.clear_query_cache();
    if (phase != "without the name index") ASSERT_EQ(testing::search_tables_problem(*db), "");
    for (auto match : {M::automatic, M::exact, M::prefix, M::substring, M::fuzzy}) {
      for (std::string text : {"", "get", "Get", "value1", "_v", "%x", "Parser0", "zzz", "gv", "gtv", "etv", "K.get",
                               "ns::k::parse", "*value?", "get*", "ta", "xv", "sgv", "big.get", "x.target",
                               "sub.get0"}) {
        for (auto [kind, language] : {std::pair{Opt(), Opt()}, {Opt("class"), Opt()}, {Opt(), Opt("c")}}) {
          for (Opt dir : {Opt(), Opt("big"), Opt("./big/"), Opt("small"), Opt("a.cpp"), Opt("a"), Opt("big*/f1*"),
                          Opt("bigger"), Opt("b*")}) {
            auto all = reference({text, match, kind, dir == "./big/" ? Opt("big") : dir, -1, language}, {});
            for (int limit : {-1, 5}) {
              SymbolQuery q{.text = text, .match = match, .kind = kind, .path_prefix = dir, .limit = limit,
                            .language = language};
              SCOPED_TRACE(fmt::format("match {} text '{}' kind {} language {} dir {} limit {}", int(match), text,
                                       kind.value_or("-"), language.value_or("-"), dir.value_or("-"), limit));
              auto want = all;
              const auto got = repo.find_symbols(q);
              if (got.more) {  // stopped counting at the cap
                ASSERT_EQ(got.total, detail::kCountCap);
                ASSERT_GT(want.size(), static_cast<std::size_t>(detail::kCountCap));
              } else {
                ASSERT_EQ(got.total, static_cast<std::int64_t>(want.size()));
              }
              if (limit >= 0 && want.size() > static_cast<std::size_t>(limit)) want.resize(limit);
              ASSERT_EQ(lines(got.hits), lines(want));
            }
          }
        }
      }
    }
  }
  EXPECT_EQ(repo.list_files("big/sub").size(), 2u);
  if (GetParam() == 2) EXPECT_EQ(repo.list_files("./big/").size(), 94u);
}
INSTANTIATE_TEST_SUITE_P(Phases, EveryRowSearch, ::testing::Values(0, 1, 2));

// A query is answered from the cache until the index changes through the repository or the cache is
// cleared; the rows are changed behind the repository's back to tell a cached answer from a fresh one.
TEST_F(RepositoryTest, CachedResultsLastUntilTheIndexChanges) {
  repo.store_files(entries("c", 3, 3));
  const std::vector<std::pair<std::string, std::function<void()>>> invalidations = {
      {"clear_query_cache", [&] { repo.clear_query_cache(); }},
      {"store_files", [&] { repo.store_files({file_entry("other.cpp", {})}); }},
      {"remove_files", [&] { repo.remove_files({"other.cpp"}); }},
  };
  const SymbolQuery query{.text = "c_1_1", .match = SymbolQuery::Match::exact};
  for (const auto& [label, invalidate] : invalidations) {
    SCOPED_TRACE(label);
    auto before = std::make_tuple(found(query), repo.list_files().size(), repo.counts().files);
    db->execute("UPDATE symbols SET line = line + 1; INSERT INTO files(path, language, size, mtime_ns, content_hash, first_symbol, symbol_count) VALUES ('new.cpp', 'cpp', 1, 1, 'h', 1, 0);");
    EXPECT_EQ(std::make_tuple(found(query), repo.list_files().size(), repo.counts().files), before);
    invalidate();
    EXPECT_NE(found(query), std::get<0>(before));
    EXPECT_EQ(repo.counts().files, repo.list_files().size());
    db->execute("DELETE FROM files WHERE path = 'new.cpp'");
    repo.clear_query_cache();
  }
}

// A query on a read connection neither waits for a write transaction nor sees it before its commit.
TEST_F(RepositoryTest, QueriesDoNotWaitForTheWriter) {
  repo.store_files(entries("w", 2, 2));
  std::future<std::int64_t> query;
  db->with_connection([&](sqlite3* c) {
    sqlite3_exec(c, "BEGIN IMMEDIATE; DELETE FROM symbols;", nullptr, nullptr, nullptr);
    query = std::async(std::launch::async, [&] { return repo.counts().symbols; });
    // Generous: a query that waited for the writer would wait forever, as the writer waits for it.
    EXPECT_EQ(query.wait_for(std::chrono::seconds(60)), std::future_status::ready);
    sqlite3_exec(c, "COMMIT", nullptr, nullptr, nullptr);
  });
  EXPECT_EQ(query.get(), 4);
}

class SwapTest : public RepositoryTest {
 protected:
  void SetUp() override { repo.store_files(entries("old", 30, 20)); }
};

// The live index becomes a copy of the staged one, the counts are returned, and a query cached before the
// swap is answered from the new index.
TEST_F(SwapTest, ReplacesEveryRowAndAnswersCachedQueriesFromTheNewIndex) {
  const SymbolQuery query{.text = "old_1_1", .match = SymbolQuery::Match::exact};
  ASSERT_EQ(repo.search_symbols(query).at(0).path, "old/f1.cpp");
  auto rows = entries("new", 40, 25);
  rows.push_back(testing::file_entry("moved.cpp", {{"old_1_1", "class", 77, 1, 80, 1, ""}}));
  auto staging = make_staging(dir.path() / "index.db.reindex-staging", rows);
  db->execute("DROP INDEX symbols_by_name");  // as a cancelled bulk load into the live file leaves it

  EXPECT_EQ(storage::to_string(repo.swap_index_from(dir.path() / "index.db.reindex-staging")),
            R"({"files":41,"symbols":1001})");
  EXPECT_EQ(dump(*db), dump(*staging));  // every row and index, and the staging file detached
  EXPECT_EQ(repo.search_symbols(query).at(0).path, "moved.cpp");
  // The writer goes on from the new trigram index, not from what it had read of the old one.
  repo.store_files(entries("later", 3, 4));
  repo.remove_files({"new/f1.cpp"});
  EXPECT_EQ(testing::search_tables_problem(*db), "");
  EXPECT_EQ(repo.find_symbols({.text = "ater_1", .match = SymbolQuery::Match::substring}).total, 4);

  auto empty = make_staging(dir.path() / "empty", {});  // also an index, and the live writer carries on after it
  EXPECT_EQ(storage::to_string(repo.swap_index_from(dir.path() / "empty")), R"({"files":0,"symbols":0})");
  repo.store_files(entries("after", 1, 2));
  EXPECT_EQ(repo.counts().symbols, 2);
  EXPECT_EQ(testing::search_tables_problem(*db), "");
}

void write_bytes(const fs::path& path, const std::string& bytes, std::streamoff at) {
  std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
  if (!f) f.open(path, std::ios::out | std::ios::binary);
  f.seekp(at).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// Each failure rolls back and leaves the live index (rows, attached files, cached answers) exactly as it
// was; the error names both files and the step that failed (SQLite's own words follow).
TEST_F(SwapTest, EveryFailureLeavesTheLiveIndexAsItWas) {
  const auto big = entries("new", 50, 40);
  std::vector<std::shared_ptr<Database>> open;  // staging databases stay open through the swap
  // Runs `sql` on a staging file made from `big`, or on an empty file.
  auto staged = [&](const fs::path& p, const std::string& sql, bool filled = true) {
    open.push_back(filled ? make_staging(p, big) : std::make_shared<Database>(p));
    open.back()->connect();  // when empty
    open.back()->execute(sql);
  };
  const std::vector<std::tuple<std::string, std::function<void(const fs::path&)>, std::string>> cases = {
      {"missing", [](auto&) {}, "the staging file does not exist"},
      {"directory", [](auto& p) { fs::create_directory(p); }, "the staging file is not a regular file"},
      {"older version", [&](auto& p) { staged(p, "PRAGMA user_version = 1"); },
       fmt::format("the staging file has schema version 1, expected {}", kSchemaVersion)},
      {"no schema", [&](auto& p) { staged(p, "CREATE TABLE files(x)", false); },
       fmt::format("schema version 0, expected {}", kSchemaVersion)},
      {"wrong files table",
       [&](auto& p) { staged(p, fmt::format("CREATE TABLE files(x); PRAGMA user_version = {}", kSchemaVersion), false); },
       "copying the files: "},
      {"wrong symbols table, after the files were copied",
       [&](auto& p) { staged(p, "DROP TABLE symbols; CREATE TABLE symbols(y)"); },
       "copying the symbols: "},
      {"wrong names table, after the symbols were copied",
       [&](auto& p) { staged(p, "DROP TABLE name_grams; DROP TABLE names; CREATE TABLE names(z)"); },
       "copying the names: "},
      {"not a database", [](auto& p) { write_bytes(p, std::string(8192, 'x'), 0); }, "attaching the staging file: "},
      {"damaged pages",  // page 1 (header and schema) intact, every later page overwritten
       [&](auto& p) {
         make_staging(p, big)->close();
         write_bytes(p, std::string(fs::file_size(p) - 4096, '\xA5'), 4096);
       },
       "copying the files: "},
  };
  const SymbolQuery query{.text = "old_", .match = SymbolQuery::Match::prefix, .limit = 5};
  const auto cached = repo.search_symbols(query).size();
  const auto before = dump(*db);
  for (const auto& [label, make, cause] : cases) {
    SCOPED_TRACE(label);
    auto path = dir.path() / label;
    make(path);
    try {
      repo.swap_index_from(path);
      ADD_FAILURE() << "no error";
    } catch (const StorageError& e) {
      EXPECT_THAT(e.what(), AllOf(HasSubstr(fmt::format("swapping in the index of {} onto {}: ", path.string(),
                                                        (dir.path() / "index.db").string())),
                                  HasSubstr(cause)));
    }
    EXPECT_EQ(dump(*db), before);
    EXPECT_EQ(repo.search_symbols(query).size(), cached);
  }
  make_staging(dir.path() / "good", entries("new", 2, 2));
  EXPECT_EQ(storage::to_string(repo.swap_index_from(dir.path() / "good")), R"({"files":2,"symbols":4})");
}

// Readers on their own connections during repeated swaps (from another thread than the one that opened the
// live database): each answer comes wholly from one index that was live while the query ran, never a mix,
// never empty, and never older than the last swap that had returned before the query began. One reader
// clears the cache before each query; the others are answered from it whenever they can be.
TEST_F(SwapTest, ReadersSeeTheOldIndexOrTheNewNeverAMix) {
  constexpr int kSwaps = 24;
  auto files_of = [](int g) { return 3 + g % 4; };
  auto per_file = [](int g) { return 2 + g % 3; };
  auto swap_in = [&](int g) {
    auto path = dir.path() / fmt::format("staging-{}", g);
    auto staging = make_staging(path, entries(fmt::format("g{}", g), files_of(g), per_file(g)));
    repo.swap_index_from(path);
  };
  swap_in(0);
  std::atomic<int> swapped = 0, checks = 0, failures = 0;  // swaps that have returned: generation `swapped` is live
  std::atomic<bool> done = false;
  std::vector<std::thread> readers;
  for (int t = 0; t < 3; ++t) {
    readers.emplace_back([&, t] {
      while (!done) {
        if (t == 0) repo.clear_query_cache();
        int low = swapped, g = -1;
        auto counts = repo.counts();
        auto hits = repo.search_symbols({.text = "g", .match = SymbolQuery::Match::prefix, .limit = -1});
        int high = swapped + 1;  // a swap may have committed without having returned yet
        bool whole = !hits.empty() && std::sscanf(hits[0].name.c_str(), "g%d_", &g) == 1 && g >= low && g <= high &&
                     hits.size() == static_cast<std::size_t>(files_of(g) * per_file(g));
        for (const auto& h : hits) whole = whole && h.name.starts_with(fmt::format("g{}_", g));
        bool counts_whole = false;  // the counts come from their own query
        for (int k = low; k <= high; ++k) {
          counts_whole = counts_whole || (counts.files == files_of(k) && counts.symbols == files_of(k) * per_file(k));
        }
        failures += !whole + !counts_whole;
        ++checks;
      }
    });
  }
  std::thread([&] { for (int g = 1; g <= kSwaps; ++g) swap_in(g), swapped = g; }).join();
  done = true;
  for (auto& t : readers) t.join();
  EXPECT_EQ(failures, 0);
  EXPECT_GT(checks, kSwaps);
}

}  // namespace
}  // namespace brenloc::storage
