#include "brenloc/storage/sqlite_util.h"

#include <fmt/format.h>

namespace brenloc::storage::detail {

int open_connection(const std::filesystem::path& path, int flags, sqlite3** db) {
  // Only possible before SQLite initialises itself; if something else got there first, the statistics
  // stay on, which costs time and nothing else.
  static const int configured = sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
  (void)configured;
  return sqlite3_open_v2(path.c_str(), db, flags | SQLITE_OPEN_NOMUTEX, nullptr);
}

StorageError sqlite_error(sqlite3* db, int rc, const std::filesystem::path& file, std::string_view operation) {
  // The connection's message describes its last failed call; when it is about another code (or there is
  // no connection), the code's own text is the clearer one.
  std::string message = sqlite3_errstr(rc);
  if (db != nullptr && sqlite3_extended_errcode(db) == rc) message = sqlite3_errmsg(db);
  if (file.empty()) return StorageError(fmt::format("{}: {}", operation, message), rc);
  return StorageError(fmt::format("{}: {}: {}", file.string(), operation, message), rc);
}

void check(sqlite3* db, int rc, const std::filesystem::path& file, std::string_view operation) {
  if (rc != SQLITE_OK && rc != SQLITE_ROW && rc != SQLITE_DONE) throw sqlite_error(db, rc, file, operation);
}

void run_script(sqlite3* db, std::string_view sql, const std::filesystem::path& file, std::string_view operation) {
  const char* rest = sql.data();
  const char* end = sql.data() + sql.size();
  while (rest < end) {
    sqlite3_stmt* raw = nullptr;
    const char* tail = nullptr;
    int rc = sqlite3_prepare_v2(db, rest, static_cast<int>(end - rest), &raw, &tail);
    if (rc != SQLITE_OK) {
      sqlite3_finalize(raw);
      throw sqlite_error(db, sqlite3_extended_errcode(db), file, operation);
    }
    rest = tail;
    if (raw == nullptr) continue;  // whitespace or a comment
    do {
      rc = sqlite3_step(raw);
    } while (rc == SQLITE_ROW);
    if (rc != SQLITE_DONE) {
      rc = sqlite3_extended_errcode(db);
      StorageError error = sqlite_error(db, rc, file, operation);
      sqlite3_finalize(raw);
      throw error;
    }
    sqlite3_finalize(raw);
  }
}

std::int64_t query_int(sqlite3* db, const std::string& sql, const std::filesystem::path& file,
                       std::string_view operation) {
  Statement stmt(db, sql, file, operation);
  return stmt.step(file, operation) ? stmt.integer(0) : 0;
}

Statement::Statement(sqlite3* db, std::string_view sql, const std::filesystem::path& file,
                     std::string_view operation)
    : db_(db) {
  int rc = sqlite3_prepare_v3(db, sql.data(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT, &stmt_,
                              nullptr);
  if (rc != SQLITE_OK) {
    sqlite3_finalize(stmt_);
    stmt_ = nullptr;
    throw sqlite_error(db, sqlite3_extended_errcode(db), file, operation);
  }
}

Statement& Statement::operator=(Statement&& o) noexcept {
  if (this != &o) {
    sqlite3_finalize(stmt_);
    db_ = o.db_;
    stmt_ = o.stmt_;
    o.stmt_ = nullptr;
  }
  return *this;
}

void Statement::bind(int i, std::string_view text) {
  sqlite3_bind_text(stmt_, i, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
}

void Statement::bind_static(int i, std::string_view text) {
  sqlite3_bind_text(stmt_, i, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
}

void Statement::bind(int i, std::int64_t value) { sqlite3_bind_int64(stmt_, i, value); }

void Statement::bind_null(int i) { sqlite3_bind_null(stmt_, i); }

bool Statement::step(const std::filesystem::path& file, std::string_view operation) {
  int rc = sqlite3_step(stmt_);
  if (rc == SQLITE_ROW) return true;
  if (rc == SQLITE_DONE) return false;
  rc = sqlite3_extended_errcode(db_);
  StorageError error = sqlite_error(db_, rc, file, operation);
  sqlite3_reset(stmt_);
  throw error;
}

void Statement::reset() {
  sqlite3_reset(stmt_);
  sqlite3_clear_bindings(stmt_);
}

std::string Statement::text(int col) const { return std::string(text_view(col)); }

std::string_view Statement::text_view(int col) const {
  const auto* p = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, col));
  if (p == nullptr) return {};
  return std::string_view(p, static_cast<std::size_t>(sqlite3_column_bytes(stmt_, col)));
}

}  // namespace brenloc::storage::detail
