// The uses of names as the store keeps them: pages that a cursor walks cover every use once, with the
// filters of a query; a file stored again or removed takes its uses and imports along; a bulk load finds
// them once its indexes are built, and a swap carries them.
#include <fstream>
#include <functional>
#include <set>

#include "brenloc/storage/source_text.h"
#include "storage/storage_fixture.h"

namespace brenloc::storage {
namespace {

using testing::entries;
using testing::file_entry;
using testing::open_database;
using testing::TempDir;

// Where files have no text (the uses of these tests are all coded).
SourceFiles no_texts{"/nonexistent"};

// "d<i % 10>/f<i>.cpp" uses `size_t` at 100 (a call) and 200 (a type) and `count` at 300.
FileEntry user(int i) {
  FileEntry e = file_entry(fmt::format("d{}/f{}.cpp", i % 10, i), {});
  pack_name_uses(e.uses, "size_t", encode_uses({{100, UseRole::call}, {200, UseRole::type}}));
  pack_name_uses(e.uses, "count", encode_uses({{300, UseRole::other}}));
  return e;
}

// Every use of a query, page after page as the cursor leads, as "path@offset".
std::vector<std::string> walk(Repository& repo, UsesQuery q, int* pages = nullptr) {
  std::vector<std::string> out;
  for (int page = 0; page < 10000; ++page) {
    const UsesPage p = repo.find_uses(q, no_texts);
    for (const UseHit& h : p.hits) out.push_back(fmt::format("{}@{}", h.path, h.use.offset));
    if (pages) *pages = page + 1;
    if (!p.next) return out;
    q.from_file = p.next->first;
    q.skip = p.next->second;
  }
  ADD_FAILURE() << "the cursor does not end";
  return out;
}

TEST(Uses, PagesCoverEveryUseOnce) {
  TempDir dir;
  Repository repo(open_database(dir.path() / "index.db"));
  for (int batch = 0; batch < 6; ++batch) {
    std::vector<FileEntry> files;
    for (int i = batch * 500; i < (batch + 1) * 500; ++i) files.push_back(user(i));
    repo.store_files(files);
  }
  struct Case {
    const char* label;
    UsesQuery query;
    std::size_t uses;
    std::int64_t total;
    bool more;
  };
  const Case cases[] = {
      {"a name used 6,000 times, in pages of 7", {.name = "size_t", .limit = 7}, 6000, 500, true},
      {"one role", {.name = "size_t", .roles = 1u << static_cast<int>(UseRole::call), .limit = 1000}, 3000, 500, true},
      {"a directory", {.name = "size_t", .path_prefix = "d3", .limit = 33}, 600, 500, true},
      {"a glob", {.name = "count", .path_prefix = "d1/f1?1.cpp", .limit = 4}, 10, 10, false},
      {"no role of those asked", {.name = "count", .roles = 1u << static_cast<int>(UseRole::import)}, 0, 0, false},
      {"a name used nowhere", {.name = "size", .limit = 5}, 0, 0, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    const UsesPage first = repo.find_uses(c.query, no_texts);
    EXPECT_EQ(first.total, c.total);
    EXPECT_EQ(first.more, c.more);
    const std::vector<std::string> all = walk(repo, c.query);
    EXPECT_EQ(all.size(), c.uses);
    EXPECT_EQ(std::set<std::string>(all.begin(), all.end()).size(), all.size()) << "a use shown twice";
  }
}

// "<path>" using each of `names` at 5 and 50.
FileEntry using_names(const std::string& path, const std::vector<std::string>& names) {
  FileEntry e = file_entry(path, {});
  for (const std::string& n : names) pack_name_uses(e.uses, n, encode_uses({{5, UseRole::call}, {50, UseRole::other}}));
  return e;
}

// The definitions that a file's rows of symbols hold are not coded among its uses: queries answer as if
// they were (the same uses in the same order, totals, roles, pages and filters), live and once moved; a
// blob that codes all its definitions takes none from the rows (a row with no occurrence at its place).
TEST(Uses, DefinitionsHeldBySymbolsAnswerAsIfCoded) {
  constexpr UseRole def = UseRole::definition, call = UseRole::call, other = UseRole::other;
  struct Name {
    std::string name;
    std::vector<Use> uses;       // all of them
    std::vector<Use> coded;      // as extraction codes them
    bool every_coded = false;
  };
  struct Source {
    std::string path, text;
    std::vector<SymbolRow> symbols;
    std::vector<Name> names;
  };
  auto row = [](std::string name, int line, int column) { return SymbolRow{std::move(name), "function", line, column, line, 30, ""}; };
  const std::vector<Source> sources = {
      {"a.c",
       "int f(void) { return 0; }\nint g(void) { return f() + f(); }\n",
       {row("f", 1, 5), row("g", 2, 5)},
       {{"f", {{4, def}, {47, call}, {53, call}}, {{47, call}, {53, call}}}, {"g", {{30, def}}, {}}}},
      {"b.c",
       "void f(void);\nvoid k(void) { f(); }\n",
       {row("f", 1, 6), row("k", 2, 6)},
       {{"f", {{5, def}, {29, call}}, {{29, call}}}, {"k", {{19, def}}, {}}}},
      // A row of `f` at the comment's f, where the file does not define it.
      {"c.c", "/* f */ int f;\n", {row("f", 1, 4)}, {{"f", {{12, other}}, {{12, other}}, true}}},
      {"d.c", "int m;\n// f\n", {row("m", 1, 5), row("f", 2, 4)}, {{"m", {{4, def}}, {}}, {"f", {}, {}, true}}},
      // A local, which no row of symbols holds.
      {"e.c",
       "void p(void) { int f = 1; f++; }\n",
       {row("p", 1, 6)},
       {{"p", {{5, def}}, {}}, {"f", {{19, def}, {26, other}}, {{19, def}, {26, other}}}}},
  };
  TempDir dir;
  SourceFiles texts(dir.path());
  std::vector<FileEntry> coded, held;
  for (const Source& s : sources) {
    std::ofstream(dir.path() / s.path) << s.text;
    coded.push_back(file_entry(s.path, {}));
    held.push_back(file_entry(s.path, s.symbols));
    for (const Name& n : s.names) {
      if (!n.uses.empty()) pack_name_uses(coded.back().uses, n.name, encode_uses(n.uses));
      if (!n.coded.empty() || n.every_coded) pack_name_uses(held.back().uses, n.name, encode_uses(n.coded, n.every_coded));
    }
  }
  Repository all_coded(open_database(dir.path() / "coded.db"));
  Repository with_symbols(open_database(dir.path() / "held.db"));
  all_coded.store_files(coded);
  with_symbols.store_files(held);
  const unsigned only_definitions = 1u << static_cast<int>(def), only_calls = 1u << static_cast<int>(call);
  const UsesQuery queries[] = {
      {.name = "f", .limit = 1},       {.name = "f", .roles = only_definitions, .limit = 1},
      {.name = "f", .roles = only_calls}, {.name = "f", .path_prefix = "b.c", .limit = 1},
      {.name = "g"},                   {.name = "k", .roles = only_calls},
      {.name = "m", .limit = 1},       {.name = "p"},
  };
  // Every page of a query, as "path@offset role", and the first page's total.
  auto answers = [&](Repository& repo, UsesQuery q) {
    std::vector<std::string> out{fmt::format("total {}", repo.find_uses(q, texts).total)};
    for (int page = 0; page < 100; ++page) {
      const UsesPage p = repo.find_uses(q, texts);
      for (const UseHit& h : p.hits) out.push_back(fmt::format("{}@{} {}", h.path, h.use.offset, kUseRoleNames[static_cast<int>(h.use.role)]));
      if (!p.next) break;
      q.from_file = p.next->first;
      q.skip = p.next->second;
    }
    return out;
  };
  for (const char* when : {"stored live", "moved into place"}) {
    SCOPED_TRACE(when);
    for (const UsesQuery& q : queries) {
      SCOPED_TRACE(fmt::format("{} roles {:x} in {}", q.name, q.roles, q.path_prefix.value_or("all")));
      EXPECT_EQ(answers(with_symbols, q), answers(all_coded, q));
    }
    all_coded.move_fresh_uses();
    with_symbols.move_fresh_uses();
  }
}

// Live stores keep a file's uses apart until the end of the pass moves them into place: queries answer
// the same before and after, page after page, and the moved rows are exactly those of the files.
TEST(Uses, LiveChangesReadTheSameBeforeAndAfterTheyMove) {
  using Step = std::function<void(Repository&)>;
  auto store = [](std::vector<FileEntry> files) { return Step([files](Repository& r) { r.store_files(files); }); };
  auto remove = [](std::vector<std::string> paths) { return Step([paths](Repository& r) { r.remove_files(paths); }); };
  const Step move = [](Repository& r) { r.move_fresh_uses(); };
  struct Case {
    const char* label;
    std::vector<Step> steps;
    std::vector<std::string> a, b;  // the uses of `a` and of `b` in the end
  };
  // More files than a move takes in one batch.
  std::vector<FileEntry> many_a, many_b;
  std::vector<std::string> many_b_uses;
  for (int i = 0; i < 300; ++i) {
    const std::string path = fmt::format("g{:03}", i);
    many_a.push_back(using_names(path, {"a"}));
    many_b.push_back(using_names(path, {"b"}));
    many_b_uses.insert(many_b_uses.end(), {path + "@5", path + "@50"});
  }
  const Case cases[] = {
      {"more files than a batch, stored again with another name", {store(many_a), move, store(many_b)}, {}, many_b_uses},
      {"a file stored again uses another name",
       {store({using_names("f0", {"a", "b"}), using_names("f1", {"a"})}), move, store({using_names("f0", {"b"})})},
       {"f1@5", "f1@50"},
       {"f0@5", "f0@50"}},
      {"a file removed, and its number taken by a new file",
       {store({using_names("f0", {"a"}), using_names("f1", {"a"})}), move, remove({"f1"}), store({using_names("f2", {"b"})})},
       {"f0@5", "f0@50"},
       {"f2@5", "f2@50"}},
      {"stored twice between moves, then again after one",
       {store({using_names("f0", {"a"})}), store({using_names("f0", {"b"})}), move, store({using_names("f0", {"a", "b"})})},
       {"f0@5", "f0@50"},
       {"f0@5", "f0@50"}},
      {"moved and unmoved files in file order",
       {store({using_names("f0", {"a"}), using_names("f1", {"a"}), using_names("f2", {"a"})}), move,
        store({using_names("f1", {"a"}), using_names("f3", {"a"})})},
       {"f0@5", "f0@50", "f1@5", "f1@50", "f2@5", "f2@50", "f3@5", "f3@50"},
       {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    TempDir dir;
    auto db = open_database(dir.path() / "index.db");
    Repository repo(db);
    for (const Step& step : c.steps) step(repo);
    for (const char* when : {"before the move", "after it"}) {
      SCOPED_TRACE(when);
      EXPECT_EQ(walk(repo, {.name = "a", .limit = 1}), c.a);
      EXPECT_EQ(walk(repo, {.name = "b", .limit = 1}), c.b);
      EXPECT_EQ(repo.find_uses({.name = "a"}, no_texts).total, static_cast<std::int64_t>(c.a.size()));
      move(repo);
    }
    EXPECT_EQ(testing::query_text(*db, "SELECT count(*) FROM uses_fresh"), "0");
    EXPECT_EQ(testing::query_text(*db, "SELECT count(*) FROM uses"),
              std::to_string((c.a.size() + c.b.size()) / 2));
    EXPECT_EQ(testing::query_text(*db, fmt::format("SELECT sum(length(keys)) / {} FROM file_uses", kNameKeyBytes)),
              std::to_string((c.a.size() + c.b.size()) / 2));
  }
}

TEST(Uses, FollowStoresRemovalsBulkLoadsAndSwaps) {
  TempDir dir;
  Repository repo(open_database(dir.path() / "index.db"));
  auto files_using = [&](const std::string& name) {
    std::set<std::string> out;
    for (const UseHit& h : repo.find_uses({.name = name, .limit = 1000}, no_texts).hits) out.insert(h.path);
    return out;
  };
  auto importers = [&](const std::string& stem) {
    std::set<std::string> out;
    for (const ImportHit& h : repo.imports_by_stem({stem})) out.insert(h.path + " " + h.target);
    return out;
  };
  repo.store_files(entries("a", 3, 1));
  EXPECT_EQ(files_using("a"), (std::set<std::string>{"a/f0.cpp", "a/f1.cpp", "a/f2.cpp"}));
  EXPECT_EQ(importers("a"), (std::set<std::string>{"a/f0.cpp \"a.h\"", "a/f1.cpp \"a.h\"", "a/f2.cpp \"a.h\""}));
  repo.store_files({file_entry("a/f1.cpp", {})});  // stored again, using nothing
  repo.remove_files({"a/f2.cpp"});
  EXPECT_EQ(files_using("a"), (std::set<std::string>{"a/f0.cpp"}));
  EXPECT_EQ(importers("a"), (std::set<std::string>{"a/f0.cpp \"a.h\""}));

  // A bulk load, with a file stored twice in it, as a rebuild's staging database gets it.
  auto staging_db = open_database(dir.path() / "staging.db");
  Repository staging(staging_db);
  ASSERT_TRUE(staging.defer_name_index());
  staging.store_files(entries("b", 4, 1));
  staging.store_files({file_entry("b/f3.cpp", {})});
  staging.store_files(entries("c", 500, 1));
  staging.restore_indexes();
  EXPECT_EQ(testing::query_text(*staging_db, "PRAGMA freelist_count"), "0") << "the load's rows left free pages";
  staging_db->execute("PRAGMA wal_checkpoint(TRUNCATE)");
  repo.swap_index_from(dir.path() / "staging.db");
  EXPECT_EQ(files_using("a"), std::set<std::string>{});
  EXPECT_EQ(files_using("b"), (std::set<std::string>{"b/f0.cpp", "b/f1.cpp", "b/f2.cpp"}));
  EXPECT_EQ(importers("b").size(), 3u);
  // The live writer goes on from the swapped rows.
  repo.remove_files({"b/f0.cpp"});
  EXPECT_EQ(files_using("b"), (std::set<std::string>{"b/f1.cpp", "b/f2.cpp"}));
}

}  // namespace
}  // namespace brenloc::storage
