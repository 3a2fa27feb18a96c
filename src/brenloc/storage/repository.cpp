#include "brenloc/storage/repository.h"

#include <algorithm>
#include <chrono>
#include <deque>
#include <exception>
#include <future>
#include <limits>
#include <mutex>
#include <span>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <variant>

#include <fmt/format.h>

#include "brenloc/storage/errors.h"
#include "brenloc/storage/fresh_uses.h"
#include "brenloc/storage/name_table.h"
#include "brenloc/storage/query_cache.h"
#include "brenloc/storage/reader.h"
#include "brenloc/storage/schema.h"
#include "brenloc/storage/source_text.h"
#include "brenloc/storage/sqlite_util.h"
#include "brenloc/storage/symbol_match.h"
#include "brenloc/storage/symbol_search.h"
#include "brenloc/utils/logging.h"
#include "brenloc/utils/on_exit.h"

namespace brenloc::storage {

namespace {

using detail::Statement;
using Clock = std::chrono::steady_clock;

constexpr int kReaderBusyTimeoutMs = 5000;
// The writer's checkpoints: SQLite's default, after a commit leaves this many pages in the log.
constexpr int kWalAutoCheckpointPages = 1000;
constexpr std::size_t kMaxIdleReaders = 4;
constexpr std::size_t kCacheEntries = 512;
// A file listing longer than this is not cached (it would pin a large copy of the files table).
constexpr std::size_t kMaxCachedFiles = 20000;

double seconds_since(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

// A cache key made of length-prefixed parts, so that no two different queries share one.
class Key {
 public:
  explicit Key(char tag) { key_ += tag; }
  Key& add(const std::string& part) {
    key_ += fmt::format("{}:{}", part.size(), part);
    return *this;
  }
  Key& add(const std::optional<std::string>& part) {
    if (!part) {
      key_ += '-';
      return *this;
    }
    key_ += '+';
    return add(*part);
  }
  Key& add(std::int64_t n) {
    key_ += fmt::format("{};", n);
    return *this;
  }
  std::string str() const { return key_; }

 private:
  std::string key_;
};

// "file:" URI of a path, opened read-only. Percent-encodes what a URI would otherwise read as syntax.
std::string read_only_uri(const std::filesystem::path& path) {
  std::string out = "file:";
  for (unsigned char c : path.string()) {
    bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '/' ||
                 c == '-' || c == '_' || c == '.' || c == '~';
    if (plain) {
      out += static_cast<char>(c);
    } else {
      out += fmt::format("%{:02X}", c);
    }
  }
  out += "?mode=ro";
  return out;
}

using detail::ReadTransaction;
using detail::Reader;
using detail::ResetOnExit;

constexpr const char* kHasNameIndexSql =
    "SELECT count(*) FROM sqlite_master WHERE type = 'index' AND name = 'symbols_by_name'";

// Symbol rows per insert statement of a store (the rest of a store goes in one row at a time).
constexpr std::size_t kRowsPerInsert = 32;

std::string symbol_insert_sql(std::size_t rows) {
  std::string sql = "INSERT INTO symbols(file_id, name, kind, line, col, end_line, end_col, scope, lead, rank) VALUES ";
  for (std::size_t r = 0; r < rows; ++r) sql += r == 0 ? "(?, ?, ?, ?, ?, ?, ?, ?, ?, ?)" : ", (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";
  return sql;
}

struct PendingSymbol {
  std::int64_t file_id;
  const SymbolRow* row;
  const std::string* path;  // of its file, for errors
  int rank;                 // place_rank()
};

// The symbol rows of files, by their range (see the files table).
class SymbolRanges {
 public:
  SymbolRanges(sqlite3* c, const std::filesystem::path& file, std::string_view operation)
      : file_(file),
        range_(c, "SELECT first_symbol, symbol_count, id FROM files WHERE path = ?1", file, operation),
        drop_(c, "DELETE FROM symbols WHERE id >= ?1 AND id < ?2", file, operation) {}

  // Deletes the rows of the file at `rel` (none when it is not in the index), noting their names in `names`.
  // Gives the file's id, or 0 when it is not in the index.
  std::int64_t drop(const std::string& rel, std::string_view operation, detail::NameTable& names) {
    range_.bind(1, rel);
    const bool known = range_.step(file_, operation);
    const std::int64_t first = known ? range_.integer(0) : 0;
    const std::int64_t count = known ? range_.integer(1) : 0;
    const std::int64_t id = known ? range_.integer(2) : 0;
    range_.reset();
    if (count == 0) return id;
    names.removing(first, count);
    drop_.bind(1, first);
    drop_.bind(2, first + count);
    drop_.step(file_, operation);
    drop_.reset();
    return id;
  }

 private:
  const std::filesystem::path& file_;
  Statement range_;
  Statement drop_;
};

std::string_view blob_of(Statement& stmt, int col) {
  const void* blob = sqlite3_column_blob(stmt.get(), col);
  return {static_cast<const char*>(blob), static_cast<std::size_t>(sqlite3_column_bytes(stmt.get(), col))};
}

// The rows of uses and imports of files. A live store writes a file's uses as one row of uses_fresh
// (move_fresh_uses sorts them into uses later); during a bulk load (`pending`), they go to uses_pending in
// the order they come, with their keys in file_uses. Either way inserting them by name would touch a page
// of the table per row.
class UseRows {
 public:
  UseRows(sqlite3* c, const std::filesystem::path& file, std::string_view operation)
      : file_(file),
        pending_(detail::query_int(c, kHasNameIndexSql, file, operation) == 0),
        drop_pending_(c, pending_ ? "DELETE FROM temp.uses_pending WHERE file_id = ?1" : "SELECT 1", file, operation),
        drop_keys_(c, "DELETE FROM file_uses WHERE file_id = ?1", file, operation),
        drop_imports_(c, "DELETE FROM imports WHERE file_id = ?1", file, operation),
        add_pending_(c, pending_ ? "INSERT INTO temp.uses_pending(name_key, file_id, spots) VALUES(?1, ?2, ?3)" : "SELECT 1",
                     file, operation),
        add_keys_(c, "INSERT INTO file_uses(file_id, keys) VALUES(?1, ?2)", file, operation),
        add_fresh_(c, "INSERT OR REPLACE INTO uses_fresh(file_id, uses) VALUES(?1, ?2)", file, operation),
        add_import_(c, "INSERT INTO imports(file_id, target, stem, line) VALUES(?1, ?2, ?3, ?4)", file, operation) {}

  // Deletes the rows of the file `id` (0: a file not in the index, which has none).
  void drop(std::int64_t id, std::string_view operation) {
    if (id == 0) return;
    if (pending_) {
      run(drop_pending_, id, operation);
      run(drop_keys_, id, operation);
    } else {
      put_fresh(id, {}, operation);
    }
    run(drop_imports_, id, operation);
  }

  void add(std::int64_t id, const FileEntry& entry, std::string_view operation) {
    // Two names of one file that share a key (rare: 31 bits) share its row; should either code all its
    // definitions, the row does (the other name's definitions that its rows of symbols hold are then lost).
    rows_.clear();
    for_each_name_uses(entry.uses, [&](const NameUses& u) { rows_.push_back({name_key(u.name), u.spots}); });
    std::sort(rows_.begin(), rows_.end(), [](const Row& a, const Row& b) { return a.key < b.key; });
    std::deque<std::string> merged;  // the blobs of shared keys (a deque: the views into it stay valid)
    std::size_t kept = 0;
    for (std::size_t i = 0; i < rows_.size(); ++i) {
      if (kept > 0 && rows_[kept - 1].key == rows_[i].key) {
        std::vector<Use> all = decode_uses(rows_[kept - 1].spots);
        const std::vector<Use> more = decode_uses(rows_[i].spots);
        all.insert(all.end(), more.begin(), more.end());
        std::sort(all.begin(), all.end(), [](const Use& a, const Use& b) { return a.offset < b.offset; });
        merged.push_back(
            encode_uses(all, every_definition_coded(rows_[kept - 1].spots) || every_definition_coded(rows_[i].spots)));
        rows_[kept - 1].spots = merged.back();
        continue;
      }
      rows_[kept++] = rows_[i];
    }
    rows_.resize(kept);
    if (pending_) {
      std::string keys;
      for (const auto& [key, spots] : rows_) {
        add_pending_.bind(1, key);
        add_pending_.bind(2, id);
        sqlite3_bind_blob(add_pending_.get(), 3, spots.data(), static_cast<int>(spots.size()), SQLITE_STATIC);
        add_pending_.step(file_, operation);
        add_pending_.reset();
        put_name_key(keys, key);
      }
      if (!rows_.empty()) put_blob(add_keys_, id, keys, operation);
    } else {
      std::string packed;
      for (const auto& [key, spots] : rows_) pack_keyed_uses(packed, key, spots);
      put_fresh(id, packed, operation);
    }
    for (const ImportRow& i : entry.imports) {
      add_import_.bind(1, id);
      add_import_.bind_static(2, i.target);
      add_import_.bind(3, import_stem(i.target));
      add_import_.bind(4, i.line);
      add_import_.step(file_, operation);
      add_import_.reset();
    }
  }

 private:
  void put_fresh(std::int64_t id, std::string_view packed, std::string_view operation) {
    put_blob(add_fresh_, id, packed, operation);
  }
  void put_blob(Statement& stmt, std::int64_t id, std::string_view blob, std::string_view operation) {
    stmt.bind(1, id);
    // An empty blob, not NULL (which a null pointer would bind).
    sqlite3_bind_blob(stmt.get(), 2, blob.empty() ? "" : blob.data(), static_cast<int>(blob.size()), SQLITE_STATIC);
    stmt.step(file_, operation);
    stmt.reset();
  }
  void run(Statement& stmt, std::int64_t id, std::string_view operation) {
    stmt.bind(1, id);
    stmt.step(file_, operation);
    stmt.reset();
  }

  struct Row {
    std::int64_t key;
    std::string_view spots;
  };
  std::vector<Row> rows_;  // of the file being added
  const std::filesystem::path& file_;
  bool pending_;
  Statement drop_pending_, drop_keys_, drop_imports_, add_pending_, add_keys_, add_fresh_, add_import_;
};

// The number the next symbol row inserted gets: one more than the largest (rows are numbered on from it).
std::int64_t next_symbol_id(sqlite3* c, const std::filesystem::path& file) {
  return detail::query_int(c, "SELECT coalesce(max(id), 0) + 1 FROM symbols", file, "numbering symbols");
}

// Inserts `rows` with `stmt`, a statement of exactly that many rows. The rows outlive the insert (reset
// after its step): their text is bound without a copy.
void insert_symbols(Statement& stmt, std::span<const PendingSymbol> rows, const std::filesystem::path& file) {
  int i = 0;
  for (const PendingSymbol& p : rows) {
    stmt.bind(++i, p.file_id);
    stmt.bind_static(++i, p.row->name);
    stmt.bind_static(++i, p.row->kind);
    stmt.bind(++i, p.row->line);
    stmt.bind(++i, p.row->column);
    stmt.bind(++i, p.row->end_line);
    stmt.bind(++i, p.row->end_column);
    stmt.bind_static(++i, p.row->scope);
    stmt.bind(++i, p.row->start_line > 0 && p.row->start_line < p.row->line ? p.row->line - p.row->start_line : 0);
    stmt.bind(++i, p.rank);
  }
  const std::string& first = *rows.front().path;
  const std::string& last = *rows.back().path;
  stmt.step(file, first == last ? fmt::format("storing {}", first) : fmt::format("storing {} .. {}", first, last));
  stmt.reset();
}

}  // namespace

using CachedValue = std::variant<SymbolSearch, std::vector<FileRow>, Counts>;

struct Repository::Impl {
  std::filesystem::path path;
  std::shared_ptr<spdlog::logger> log = utils::get_logger("brenloc.storage");
  detail::QueryCache<CachedValue> cache{kCacheEntries};
  detail::NameCatalogs catalogs;
  detail::FreshUsesCache fresh_uses;

