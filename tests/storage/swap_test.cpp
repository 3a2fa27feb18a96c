// The swap of a staged index onto the live connection: its result, its failures (each leaving the live
// rows exactly as they were), and what readers on other connections see while it runs.
#include <sqlite3.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "brenloc/storage/errors.h"
#include "brenloc/storage/repository.h"
#include "storage/storage_fixture.h"

namespace brenloc::storage {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using storage::testing::attached;
using storage::testing::dump_rows;
using storage::testing::generated_entries;
using storage::testing::make_staging;
using storage::testing::open_database;
using storage::testing::TempDir;

// A VFS over the default one that, once armed, fails reads of main database files whose name contains
// "faulty" after a number of reads has succeeded: a real I/O error in the middle of the swap's copy.
// Registered as the default while it lives; a connection (and the files it attaches) uses the VFS that
// was the default when it was opened.
class FaultyVfs {
 public:
  FaultyVfs() {
    real_ = sqlite3_vfs_find(nullptr);
    vfs_ = *real_;
    vfs_.szOsFile = static_cast<int>(sizeof(File)) + real_->szOsFile;
    vfs_.zName = "brenloc-faulty";
    vfs_.pAppData = this;
    vfs_.xOpen = &FaultyVfs::open;
    sqlite3_vfs_register(&vfs_, 1);
  }
  ~FaultyVfs() {
    sqlite3_vfs_unregister(&vfs_);
    sqlite3_vfs_register(real_, 1);
  }
  void arm(int reads_before_failure) {
    reads_left_ = reads_before_failure;
    armed_ = true;
  }
  void disarm() { armed_ = false; }
  int failures() const { return failures_; }

 private:
  struct File {
    sqlite3_file base;
    FaultyVfs* owner;
    bool faulty;
    sqlite3_file* real() { return reinterpret_cast<sqlite3_file*>(this + 1); }
  };
  static File* file(sqlite3_file* f) { return reinterpret_cast<File*>(f); }

  static int open(sqlite3_vfs* vfs, sqlite3_filename name, sqlite3_file* f, int flags, int* out_flags) {
    auto* self = static_cast<FaultyVfs*>(vfs->pAppData);
    File* ff = file(f);
    int rc = self->real_->xOpen(self->real_, name, ff->real(), flags, out_flags);
    if (rc != SQLITE_OK) {
      f->pMethods = nullptr;
      return rc;
    }
    ff->owner = self;
    ff->faulty = name != nullptr && std::strstr(name, "faulty") != nullptr && (flags & SQLITE_OPEN_MAIN_DB);
    f->pMethods = &kMethods;
    return SQLITE_OK;
  }

  static int read(sqlite3_file* f, void* buf, int n, sqlite3_int64 off) {
    File* ff = file(f);
    if (ff->faulty && ff->owner->armed_ && ff->owner->reads_left_-- <= 0) {
      ++ff->owner->failures_;
      return SQLITE_IOERR_READ;
    }
    return ff->real()->pMethods->xRead(ff->real(), buf, n, off);
  }

#define BRENLOC_FORWARD(method, ...) file(f)->real()->pMethods->method(file(f)->real() __VA_OPT__(, ) __VA_ARGS__)
  static int close(sqlite3_file* f) { return BRENLOC_FORWARD(xClose); }
  static int write(sqlite3_file* f, const void* b, int n, sqlite3_int64 o) { return BRENLOC_FORWARD(xWrite, b, n, o); }
  static int truncate(sqlite3_file* f, sqlite3_int64 s) { return BRENLOC_FORWARD(xTruncate, s); }
  static int sync(sqlite3_file* f, int flags) { return BRENLOC_FORWARD(xSync, flags); }
  static int size(sqlite3_file* f, sqlite3_int64* s) { return BRENLOC_FORWARD(xFileSize, s); }
  static int lock(sqlite3_file* f, int l) { return BRENLOC_FORWARD(xLock, l); }
  static int unlock(sqlite3_file* f, int l) { return BRENLOC_FORWARD(xUnlock, l); }
  static int check_lock(sqlite3_file* f, int* r) { return BRENLOC_FORWARD(xCheckReservedLock, r); }
  static int control(sqlite3_file* f, int op, void* arg) { return BRENLOC_FORWARD(xFileControl, op, arg); }
  static int sector(sqlite3_file* f) { return BRENLOC_FORWARD(xSectorSize); }
  static int device(sqlite3_file* f) { return BRENLOC_FORWARD(xDeviceCharacteristics); }
  static int shm_map(sqlite3_file* f, int p, int s, int e, void volatile** out) {
    return BRENLOC_FORWARD(xShmMap, p, s, e, out);
  }
  static int shm_lock(sqlite3_file* f, int o, int n, int fl) { return BRENLOC_FORWARD(xShmLock, o, n, fl); }
  static void shm_barrier(sqlite3_file* f) { BRENLOC_FORWARD(xShmBarrier); }
  static int shm_unmap(sqlite3_file* f, int d) { return BRENLOC_FORWARD(xShmUnmap, d); }
  static int fetch(sqlite3_file* f, sqlite3_int64 o, int n, void** p) { return BRENLOC_FORWARD(xFetch, o, n, p); }
  static int unfetch(sqlite3_file* f, sqlite3_int64 o, void* p) { return BRENLOC_FORWARD(xUnfetch, o, p); }
#undef BRENLOC_FORWARD

