// Storage faults under the real worker: a staging database that runs out of space or hits I/O errors
// fails or refuses the rebuild and leaves the live index exactly as it was; a live pass on a full disk
// fails cleanly and leaves an index that is whole.
#include <sqlite3.h>
#include <sys/mount.h>

#include <atomic>
#include <cstring>

#include <gtest/gtest.h>

#include "brenloc/daemon/worker.h"
#include "daemon/fake_worker.h"
#include "brenloc/utils/logging.h"
#include "utils/tree_fixtures.h"

namespace brenloc::testing {
namespace {

using json = nlohmann::ordered_json;

// The default file layer, except that once `writes_left` runs down to zero, writes to files whose name
// holds "reindex-staging" fail with an I/O error (-1: never).
struct FailingWrites {
  static inline sqlite3_vfs* real = nullptr;
  static inline sqlite3_vfs vfs{};
  static inline std::atomic<int> writes_left{-1};
  static inline sqlite3_io_methods methods{};
  static inline const sqlite3_io_methods* real_methods = nullptr;

  struct File {
    sqlite3_file base;
    sqlite3_file* inner;  // the real file, allocated after this struct
    bool staging;
  };

  static void install() {
    real = sqlite3_vfs_find(nullptr);
    vfs = *real;
    vfs.zName = "brenloc-failing-writes";
    vfs.szOsFile = static_cast<int>(sizeof(File)) + real->szOsFile;
    vfs.xOpen = [](sqlite3_vfs*, sqlite3_filename name, sqlite3_file* f, int flags, int* out) {
      auto* file = reinterpret_cast<File*>(f);
      file->inner = reinterpret_cast<sqlite3_file*>(file + 1);
      file->staging = name != nullptr && std::strstr(name, "reindex-staging") != nullptr;
      int rc = real->xOpen(real, name, file->inner, flags, out);
      if (rc != SQLITE_OK) {
        f->pMethods = nullptr;
        return rc;
      }
      if (real_methods == nullptr) {
        real_methods = file->inner->pMethods;
        methods = *real_methods;
        methods.xClose = fwd<&M::xClose>, methods.xRead = fwd<&M::xRead>, methods.xWrite = write;
        methods.xTruncate = fwd<&M::xTruncate>, methods.xSync = fwd<&M::xSync>, methods.xFileSize = fwd<&M::xFileSize>;
        methods.xLock = fwd<&M::xLock>, methods.xUnlock = fwd<&M::xUnlock>;
        methods.xCheckReservedLock = fwd<&M::xCheckReservedLock>, methods.xFileControl = fwd<&M::xFileControl>;
        methods.xSectorSize = fwd<&M::xSectorSize>, methods.xDeviceCharacteristics = fwd<&M::xDeviceCharacteristics>;
        methods.xShmMap = fwd<&M::xShmMap>, methods.xShmLock = fwd<&M::xShmLock>;
        methods.xShmBarrier = fwd<&M::xShmBarrier>, methods.xShmUnmap = fwd<&M::xShmUnmap>;
        methods.xFetch = fwd<&M::xFetch>, methods.xUnfetch = fwd<&M::xUnfetch>;
      }
      f->pMethods = &methods;
      return SQLITE_OK;
    };
    sqlite3_vfs_register(&vfs, 1);
  }
  static void uninstall() {
    sqlite3_vfs_unregister(&vfs);
    sqlite3_vfs_register(real, 1);
  }
  static sqlite3_file* inner(sqlite3_file* f) { return reinterpret_cast<File*>(f)->inner; }
  using M = sqlite3_io_methods;
  // Passes a call on to the real file.
  template <auto Method, class R, class... A>
  static R fwd(sqlite3_file* f, A... a) {
    return (inner(f)->pMethods->*Method)(inner(f), a...);
  }
  static int write(sqlite3_file* f, const void* b, int n, sqlite3_int64 o) {
    if (reinterpret_cast<File*>(f)->staging && writes_left >= 0 && writes_left.fetch_sub(1) <= 0) {
      writes_left = 0;
      return SQLITE_IOERR_WRITE;
    }
    return inner(f)->pMethods->xWrite(inner(f), b, n, o);
  }
};

// A repository big enough that its index takes some room: `files` modules of 40 functions each.
void make_repository(const fs::path& root, int files) {
  for (int i = 0; i < files; ++i) {
    std::string text;
    for (int j = 0; j < 40; ++j) text += "def function_" + std::to_string(i) + "_" + std::to_string(j) + "(a, b):\n    return a + b\n\n";
    write_file(root / ("pkg" + std::to_string(i % 7)) / ("mod" + std::to_string(i) + ".py"), text);
  }
}

// Every row of the live index, for before/after comparisons.
std::string fingerprint(daemon::RepoWorker& w) {
  std::string out;
  for (const auto& f : w._repository->list_files()) out += f.path + ":" + f.content_hash + ";";
  storage::SymbolQuery all{.text = "", .match = storage::SymbolQuery::Match::prefix, .limit = -1};
  out += std::to_string(w._repository->search_symbols(all).size());
  return out;
}

std::string integrity(const fs::path& db) {
  sqlite3* c = nullptr;
  sqlite3_open_v2(db.c_str(), &c, SQLITE_OPEN_READONLY, nullptr);
  std::string result = "no answer";
  sqlite3_exec(c, "PRAGMA integrity_check", [](void* r, int, char** v, char**) {
    *static_cast<std::string*>(r) = v[0] ? v[0] : "null";
    return 0;
  }, &result, nullptr);
  sqlite3_close(c);
  return result;
}

aio::Task<void> reindex(daemon::RepoWorker& w, json params) {
  json response = co_await w._handle_force_reindex(std::move(params));
  EXPECT_EQ(response["status"], "accepted") << response.dump();
  co_await aio::wait_all({w._indexer_task->base()});
}

// A tmpfs of `bytes` at `dir`; false when this machine does not let the test mount one.
bool mount_small_disk(const fs::path& dir, std::size_t bytes) {
  fs::create_directories(dir);
  std::string options = "size=" + std::to_string(bytes);
  return ::mount("tmpfs", dir.c_str(), "tmpfs", 0, options.c_str()) == 0;
}

// A staging database that stops growing at a few pages.
class SmallStagingDatabase : public storage::Database {
 public:
  SmallStagingDatabase(const fs::path& p, int pages) : storage::Database(p), pages_(pages) {}
  void create_schema() override {
    storage::Database::create_schema();
    execute(fmt::format("PRAGMA max_page_count = {}", pages_));
  }