  std::mutex readers_mu;
  std::vector<std::unique_ptr<Reader>> idle_readers;

  mutable std::mutex timing_mu;
  SwapTiming timing;

  std::unique_ptr<Reader> open_reader() {
    auto reader = std::make_unique<Reader>();
    int rc = detail::open_connection(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_URI, &reader->db);
    if (rc != SQLITE_OK) throw detail::sqlite_error(reader->db, rc, path, "opening a read connection");
    sqlite3_extended_result_codes(reader->db, 1);
    sqlite3_busy_timeout(reader->db, kReaderBusyTimeoutMs);
    reader->fresh_uses = &fresh_uses;
    detail::run_script(reader->db, "PRAGMA query_only = ON", path, "opening a read connection");
    return reader;
  }

  // Runs `fn(reader)` on an idle read connection (a new one when none is idle).
  template <class Fn>
  auto with_reader(Fn&& fn) {
    std::unique_ptr<Reader> reader;
    {
      std::lock_guard lock(readers_mu);
      if (!idle_readers.empty()) {
        reader = std::move(idle_readers.back());
        idle_readers.pop_back();
      }
    }
    if (!reader) reader = open_reader();
    auto result = fn(*reader);
    std::lock_guard lock(readers_mu);
    if (idle_readers.size() < kMaxIdleReaders) idle_readers.push_back(std::move(reader));
    return result;
  }