  static constexpr sqlite3_io_methods kMethods = {
      3,    &close,     &read,     &write,       &truncate,  &sync,   &size,  &lock,  &unlock, &check_lock,
      &control, &sector, &device, &shm_map, &shm_lock, &shm_barrier, &shm_unmap, &fetch, &unfetch};

  sqlite3_vfs* real_ = nullptr;
  sqlite3_vfs vfs_{};
  std::atomic<bool> armed_ = false;
  std::atomic<int> reads_left_ = 0;
  std::atomic<int> failures_ = 0;
};

class SwapTest : public ::testing::Test {
 protected:
  TempDir dir;
  std::shared_ptr<Database> live = open_database(dir / "index.db");
  Repository repo{live};

  void SetUp() override { repo.store_files(generated_entries("old", 30, 20)); }

  std::vector<std::string> names(const std::string& prefix) {
    std::vector<std::string> out;
    for (const auto& h : repo.search_symbols({.text = prefix, .match = SymbolQuery::Match::prefix, .limit = 3}))
      out.push_back(h.name);
    return out;
  }
};

TEST_F(SwapTest, ReplacesEveryRowAndReturnsTheCounts) {
  auto staging_path = dir / "index.db.reindex-staging";
  auto staging = make_staging(staging_path, generated_entries("new", 40, 25));

  auto result = repo.swap_index_from(staging_path);
  EXPECT_EQ(result.dump(), R"({"files":40,"symbols":1000})");
  EXPECT_EQ(dump_rows(*live), dump_rows(*staging));
  EXPECT_THAT(attached(*live), ElementsAre("main"));
  EXPECT_GT(repo.last_swap_timing().total_seconds, 0);
  EXPECT_LE(repo.last_swap_timing().write_lock_seconds, repo.last_swap_timing().total_seconds);

  // The staging database is still usable on its own connection, and a second swap works the same way.
  staging->close();
  auto empty_path = dir / "empty-staging";
  auto empty = make_staging(empty_path, {});
  EXPECT_EQ(repo.swap_index_from(empty_path).dump(), R"({"files":0,"symbols":0})");
  EXPECT_EQ(repo.counts().symbols, 0);
  // Live writes after a swap go on as before.
  repo.store_files(generated_entries("after", 1, 2));
  EXPECT_EQ(repo.counts().symbols, 2);
}

// A query answered before the swap is answered from the new index after it.
TEST_F(SwapTest, ACachedQueryIsAnsweredFromTheNewIndex) {
  SymbolQuery query{.text = "old_1_1", .match = SymbolQuery::Match::exact};
  ASSERT_EQ(repo.search_symbols(query).size(), 1u);
  ASSERT_EQ(repo.counts().files, 30);
  auto entries = generated_entries("new", 3, 2);
  entries.push_back(storage::testing::file_entry("moved.cpp", {storage::testing::symbol("old_1_1", "class", 77)}));
  auto staging = make_staging(dir / "staging", entries);

  repo.swap_index_from(dir / "staging");
  auto hits = repo.search_symbols(query);
  ASSERT_EQ(hits.size(), 1u);
  EXPECT_EQ(hits[0].path, "moved.cpp");
  EXPECT_EQ(hits[0].line, 77);
  EXPECT_EQ(repo.counts().files, 4);
}

struct FailureCase {
  std::string label;
  // Makes the staging file (or not) at the path, keeping its connection open in `keep` if it has one.
  std::function<void(const fs::path& path, std::vector<std::shared_ptr<Database>>& keep)> make;
  std::string message;  // a fragment of the error's text
  int fail_after_reads = -1;  // arms the VFS for the swap when >= 0
};

class SwapFailureTest : public SwapTest {
 protected:
  static void SetUpTestSuite() { vfs = new FaultyVfs(); }
  static void TearDownTestSuite() {
    delete vfs;
    vfs = nullptr;
  }
  static FaultyVfs* vfs;
};
FaultyVfs* SwapFailureTest::vfs = nullptr;

void write_bytes(const fs::path& path, const std::string& bytes, std::streamoff at = 0) {
  std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
  if (!f) f.open(path, std::ios::out | std::ios::binary);
  f.seekp(at);
  f.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// Each failure rolls back and leaves the live index (rows, attached databases, cached answers) exactly
// as it was; the error names the staging file and says what went wrong.
TEST_F(SwapFailureTest, EveryFailureLeavesTheLiveIndexAsItWas) {
  const auto big = generated_entries("new", 50, 40);
  const std::vector<FailureCase> cases = {
      {"missing file", [](const fs::path&, auto&) {}, "does not exist"},
      {"a directory",
       [](const fs::path& p, auto&) {
         fs::create_directory(p);
       },
       "is not a regular file"},
      {"newer schema version",
       [&](const fs::path& p, auto& keep) {
         keep.push_back(make_staging(p, big));
         keep.back()->execute(fmt::format("PRAGMA user_version = {}", kSchemaVersion + 1));
       },
       fmt::format("schema version {}, expected {}", kSchemaVersion + 1, kSchemaVersion)},
      {"an SQLite file without the schema",
       [](const fs::path& p, auto& keep) {
         auto db = std::make_shared<Database>(p);
         db->connect();
         db->execute("CREATE TABLE files(x)");
         keep.push_back(db);
       },
       "schema version 0, expected 1"},
      {"right version, wrong tables",
       [](const fs::path& p, auto& keep) {
         auto db = std::make_shared<Database>(p);
         db->connect();
         db->execute("CREATE TABLE files(x); CREATE TABLE symbols(y); PRAGMA user_version = 1;");
         keep.push_back(db);
       },
       "copying the files"},
      {"not a database",
       [](const fs::path& p, auto&) {
         write_bytes(p, std::string(8192, 'x'));
       },
       "file is not a database"},
      {"damaged pages",
       [&](const fs::path& p, auto& keep) {
         make_staging(p, big)->close();
         // Page 1 (header and schema) stays intact; every later page is overwritten.
         auto size = static_cast<std::streamoff>(fs::file_size(p));
         write_bytes(p, std::string(static_cast<std::size_t>(size - 4096), '\xA5'), 4096);
       },
       "malformed"},
      {"I/O error while copying",
       [&](const fs::path& p, auto& keep) { keep.push_back(make_staging(p, big)); },
       "copying the symbols: disk I/O error",
       20},
  };
  const SymbolQuery query{.text = "old_", .match = SymbolQuery::Match::prefix, .limit = 5};
  const auto cached_before = repo.search_symbols(query);
  const auto rows_before = dump_rows(*live);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    auto path = dir / fmt::format("faulty-staging-{}", &c - cases.data());
    std::vector<std::shared_ptr<Database>> keep;
    c.make(path, keep);
    if (c.fail_after_reads >= 0) vfs->arm(c.fail_after_reads);
    try {
      repo.swap_index_from(path);
      ADD_FAILURE() << "no error";
    } catch (const StorageError& e) {
      EXPECT_THAT(e.what(), HasSubstr(path.string()));
      EXPECT_THAT(e.what(), HasSubstr((dir / "index.db").string()));
      EXPECT_THAT(e.what(), HasSubstr(c.message));
    }
    vfs->disarm();
    EXPECT_EQ(dump_rows(*live), rows_before);
    EXPECT_THAT(attached(*live), ElementsAre("main"));
    EXPECT_EQ(repo.search_symbols(query).size(), cached_before.size());
    repo.clear_query_cache();
    EXPECT_EQ(repo.search_symbols(query).size(), cached_before.size());
  }
  // The live connection is still fit for a swap.
  auto good = make_staging(dir / "good", generated_entries("new", 2, 2));
  EXPECT_EQ(repo.swap_index_from(dir / "good").dump(), R"({"files":2,"symbols":4})");
}

// Readers on their own connections during repeated swaps: each answer comes wholly from one index that
// was live while the query ran (never a mix, never an empty index), and never from an index older than
// the last swap that had returned before the query began.
TEST_F(SwapTest, ReadersSeeTheOldIndexOrTheNewNeverAMix) {
  constexpr int kSwaps = 24;
  // Generation g: (3 + g % 4) files of (2 + g % 3) symbols named "g<g>_...".
  auto files_of = [](int g) { return 3 + g % 4; };
  auto per_file = [](int g) { return 2 + g % 3; };
  auto stage = [&](int g) {
    return make_staging(dir / fmt::format("staging-{}", g), generated_entries(fmt::format("g{}", g), files_of(g),
                                                                               per_file(g)));
  };
  auto first = stage(0);
  repo.swap_index_from(dir / "staging-0");

  std::atomic<int> swapped = 0;  // swaps that have returned: generation `swapped` is live
  std::atomic<bool> done = false;
  std::atomic<int> checks = 0;
  std::mutex failures_mu;
  std::vector<std::string> failures;
  auto fail = [&](std::string what) {
    std::lock_guard lock(failures_mu);
    if (failures.size() < 10) failures.push_back(std::move(what));
  };
  std::vector<std::thread> readers;
  for (int t = 0; t < 3; ++t) {
    readers.emplace_back([&, t] {
      while (!done) {
        if (t == 0) repo.clear_query_cache();  // the other readers use the cache
        int low = swapped.load();
        auto counts = repo.counts();
        auto hits = repo.search_symbols({.text = "g", .match = SymbolQuery::Match::prefix, .limit = -1});
        int high = swapped.load() + 1;  // a swap may have committed without having returned
        if (hits.empty() || counts.files == 0) {
          fail("empty index");
          continue;
        }
        int g = std::stoi(hits[0].name.substr(1));
        for (const auto& h : hits) {
          if (!h.name.starts_with(fmt::format("g{}_", g))) fail(fmt::format("mixed: {} and {}", hits[0].name, h.name));
        }
        if (g < low || g > high) fail(fmt::format("generation {} outside [{}, {}]", g, low, high));
        if (hits.size() != static_cast<std::size_t>(files_of(g) * per_file(g))) {
          fail(fmt::format("generation {} with {} symbols", g, hits.size()));
        }
        // The counts come from their own query: they describe a generation in range, whole.
        bool whole = false;
        for (int k = low; k <= high; ++k) {
          whole = whole || (counts.files == files_of(k) && counts.symbols == files_of(k) * per_file(k));
        }
        if (!whole) fail(fmt::format("counts {}/{} match no generation in [{}, {}]", counts.files, counts.symbols, low, high));
        ++checks;
      }
    });
  }
  std::thread swapper([&] {
    for (int g = 1; g <= kSwaps; ++g) {
      auto staging = stage(g);
      repo.swap_index_from(dir / fmt::format("staging-{}", g));
      swapped = g;
      staging->close();
    }
  });
  swapper.join();
  done = true;
  for (auto& t : readers) t.join();
  EXPECT_THAT(failures, ::testing::IsEmpty());
  EXPECT_GT(checks.load(), kSwaps);
  EXPECT_EQ(repo.counts().files, files_of(kSwaps));
}

}  // namespace
}  // namespace brenloc::storage
