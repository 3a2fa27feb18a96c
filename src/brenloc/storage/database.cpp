#include "brenloc/storage/database.h"

#include <fmt/format.h>

#include "brenloc/storage/errors.h"
#include "brenloc/storage/schema.h"
#include "brenloc/storage/sqlite_util.h"
#include "brenloc/utils/logging.h"

namespace brenloc::storage {

namespace {

// How long a statement waits for another connection's lock before it fails with SQLITE_BUSY.
constexpr int kBusyTimeoutMs = 5000;

// The statement as quoted in an error: long scripts are cut short.
std::string quoted(const std::string& sql) {
  constexpr std::size_t kMax = 120;
  if (sql.size() <= kMax) return fmt::format("\"{}\"", sql);
  return fmt::format("\"{}...\"", sql.substr(0, kMax));
}

}  // namespace

Database::Database(std::filesystem::path path, Durability durability)
    : path_(std::move(path)), durability_(durability) {}

Database::~Database() {
  std::lock_guard lock(mu_);
  if (db_ != nullptr) {
    sqlite3_close_v2(db_);
    db_ = nullptr;
  }
}

void Database::connect() {
  std::lock_guard lock(mu_);
  if (db_ != nullptr) return;
  sqlite3* db = nullptr;
  int rc = detail::open_connection(path_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_URI, &db);
  if (rc != SQLITE_OK) {
    StorageError error = detail::sqlite_error(db, rc, path_, "opening the database");
    sqlite3_close_v2(db);
    throw error;
  }
  try {
    sqlite3_extended_result_codes(db, 1);
    sqlite3_busy_timeout(db, kBusyTimeoutMs);
    detail::Statement mode(db, "PRAGMA journal_mode=WAL", path_, "switching to WAL mode");
    std::string got = mode.step(path_, "switching to WAL mode") ? mode.text(0) : "";
    if (got != "wal") {
      throw StorageError(
          fmt::format("{}: switching to WAL mode: the journal mode stayed '{}'", path_.string(), got), SQLITE_ERROR);
    }
    detail::run_script(db, detail::kWriterPragmas, path_, "setting the connection's options");
    if (durability_ == Durability::unsynced) {
      detail::run_script(db, "PRAGMA synchronous = OFF", path_, "setting the connection's options");
    }
  } catch (...) {
    sqlite3_close_v2(db);
    throw;
  }
  db_ = db;
}

void Database::create_schema() {
  std::lock_guard lock(mu_);
  if (db_ == nullptr) {
    throw StorageError(fmt::format("{}: creating the schema: the database is not connected", path_.string()),
                       SQLITE_MISUSE);
  }
  // The version is read and the tables created in one write transaction, so that two processes that
  // create the schema of one file at once do not both see version 0 half-way.
  detail::run_script(db_, "BEGIN IMMEDIATE", path_, "creating the schema");
  try {
    auto version = detail::query_int(db_, "PRAGMA user_version", path_, "reading the schema version");
    if (version > kSchemaVersion) {
      throw StorageError(fmt::format("{}: schema version {} is newer than this program's version {}",
                                     path_.string(), version, kSchemaVersion),
                         SQLITE_ERROR);
    }
    if (version > 0 && version < kSchemaVersion) {
      // What the index holds can be found again in the repository: an older layout is not converted.
      utils::get_logger("brenloc.storage")
          ->warn("{}: dropping an index of schema version {} (this program's is {}); a reindex fills it again",
                 path_.string(), version, kSchemaVersion);
      detail::run_script(db_, "DROP TABLE IF EXISTS name_grams; DROP TABLE IF EXISTS names; DROP TABLE IF EXISTS name_state; "
                         "DROP TABLE IF EXISTS symbols; DROP TABLE IF EXISTS files; DROP TABLE IF EXISTS uses; "
                         "DROP TABLE IF EXISTS file_uses; DROP TABLE IF EXISTS uses_pending; DROP TABLE IF EXISTS uses_fresh; DROP TABLE IF EXISTS uses_state; DROP TABLE IF EXISTS imports;", path_,
                         "dropping an index of an older version");
    }
    detail::run_script(db_, detail::kSchemaSql, path_, "creating the schema");
    detail::run_script(db_, detail::kSearchTablesSql, path_, "creating the schema");
    detail::run_script(db_, detail::name_grams_sql(""), path_, "creating the schema");
    detail::run_script(db_, fmt::format("PRAGMA user_version = {}", kSchemaVersion), path_,
                       "setting the schema version");
    detail::run_script(db_, "COMMIT", path_, "committing the schema");
  } catch (...) {
    if (sqlite3_get_autocommit(db_) == 0) sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
    throw;
  }
}

void Database::close() {
  std::lock_guard lock(mu_);
  if (db_ == nullptr) return;
  // close_v2 never fails for a valid handle: statements still unfinalised keep it as a zombie until
  // their owner finalises them.
  sqlite3_close_v2(db_);
  db_ = nullptr;
}

void Database::execute(const std::string& sql) {
  std::lock_guard lock(mu_);
  if (db_ == nullptr) {
    throw StorageError(fmt::format("{}: executing {}: the database is not connected", path_.string(), quoted(sql)),
                       SQLITE_MISUSE);
  }
  detail::run_script(db_, sql, path_, "executing " + quoted(sql));
}

bool Database::is_open() const {
  std::lock_guard lock(mu_);
  return db_ != nullptr;
}

void Database::with_connection(const std::function<void(sqlite3*)>& fn) {
  std::lock_guard lock(mu_);
  if (db_ == nullptr) {
    throw StorageError(fmt::format("{}: the database is not connected", path_.string()), SQLITE_MISUSE);
  }
  fn(db_);
}

}  // namespace brenloc::storage