  // The cached value of `key`, or `compute()` (cached unless the index changed meanwhile).
  template <class T, class Fn>
  T cached(std::string key, Fn&& compute) {
    if (auto hit = cache.get(key)) return std::get<T>(std::move(*hit));
    auto generation = cache.generation();
    T value = compute();
    bool keep = true;
    if constexpr (std::is_same_v<T, std::vector<FileRow>>) keep = value.size() <= kMaxCachedFiles;
    if (keep) cache.put(key, CachedValue(value), generation);
    return value;
  }

  // Writes on the writer connection, in one transaction; the cache is dropped after the commit.
  template <class Fn>
  void write(Database& db, std::string_view operation, Fn&& fn) {
    db.with_connection([&](sqlite3* c) {
      detail::run_script(c, "BEGIN IMMEDIATE", path, operation);
      try {
        fn(c);
        detail::run_script(c, "COMMIT", path, operation);
      } catch (...) {
        if (sqlite3_get_autocommit(c) == 0) sqlite3_exec(c, "ROLLBACK", nullptr, nullptr, nullptr);
        throw;
      }
    });
    cache.clear();
  }
};

Repository::Repository(std::shared_ptr<Database> database) : db_(std::move(database)), impl_(std::make_unique<Impl>()) {
  impl_->path = db_->path();
}

Repository::~Repository() = default;

// ---------------------------------------------------------------------------------------------------
// Writes

std::unordered_map<std::string, std::string> Repository::file_hashes() {
  std::unordered_map<std::string, std::string> out;
  const auto& path = impl_->path;
  db_->with_connection([&](sqlite3* c) {
    Statement stmt(c, "SELECT path, content_hash FROM files", path, "reading the file hashes");
    while (stmt.step(path, "reading the file hashes")) out.emplace(stmt.text(0), stmt.text(1));
  });
  return out;
}

std::unordered_map<std::string, StoredFile> Repository::file_states(const std::optional<std::vector<std::string>>& under) {
  std::unordered_map<std::string, StoredFile> out;
  const auto& path = impl_->path;
  const bool all = !under || std::any_of(under->begin(), under->end(), [](const std::string& p) { return p.empty(); });
  db_->with_connection([&](sqlite3* c) {
    std::string sql = "SELECT path, content_hash, size, mtime_ns, inode, ctime_ns, read_ns FROM files";
    if (!all) sql += " WHERE path = ?1 OR (path >= ?2 AND path < ?3)";  // '0' follows '/'
    Statement stmt(c, sql, path, "reading the file states");
    auto read = [&] {
      while (stmt.step(path, "reading the file states")) {
        out.emplace(stmt.text(0), StoredFile{stmt.text(1), stmt.integer(2), stmt.integer(3), stmt.integer(4),
                                             stmt.integer(5), stmt.integer(6)});
      }
      stmt.reset();
    };
    if (all) return read();
    for (const std::string& p : *under) {
      stmt.bind(1, p);
      stmt.bind(2, p + "/");
      stmt.bind(3, p + "0");
      read();
    }
  });
  return out;
}

void Repository::update_file_status(const std::vector<FileRow>& rows) {
  if (rows.empty()) return;
  const auto& path = impl_->path;
  impl_->write(*db_, "updating file status", [&](sqlite3* c) {
    Statement update(c,
                     "UPDATE files SET size = ?2, mtime_ns = ?3, inode = ?4, ctime_ns = ?5, read_ns = ?6 "
                     "WHERE path = ?1",
                     path, "updating file status");
    for (const FileRow& r : rows) {
      update.bind(1, r.path);
      update.bind(2, r.size);
      update.bind(3, r.mtime_ns);
      update.bind(4, r.inode);
      update.bind(5, r.ctime_ns);
      update.bind(6, r.read_ns);
      update.step(path, fmt::format("updating the status of {}", r.path));
      update.reset();
    }
  });
}

void Repository::store_files(const std::vector<FileEntry>& entries) {
  if (entries.empty()) return;
  const auto& path = impl_->path;
  impl_->write(*db_, "storing files", [&](sqlite3* c) {
    // The old rows of the files go first; the new rows are then numbered on from the largest left, one file
    // after another, so that each file's rows are one range. Of a path given twice, the last entry is stored.
    std::unordered_set<std::string_view> later;
    std::vector<bool> superseded(entries.size());
    for (std::size_t i = entries.size(); i-- > 0;) superseded[i] = !later.insert(entries[i].file.path).second;
    SymbolRanges old_rows(c, path, "storing files");
    UseRows uses(c, path, "storing files");
    detail::NameTable names(c, path, "storing files");
    for (const auto& entry : entries) {
      const std::string op = fmt::format("storing {}", entry.file.path);
      uses.drop(old_rows.drop(entry.file.path, op, names), op);
    }
    std::int64_t next = next_symbol_id(c, path);
    Statement upsert(c,
                     "INSERT INTO files(path, language, size, mtime_ns, content_hash, first_symbol, symbol_count, "
                     "inode, ctime_ns, read_ns) VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10) "
                     "ON CONFLICT(path) DO UPDATE SET language = excluded.language, size = excluded.size, "
                     "mtime_ns = excluded.mtime_ns, content_hash = excluded.content_hash, "
                     "first_symbol = excluded.first_symbol, symbol_count = excluded.symbol_count, "
                     "inode = excluded.inode, ctime_ns = excluded.ctime_ns, read_ns = excluded.read_ns RETURNING id",
                     path, "storing files");
    // Symbol rows are gathered across the files and inserted many to a statement: starting a statement
    // (opening and positioning its cursors) costs about as much as inserting several rows.
    Statement insert_many(c, symbol_insert_sql(kRowsPerInsert), path, "storing files");
    Statement insert_one(c, symbol_insert_sql(1), path, "storing files");
    std::vector<PendingSymbol> pending;
    pending.reserve(kRowsPerInsert);
    for (std::size_t i = 0; i < entries.size(); ++i) {
      if (superseded[i]) continue;
      const FileEntry& entry = entries[i];
      const std::string op = fmt::format("storing {}", entry.file.path);
      const auto count = static_cast<std::int64_t>(entry.symbols.size());
      upsert.bind(1, entry.file.path);
      upsert.bind(2, entry.file.language);
      upsert.bind(3, entry.file.size);
      upsert.bind(4, entry.file.mtime_ns);
      upsert.bind(5, entry.file.content_hash);
      upsert.bind(6, next);
      upsert.bind(7, count);
      upsert.bind(8, entry.file.inode);
      upsert.bind(9, entry.file.ctime_ns);
      upsert.bind(10, entry.file.read_ns);
      upsert.step(path, op);
      std::int64_t file_id = upsert.integer(0);
      upsert.step(path, op);  // ends the statement (RETURNING gives one row)
      upsert.reset();
      uses.add(file_id, entry, op);
      for (const auto& s : entry.symbols) {
        names.adding(s.name, s.kind, entry.file.language, next++);
        pending.push_back({file_id, &s, &entry.file.path,
                           place_rank({entry.file.path, entry.file.language, s.scope}, s.kind, s.specialization, s.conditional)});
        if (pending.size() == kRowsPerInsert) {
          insert_symbols(insert_many, pending, path);
          pending.clear();
        }
      }
    }
    for (const PendingSymbol& p : pending) insert_symbols(insert_one, {&p, 1}, path);
    // SQLite numbers a row one past the largest, unless the largest is the largest integer there is.
    if (next_symbol_id(c, path) != next) {
      throw StorageError(fmt::format("{}: storing files: the symbol rows were not numbered in sequence",
                                     path.string()),
                         SQLITE_INTERNAL);
    }
    names.apply();
    impl_->catalogs.follow(names.changes());
  });
}

void Repository::remove_files(const std::vector<std::string>& paths) {
  if (paths.empty()) return;
  const auto& path = impl_->path;
  impl_->write(*db_, "removing files", [&](sqlite3* c) {
    SymbolRanges rows(c, path, "removing files");
    UseRows uses(c, path, "removing files");
    detail::NameTable names(c, path, "removing files");
    Statement drop_file(c, "DELETE FROM files WHERE path = ?1", path, "removing files");
    for (const auto& p : paths) {
      const std::string op = fmt::format("removing {}", p);
      uses.drop(rows.drop(p, op, names), op);
      drop_file.bind(1, p);
      drop_file.step(path, op);
      drop_file.reset();
    }
    names.apply();
    impl_->catalogs.follow(names.changes());
  });
}

bool Repository::defer_name_index() {
  bool dropped = false;
  impl_->write(*db_, "deferring the name index", [&](sqlite3* c) {
    const auto& path = impl_->path;
    if (detail::query_int(c, "SELECT EXISTS (SELECT 1 FROM files)", path, "deferring the name index") != 0) return;
    // Uses of no file any more (of files that live passes removed, should a crash have left them).
    detail::run_script(c, "DELETE FROM uses; DELETE FROM file_uses; DELETE FROM uses_fresh; DELETE FROM imports", path,
                       "deferring the name index");
    detail::run_script(c, "DROP INDEX IF EXISTS symbols_by_name", path, "deferring the name index");
    detail::run_script(c, detail::kPendingUsesSql, path, "deferring the name index");
    detail::run_script(c, "UPDATE uses_state SET bulk_load = 1", path, "deferring the name index");
    detail::clear_search_tables(c, path, "deferring the name index");
    detail::run_script(c, detail::kBulkLoadPragmas, path, "deferring the name index");
    dropped = true;
  });
  return dropped;
}

bool Repository::restore_indexes() {
  const auto& path = impl_->path;
  // The name index is the one index a bulk load defers: nothing to do when it is there. Building it sorts
  // every name, with settings of its own.
  bool missing = false;
  db_->with_connection([&](sqlite3* c) {
    // The name index is made again by the schema at a start (create_schema): a bulk load cut short
    // is also known by its mark.
    missing = detail::query_int(c, kHasNameIndexSql, path, "building the indexes") == 0 ||
              detail::query_int(c, "SELECT bulk_load FROM uses_state", path, "building the indexes") != 0;
    if (!missing) return;
    detail::run_script(c, detail::kIndexBuildPragmas, path, "building the indexes");
    sqlite3_limit(c, SQLITE_LIMIT_WORKER_THREADS, static_cast<int>(std::thread::hardware_concurrency()));
  });
  if (!missing) return false;
  // The connection goes back to its ordinary settings whether or not the build succeeds.
  utils::OnExit restore([&] {
    db_->with_connection(
        [&](sqlite3* c) { sqlite3_exec(c, detail::kAfterIndexBuildPragmas, nullptr, nullptr, nullptr); });
  });
  bool emptied = false;
  impl_->write(*db_, "building the indexes", [&](sqlite3* c) {
    const char* op = "building the indexes";
    if (detail::query_int(c, "SELECT count(*) FROM temp.sqlite_master WHERE name = 'uses_pending'", path, op) == 0) {
      // The bulk load's connection went before its end, and the uses of the files it stored with it: they
      // are stored anew by the next pass, into an empty index (a bulk load again).
      emptied = detail::query_int(c, "SELECT EXISTS (SELECT 1 FROM files)", path, op) != 0;
      detail::run_script(c,
                         "DELETE FROM files; DELETE FROM symbols; DELETE FROM uses; DELETE FROM file_uses; "
                         "DELETE FROM uses_fresh; DELETE FROM imports",
                         path, op);
    }
    detail::run_script(c, detail::kSchemaSql, path, op);
    detail::rebuild_search_tables(c, path, op);
    if (!emptied) {
      detail::run_script(c, detail::kPendingUsesSql, path, op);
      detail::run_script(c,
                         "INSERT INTO uses SELECT name_key, file_id, spots FROM temp.uses_pending ORDER BY name_key, file_id; "
                         "DROP TABLE temp.uses_pending",
                         path, op);
    }
    detail::run_script(c, "UPDATE uses_state SET bulk_load = 0", path, op);
  });
  if (emptied) impl_->log->warn("{}: the first indexing was cut short before its end; it starts again", path.string());
  return emptied;
}

std::int64_t Repository::fresh_uses_files() {
  std::int64_t n = 0;
  db_->with_connection([&](sqlite3* c) {
    n = detail::query_int(c, "SELECT count(*) FROM uses_fresh", impl_->path, "counting the fresh uses");
  });
  return n;
}

bool Repository::move_fresh_uses(std::size_t batches) {
  const auto& path = impl_->path;
  const std::string op = "moving the fresh uses into place";
  bool any = false;
  db_->with_connection(
      [&](sqlite3* c) { any = detail::query_int(c, "SELECT EXISTS (SELECT 1 FROM uses_fresh)", path, op) != 0; });
  if (!any) return false;
  const auto start = Clock::now();
  std::size_t files = 0, rows = 0;
  // In batches of files, each a transaction of its own, so that a pass over a whole branch's files does not
  // hold all their rows in memory at once; a batch's files leave uses_fresh as their rows reach uses, so
  // readers see each file either here or there.
  constexpr int kFilesPerBatch = 256;
  std::int64_t after = 0;  // file ids start at 1
  bool more = true;
  for (std::size_t batch = 0; more && (batches == 0 || batch < batches); ++batch) {
    impl_->write(*db_, op, [&](sqlite3* c) {
      // A row of uses to delete (no spots) or to write.
      struct Change {
        std::int64_t key, file;
        bool put;
        std::string_view spots;
      };
      std::deque<std::string> blobs;  // the views of the changes point into them
      std::vector<Change> changes;
      std::vector<std::pair<std::int64_t, std::string>> file_keys;  // each file's keys from now on
      {
        Statement fresh(c, "SELECT file_id, uses FROM uses_fresh WHERE file_id > ?1 ORDER BY file_id LIMIT ?2", path, op);
        fresh.bind(1, after);
        fresh.bind(2, kFilesPerBatch);
        Statement old_keys(c, "SELECT keys FROM file_uses WHERE file_id = ?1", path, op);
        while (fresh.step(path, op)) {
          const std::int64_t id = fresh.integer(0);
          after = id;
          old_keys.bind(1, id);
          if (old_keys.step(path, op)) {
            const std::string_view keys = blob_of(old_keys, 0);
            for (std::size_t i = 0; i + kNameKeyBytes <= keys.size(); i += kNameKeyBytes) {
              changes.push_back({read_name_key(keys.data() + i), id, false, {}});
            }
          }
          old_keys.reset();
          const std::string& packed = blobs.emplace_back(blob_of(fresh, 1));
          std::string& keys = file_keys.emplace_back(id, std::string()).second;
          for_each_keyed_uses(packed, [&](std::int64_t key, std::string_view spots) {
            changes.push_back({key, id, true, spots});
            put_name_key(keys, key);
          });
        }
      }
      std::sort(changes.begin(), changes.end(), [](const Change& a, const Change& b) {
        return std::tie(a.key, a.file, a.put) < std::tie(b.key, b.file, b.put);
      });
      Statement drop(c, "DELETE FROM uses WHERE name_key = ?1 AND file_id = ?2", path, op);
      Statement put(c, "INSERT OR REPLACE INTO uses(name_key, file_id, spots) VALUES(?1, ?2, ?3)", path, op);
      for (std::size_t i = 0; i < changes.size(); ++i) {
        const Change& ch = changes[i];
        // A row both dropped and written is only written (over the old one).
        const bool replaced = !ch.put && i + 1 < changes.size() && changes[i + 1].key == ch.key && changes[i + 1].file == ch.file;
        if (replaced) continue;
        Statement& stmt = ch.put ? put : drop;
        stmt.bind(1, ch.key);
        stmt.bind(2, ch.file);
        if (ch.put) sqlite3_bind_blob(stmt.get(), 3, ch.spots.data(), static_cast<int>(ch.spots.size()), SQLITE_STATIC);
        stmt.step(path, op);
        stmt.reset();
      }
      Statement set_keys(c, "INSERT OR REPLACE INTO file_uses(file_id, keys) VALUES(?1, ?2)", path, op);
      Statement drop_keys(c, "DELETE FROM file_uses WHERE file_id = ?1", path, op);
      for (const auto& [id, keys] : file_keys) {
        Statement& stmt = keys.empty() ? drop_keys : set_keys;
        stmt.bind(1, id);
        if (!keys.empty()) sqlite3_bind_blob(stmt.get(), 2, keys.data(), static_cast<int>(keys.size()), SQLITE_STATIC);
        stmt.step(path, op);
        stmt.reset();
      }
      Statement moved(c, "DELETE FROM uses_fresh WHERE file_id <= ?1", path, op);
      moved.bind(1, after);
      moved.step(path, op);
      more = file_keys.size() == static_cast<std::size_t>(kFilesPerBatch);
      files += file_keys.size();
      rows += changes.size();
    });
  }
  impl_->log->debug("Moved the uses of {} files into place ({} rows written or deleted) in {:.3f} s", files, rows,
                    seconds_since(start));
  return more;
}

// ---------------------------------------------------------------------------------------------------
// Queries

SymbolSearch Repository::find_symbols(const SymbolQuery& q) {
  const std::string prefix = q.path_prefix ? detail::normalise_path_prefix(*q.path_prefix) : std::string();
  std::string key = Key('S')
                        .add(static_cast<std::int64_t>(q.match))
                        .add(q.text)
                        .add(q.kind)
                        .add(q.language)
                        .add(q.path_prefix ? std::optional<std::string>(prefix) : std::nullopt)
                        .add(static_cast<std::int64_t>(q.limit))
                        .str();
  return impl_->cached<SymbolSearch>(std::move(key), [&] {
    return impl_->with_reader([&](Reader& r) {
      ReadTransaction snapshot(r.db, impl_->path);
      return detail::run_symbol_search(r, impl_->path, q, impl_->catalogs);
    });
  });
}

std::vector<SymbolHit> Repository::search_symbols(const SymbolQuery& query) { return find_symbols(query).hits; }

std::optional<FileEntry> Repository::file_symbols(const std::string& path) {
  return impl_->with_reader([&](Reader& r) -> std::optional<FileEntry> {
    ReadTransaction snapshot(r.db, impl_->path);
    Statement& file = r.statement(
        "SELECT path, language, size, mtime_ns, content_hash, first_symbol, symbol_count FROM files WHERE path = ?1",
        impl_->path);
    std::optional<FileEntry> out;
    std::int64_t first = 0, count = 0;
    {
      ResetOnExit done{file};
      file.bind(1, detail::normalise_path_prefix(path));
      if (!file.step(impl_->path, "reading a file's symbols")) return out;
      out.emplace();
      out->file = FileRow{file.text(0), file.text(1), file.integer(2), file.integer(3), file.text(4)};
      first = file.integer(5);
      count = file.integer(6);
    }
    Statement& rows = r.statement(
        "SELECT name, kind, line, col, end_line, end_col, scope, line - lead FROM symbols WHERE id >= ?1 AND id < ?2 "
        "ORDER BY id",
        impl_->path);
    ResetOnExit done{rows};
    rows.bind(1, first);
    rows.bind(2, first + count);
    while (rows.step(impl_->path, "reading a file's symbols")) {
      out->symbols.push_back(SymbolRow{rows.text(0), rows.text(1), static_cast<int>(rows.integer(2)),
                                       static_cast<int>(rows.integer(3)), static_cast<int>(rows.integer(4)),
                                       static_cast<int>(rows.integer(5)), rows.text(6),
                                       static_cast<int>(rows.integer(7))});
    }
    return out;
  });
}

std::vector<FileRow> Repository::list_files(const std::string& path_prefix) {
  const std::string prefix = detail::normalise_path_prefix(path_prefix);
  return impl_->cached<std::vector<FileRow>>(Key('L').add(prefix).str(), [&] {
    std::string sql = "SELECT path, language, size, mtime_ns, content_hash FROM files";
    if (!prefix.empty()) sql += " WHERE path = ?1 OR (path >= ?2 AND path < ?3)";
    sql += " ORDER BY path";
    return impl_->with_reader([&](Reader& r) {
      Statement& stmt = r.statement(sql, impl_->path);
      ResetOnExit done{stmt};
      if (!prefix.empty()) {
        stmt.bind(1, prefix);
        stmt.bind(2, prefix + "/");
        stmt.bind(3, prefix + "0");
      }
      std::vector<FileRow> rows;
      while (stmt.step(impl_->path, "listing files")) {
        rows.push_back(FileRow{stmt.text(0), stmt.text(1), stmt.integer(2), stmt.integer(3), stmt.text(4)});
      }
      return rows;
    });
  });
}

namespace {

// Whether a file's path passes a query's path filter: a directory (or file), or a glob.
class PathFilter {
 public:
  explicit PathFilter(const std::optional<std::string>& filter) {
    if (!filter) return;
    if (filter->find_first_of("*?[") != std::string::npos) {
      glob_ = *filter;
      while (glob_.starts_with("./")) glob_.erase(0, 2);
    } else {
      dir_ = detail::normalise_path_prefix(*filter);
    }
  }
  bool passes(std::string_view path) const {
    if (!glob_.empty()) return glob_match(glob_, path);
    return dir_.empty() || path == dir_ || (path.starts_with(dir_) && path[dir_.size()] == '/');
  }