 private:
  int pages_;
};

class FaultyWorker : public daemon::RepoWorker {
 public:
  using RepoWorker::RepoWorker;
  int staging_pages = 0;  // 0: no limit
  std::shared_ptr<storage::Database> _new_database(const fs::path& p) override {
    if (staging_pages > 0 && p.filename() != "index.db") return std::make_shared<SmallStagingDatabase>(p, staging_pages);
    return RepoWorker::_new_database(p);
  }
};

TEST(StorageFaults, AStagingDatabaseThatCannotBeWrittenKeepsTheLiveIndex) {
  struct Case {
    std::string name;
    int writes_before_failure;  // -1: no I/O error
    int staging_pages;          // 0: no limit
    std::string error;          // in the last reindex error
    std::string detail;         // in errors.jsonl, when the pass ran
  };
  const std::vector<Case> cases = {
      {"I/O error from the first staging write", 0, 0, "I/O error", ""},
      {"I/O error in the middle of the staging pass", 40, 0, "Rebuild incomplete", "disk I/O error"},
      {"page limit reached by the rows", -1, 8, "Rebuild incomplete", "database or disk is full"},
      {"page limit reached by the name index built after the rows", -1, 24,
       "building the indexes: database or disk is full", ""},
  };
  FailingWrites::install();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir root, data;
    make_repository(root.path(), 30);
    aio::EventLoop loop;
    FaultyWorker w(root.path(), data.path());
    aio::run_until_complete(loop, [&]() -> aio::Task<void> {
      co_await w.start();
      co_await reindex(w, {{"clear_existing", true}});
      const std::string before = fingerprint(w);
      write_file(root.path() / "extra.py", "def added():\n    pass\n");
      FailingWrites::writes_left = c.writes_before_failure;
      w.staging_pages = c.staging_pages;
      co_await reindex(w, {{"clear_existing", true}});
      FailingWrites::writes_left = -1;
      w.staging_pages = 0;
      EXPECT_EQ(fingerprint(w), before);
      EXPECT_NE(w._last_reindex_error.value_or("").find(c.error), std::string::npos)
          << w._last_reindex_error.value_or("(none)");
      if (!c.detail.empty()) {
        std::ifstream errors(data.path() / "errors.jsonl");
        std::string line;
        std::getline(errors, line);
        EXPECT_NE(line.find(c.detail), std::string::npos) << line;
      }
      co_await reindex(w, {{"clear_existing", true}});  // healthy again: the rebuild goes through
      EXPECT_FALSE(w._last_reindex_error.has_value()) << w._last_reindex_error.value_or("");
      EXPECT_NE(fingerprint(w), before);
      co_await w.stop();
    }());
    EXPECT_EQ(integrity(data.path() / "index.db"), "ok");
  }
  FailingWrites::uninstall();
}

// Writes `file` until about `leave` bytes stay free on its file system.
void fill(const fs::path& file, std::uintmax_t leave) {
  std::ofstream out(file, std::ios::binary);
  const std::string block(16 << 10, 'x');
  while (fs::space(file.parent_path()).available > leave + block.size() && out.write(block.data(), block.size())) {
    out.flush();
  }
  while (leave == 0 && out.write(block.data(), 512)) out.flush();
}

TEST(StorageFaults, ADiskThatFillsUpFailsThePassCleanly) {
  TempDir root, scratch;
  const fs::path disk = scratch.path() / "disk";
  make_repository(root.path(), 60);
  if (!mount_small_disk(disk, 16 << 20)) GTEST_SKIP() << "cannot mount a tmpfs here";
  struct Unmount {
    fs::path dir;
    ~Unmount() { ::umount2(dir.c_str(), MNT_DETACH); }
  } unmount{disk};

  aio::EventLoop loop;
  daemon::RepoWorker w(root.path(), disk);
  std::vector<json> outcomes;
  w.subscribe([&](const json& m) {
    if (m["type"] != "reindex_progress") outcomes.push_back(m);
  });
  aio::run_until_complete(loop, [&]() -> aio::Task<void> {
    co_await w.start();
    co_await reindex(w, {{"clear_existing", true}});
    EXPECT_FALSE(w._last_reindex_error.has_value()) << w._last_reindex_error.value_or("");
    const std::string before = fingerprint(w);

    // The staging database does not fit beside the live one (not even its schema, or not all of its
    // rows): the rebuild is refused or fails, and the live index stays as it was.
    make_repository(root.path() / "more", 120);
    for (double room : {0.5, 3.0, 6.0}) {
      SCOPED_TRACE(room);
      fill(disk / "filler", static_cast<std::uintmax_t>(fs::file_size(disk / "index.db") * room));
      co_await reindex(w, {{"clear_existing", true}});
      EXPECT_TRUE(w._last_reindex_error.has_value());
      EXPECT_EQ(fingerprint(w), before);
      EXPECT_FALSE(staging_files_left(disk));
      fs::remove(disk / "filler");
    }

    // The disk full to the last byte: a live pass fails or leaves files out, and the index stays whole.
    fill(disk / "filler2", 0);
    co_await reindex(w, json::object());
    const json& last = outcomes.back();
    EXPECT_TRUE(last["type"] == "reindex_failed" || last.value("errors", 0) > 0) << last.dump();
    EXPECT_EQ(integrity(disk / "index.db"), "ok");
    EXPECT_FALSE(fingerprint(w).empty());
    fs::remove(disk / "filler2");
    co_await w.stop();
  }());
  EXPECT_EQ(integrity(disk / "index.db"), "ok");
}

}  // namespace
}  // namespace brenloc::testing