 private:
  std::string glob_, dir_;
};

}  // namespace

namespace {

// Where a row of symbols names its definition (1-based line, byte column).
struct Place {
  int line, column;
  auto operator<=>(const Place&) const = default;
};

// A file's uses of a name, as a query reads them: those coded in `spots`, and the definitions at the
// places of its rows of symbols of that name (`defined`; none when the spots code them all).
struct FileUsesRow {
  std::int64_t file_id;
  std::string_view path, language, spots;
  std::span<const Place> defined;
};

// The rows of symbols of `name` (exact case), by file from `from_file` on; none for a name whose
// definitions are always coded (plain_name).
struct DefinedIn {
  std::int64_t file_id;
  std::string path, language;
  std::vector<Place> places;  // ordered, each once
};
std::vector<DefinedIn> defined_in(Reader& r, const std::filesystem::path& path, std::string_view name, std::int64_t from_file) {
  std::vector<DefinedIn> out;
  if (!plain_name(name)) return out;
  Statement& stmt = r.statement(
      "SELECT s.file_id, f.path, f.language, s.line, s.col FROM symbols s "
      "JOIN files f ON f.id = s.file_id WHERE s.name = ?1 COLLATE NOCASE AND s.name = ?1 AND s.file_id >= ?2",
      path);
  ResetOnExit done{stmt};
  stmt.bind_static(1, name);
  stmt.bind(2, from_file);
  std::vector<std::pair<std::int64_t, Place>> rows;
  std::unordered_map<std::int64_t, std::pair<std::string, std::string>> files;
  while (stmt.step(path, "reading definitions")) {
    const std::int64_t id = stmt.integer(0);
    rows.push_back({id, {static_cast<int>(stmt.integer(3)), static_cast<int>(stmt.integer(4))}});
    if (!files.contains(id)) files.emplace(id, std::make_pair(stmt.text(1), stmt.text(2)));
  }
  std::sort(rows.begin(), rows.end());
  rows.erase(std::unique(rows.begin(), rows.end()), rows.end());
  for (const auto& [id, place] : rows) {
    if (out.empty() || out.back().file_id != id) out.push_back({id, files[id].first, files[id].second, {}});
    out.back().places.push_back(place);
  }
  return out;
}

// The rows of a name's uses in file order, from `from_file` on: those of uses, but for files in
// uses_fresh, whose rows there stand instead, with the file's rows of symbols of the name.
// fn(FileUsesRow) returns false to stop.
template <class Fn>
void each_file_using(Reader& r, const std::filesystem::path& path, std::string_view name, std::int64_t from_file, Fn&& fn) {
  const std::int64_t key = name_key(name);
  const std::shared_ptr<const detail::FreshUses> fresh = detail::fresh_uses(r, path);
  struct Fresh {
    std::int64_t file_id;
    std::string path, language, spots;
  };
  std::vector<Fresh> fresh_rows;
  if (fresh) {
    Statement& stmt = r.statement(
        "SELECT f.path, f.language, u.uses FROM uses_fresh u JOIN files f ON f.id = u.file_id WHERE u.file_id = ?1",
        path);
    for (const auto& [k, id] : fresh->using_key(key)) {
      if (id < from_file) continue;
      ResetOnExit done{stmt};
      stmt.bind(1, id);
      if (!stmt.step(path, "reading uses")) continue;  // a file removed
      for_each_keyed_uses(blob_of(stmt, 2), [&](std::int64_t k, std::string_view spots) {
        if (k == key) fresh_rows.push_back({id, stmt.text(0), stmt.text(1), std::string(spots)});
      });
    }
  }
  const std::vector<DefinedIn> defined = defined_in(r, path, name, from_file);
  auto next_fresh = fresh_rows.begin();
  auto next_defined = defined.begin();
  // The definitions of the file `row` is of, unless its spots code them all.
  auto with_defined = [&](FileUsesRow row) {
    for (; next_defined != defined.end() && next_defined->file_id < row.file_id; ++next_defined) {}
    if (next_defined != defined.end() && next_defined->file_id == row.file_id) {
      if (!every_definition_coded(row.spots) && !(fresh && fresh->codes_every_definition(key, row.file_id))) {
        row.defined = next_defined->places;
      }
      ++next_defined;
    }
    return row;
  };
  // The fresh rows and the files with only definitions before `file_id`.
  auto others_before = [&](std::int64_t file_id) {
    for (;;) {
      const std::int64_t f = std::min(next_fresh != fresh_rows.end() ? next_fresh->file_id : INT64_MAX,
                                      next_defined != defined.end() ? next_defined->file_id : INT64_MAX);
      if (f >= file_id) return true;
      FileUsesRow row{};
      if (next_fresh != fresh_rows.end() && next_fresh->file_id == f) {
        row = FileUsesRow{f, next_fresh->path, next_fresh->language, next_fresh->spots, {}};
        ++next_fresh;
      } else {
        row = FileUsesRow{f, next_defined->path, next_defined->language, {}, {}};
      }
      row = with_defined(row);
      if (row.spots.empty() && row.defined.empty()) continue;
      if (!fn(row)) return false;
    }
  };
  Statement& rows = r.statement(
      "SELECT u.file_id, f.path, f.language, u.spots FROM uses u JOIN files f ON f.id = u.file_id "
      "WHERE u.name_key = ?1 AND u.file_id >= ?2 ORDER BY u.file_id",
      path);
  ResetOnExit done{rows};
  rows.bind(1, key);
  rows.bind(2, from_file);
  while (rows.step(path, "reading uses")) {
    const std::int64_t file_id = rows.integer(0);
    if (!others_before(file_id)) return;
    if (fresh && fresh->has(file_id)) continue;
    if (!fn(with_defined(FileUsesRow{file_id, rows.text_view(1), rows.text_view(2), blob_of(rows, 3), {}}))) return;
  }
  others_before(INT64_MAX);
}

// A file's uses in a query's order: by offset, the definitions of its rows of symbols among the coded
// ones (those whose place is not in the file's text as it reads now last, by place).
std::vector<Use> uses_in_order(const FileUsesRow& row, SourceFiles& texts) {
  std::vector<Use> out = decode_uses(row.spots);
  if (row.defined.empty()) return out;
  const std::string* text = texts.content(std::string(row.path));
  const std::vector<std::uint32_t> starts = text ? line_starts(*text) : std::vector<std::uint32_t>{};
  for (const Place& p : row.defined) {
    out.push_back({text ? definition_offset(starts, text->size(), p.line, p.column) : kNoOffset, UseRole::definition});
  }
  std::stable_sort(out.begin(), out.end(), [](const Use& a, const Use& b) { return a.offset < b.offset; });
  return out;
}

}  // namespace

UsesPage Repository::find_uses(const UsesQuery& q, SourceFiles& texts) {
  return impl_->with_reader([&](Reader& r) {
    ReadTransaction snapshot(r.db, impl_->path);
    const PathFilter filter(q.path_prefix);
    const bool definitions = ((q.roles >> static_cast<unsigned>(UseRole::definition)) & 1u) != 0;
    UsesPage page;
    each_file_using(r, impl_->path, q.name, 0, [&](const FileUsesRow& row) {
      if (!filter.passes(row.path)) return true;
      page.total += static_cast<std::int64_t>(count_uses(row.spots, q.roles));
      if (definitions) page.total += static_cast<std::int64_t>(row.defined.size());
      if (page.total <= detail::kCountCap) return true;
      page.total = detail::kCountCap;
      page.more = true;
      return false;
    });
    const auto limit = static_cast<std::size_t>(std::max(q.limit, 1));
    each_file_using(r, impl_->path, q.name, q.from_file, [&](const FileUsesRow& row) {
      if (!filter.passes(row.path)) return true;
      std::int64_t ordinal = 0;
      for (const Use& u : uses_in_order(row, texts)) {
        if (((q.roles >> static_cast<unsigned>(u.role)) & 1u) == 0) continue;
        const std::int64_t at = ordinal++;
        if (row.file_id == q.from_file && at < q.skip) continue;
        if (page.hits.size() == limit) {
          page.next = std::make_pair(row.file_id, at);
          return false;
        }
        page.hits.push_back(UseHit{std::string(row.path), std::string(row.language), row.file_id, at, u});
      }
      return true;
    });
    return page;
  });
}

std::vector<ImportHit> Repository::imports_by_stem(const std::vector<std::string>& stems) {
  return impl_->with_reader([&](Reader& r) {
    ReadTransaction snapshot(r.db, impl_->path);
    Statement& stmt = r.statement(
        "SELECT f.path, f.language, i.target, i.line FROM imports i JOIN files f ON f.id = i.file_id WHERE i.stem = ?1",
        impl_->path);
    std::vector<ImportHit> out;
    for (const std::string& stem : stems) {
      ResetOnExit done{stmt};
      stmt.bind(1, stem);
      while (stmt.step(impl_->path, "reading imports")) {
        out.push_back(ImportHit{stmt.text(0), stmt.text(1), stmt.text(2), static_cast<int>(stmt.integer(3))});
      }
    }
    std::sort(out.begin(), out.end(), [](const ImportHit& a, const ImportHit& b) {
      return std::tie(a.path, a.line, a.target) < std::tie(b.path, b.line, b.target);
    });
    out.erase(std::unique(out.begin(), out.end(),
                          [](const ImportHit& a, const ImportHit& b) {
                            return a.path == b.path && a.line == b.line && a.target == b.target;
                          }),
              out.end());
    return out;
  });
}

Counts Repository::counts() {
  return impl_->cached<Counts>(Key('C').str(), [&] {
    return impl_->with_reader([&](Reader& r) {
      // One statement: both counts come from one read transaction, hence from one version of the index.
      Statement& stmt = r.statement("SELECT (SELECT count(*) FROM files), (SELECT count(*) FROM symbols)",
                                    impl_->path);
      ResetOnExit done{stmt};
      Counts c;
      if (stmt.step(impl_->path, "counting rows")) {
        c.files = stmt.integer(0);
        c.symbols = stmt.integer(1);
      }
      return c;
    });
  });
}

std::int64_t Repository::file_count() {
  return impl_->cached<Counts>(Key('F').str(), [&] {
    return impl_->with_reader([&](Reader& r) {
      Statement& stmt = r.statement("SELECT count(*) FROM files", impl_->path);
      ResetOnExit done{stmt};
      return Counts{.files = stmt.step(impl_->path, "counting files") ? stmt.integer(0) : 0};
    });
  }).files;
}

void Repository::clear_query_cache() { impl_->cache.clear(); }

void Repository::release_memory() {
  if (db_->is_open()) db_->with_connection([](sqlite3* c) { sqlite3_db_release_memory(c); });
  std::lock_guard lock(impl_->readers_mu);
  for (const auto& reader : impl_->idle_readers) sqlite3_db_release_memory(reader->db);
}

SwapTiming Repository::last_swap_timing() const {
  std::lock_guard lock(impl_->timing_mu);
  return impl_->timing;
}

// ---------------------------------------------------------------------------------------------------
// Swap

Counts Repository::swap_index_from(const std::filesystem::path& staging_path) {
  const auto start = Clock::now();
  const std::string what =
      fmt::format("swapping in the index of {} onto {}", staging_path.string(), impl_->path.string());
  // Before any SQLite call: ATTACH of a missing file in read-only mode would only say "unable to open".
  std::error_code ec;
  if (!std::filesystem::is_regular_file(staging_path, ec)) {
    throw StorageError(fmt::format("{}: the staging file {}", what,
                                   std::filesystem::exists(staging_path, ec) ? "is not a regular file"
                                                                             : "does not exist"),
                       SQLITE_CANTOPEN);
  }

  // A store that has been searched has the new names ready before they go live, so that no search after
  // the swap waits for them: read from the staging file (which nothing writes now) on a thread of their
  // own while the rows are copied, and handed over before the commit.
  std::future<std::shared_ptr<const detail::NameCatalog>> new_names;
  if (impl_->catalogs.in_use()) {
    new_names = std::async(std::launch::async, [staging_path] { return detail::NameCatalog::load_file(staging_path); });
  }
  // The names they replace stay in memory until the commit, for the searches that still see them.
  std::shared_ptr<const detail::NameCatalog> old_names;
  auto hand_over_names = [&] {
    if (!new_names.valid()) return;
    try {
      old_names = impl_->catalogs.put(new_names.get());
    } catch (const std::exception& e) {
      impl_->log->warn("{}: reading the new names ahead (the first search reads them): {}", what, e.what());
    }
  };

  Counts rows;
  double write_lock_seconds = 0;
  const std::filesystem::path named_in_what;  // `what` names both files
  std::string steps;  // each step's time, for the debug log
  db_->with_connection([&](sqlite3* c) {
    auto step = [&](const char* sql, std::string_view op) {
      const auto t = Clock::now();
      detail::run_script(c, sql, named_in_what, fmt::format("{}: {}", what, op));
      steps += fmt::format("{}{} {:.3f} s", steps.empty() ? "" : ", ", op, seconds_since(t));
    };
    // A DETACH that failed after an earlier swap would make this ATTACH fail; clear it first.
    if (sqlite3_db_filename(c, "staging") != nullptr) sqlite3_exec(c, "DETACH DATABASE staging", nullptr, nullptr, nullptr);
    {
      const std::string op = what + ": attaching the staging file";
      Statement attach(c, "ATTACH DATABASE ?1 AS staging", named_in_what, op);
      attach.bind(1, read_only_uri(staging_path));
      attach.step(named_in_what, op);
    }

    std::exception_ptr failure;
    try {
      step("BEGIN IMMEDIATE", "starting the transaction");
      const auto locked = Clock::now();
      auto version = detail::query_int(c, "PRAGMA staging.user_version", named_in_what,
                                       what + ": reading the staging schema version");
      if (version != kSchemaVersion) {
        throw StorageError(fmt::format("{}: the staging file has schema version {}, expected {}", what, version,
                                       kSchemaVersion),
                           SQLITE_MISMATCH);
      }
      // The tables are emptied first so that the copies below go b-tree to b-tree (see schema.h).
      step("DELETE FROM main.symbols", "emptying the live symbols");
      step("DELETE FROM main.files", "emptying the live files");
      step("DELETE FROM main.names; DELETE FROM main.name_state", "emptying the live names");
      step("DELETE FROM main.uses; DELETE FROM main.file_uses; DELETE FROM main.uses_fresh; DELETE FROM main.imports",
           "emptying the live uses");
      // A cancelled bulk load may have left the live file without its name index; building it on the
      // empty table is free, and the copy below then goes b-tree to b-tree for it too.
      step("CREATE INDEX IF NOT EXISTS main.symbols_by_name ON symbols(name COLLATE NOCASE, rank)",
           "restoring the name index");
      // The trigram index is made anew and its tables copied: a connection keeps what it has read of
      // such an index until the schema changes, so the writer must not go on from the old one.
      step("DROP TABLE main.name_grams", "emptying the live trigram index");
      step(detail::name_grams_sql("main.").c_str(), "emptying the live trigram index");
      step("DELETE FROM main.name_grams_data; DELETE FROM main.name_grams_idx", "emptying the live trigram index");
      step("INSERT INTO main.files SELECT * FROM staging.files", "copying the files");
      rows.files = sqlite3_changes64(c);
      step("INSERT INTO main.symbols SELECT * FROM staging.symbols", "copying the symbols");
      rows.symbols = sqlite3_changes64(c);
      step("INSERT INTO main.names SELECT * FROM staging.names; INSERT INTO main.name_state SELECT * FROM staging.name_state",
           "copying the names");
      step("INSERT INTO main.uses SELECT * FROM staging.uses; INSERT INTO main.file_uses SELECT * FROM staging.file_uses; "
           "INSERT INTO main.uses_fresh SELECT * FROM staging.uses_fresh; "
           "INSERT INTO main.imports SELECT * FROM staging.imports; "
           "UPDATE main.uses_state SET bulk_load = 0",  // whatever bulk load the live file had is replaced
           "copying the uses");
      step("INSERT INTO main.name_grams_data SELECT * FROM staging.name_grams_data; "
           "INSERT INTO main.name_grams_idx SELECT * FROM staging.name_grams_idx",
           "copying the trigram index");
      const auto waited = Clock::now();
      hand_over_names();
      steps += fmt::format(", waiting for the new names {:.3f} s", seconds_since(waited));
      // The commit leaves the new pages in the log: copying them into the file (a quarter of the swap's
      // time, which no reader waits for either way) is left to the worker's checkpoint after a rebuild,
      // or to the next commit.
      sqlite3_wal_autocheckpoint(c, 0);
      step("COMMIT", "committing");
      write_lock_seconds = seconds_since(locked);
    } catch (...) {
      failure = std::current_exception();
    }
    sqlite3_wal_autocheckpoint(c, kWalAutoCheckpointPages);
    if (failure) {
      // SQLite may have rolled back by itself (I/O errors, a full disk); otherwise roll back here.
      if (sqlite3_get_autocommit(c) == 0) sqlite3_exec(c, "ROLLBACK", nullptr, nullptr, nullptr);
    }
    if (sqlite3_exec(c, "DETACH DATABASE staging", nullptr, nullptr, nullptr) != SQLITE_OK) {
      impl_->log->warn("{}: detaching the staging file: {}", what, sqlite3_errmsg(c));
    }
    if (failure) std::rethrow_exception(failure);
  });
  impl_->cache.clear();

  SwapTiming timing{seconds_since(start), write_lock_seconds};
  {
    std::lock_guard lock(impl_->timing_mu);
    timing.swaps = impl_->timing.swaps + 1;
    impl_->timing = timing;
  }
  impl_->log->info("Swapped in {} files and {} symbols from {} in {:.3f} s (write lock held {:.3f} s)", rows.files,
                   rows.symbols, staging_path.string(), timing.total_seconds, timing.write_lock_seconds);
  impl_->log->debug("Swap steps: {}", steps);
  // Unless they were read ahead, a store that has been searched reads the new names now, rather than in
  // the next search.
  if (impl_->catalogs.in_use()) {
    impl_->with_reader([&](Reader& r) {
      ReadTransaction snapshot(r.db, impl_->path);
      return impl_->catalogs.get(r, impl_->path);
    });
  }
  return rows;
}

}  // namespace brenloc::storage
