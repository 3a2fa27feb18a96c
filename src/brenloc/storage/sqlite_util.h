// Small helpers over the SQLite C API shared by the storage sources: prepared statements with RAII,
// statement scripts, and errors that name the file, the operation and SQLite's message.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "brenloc/storage/errors.h"

namespace brenloc::storage::detail {

// sqlite3_open_v2 for a connection that only one thread at a time uses (the Database's mutex and the
// readers' pool see to that), so without SQLite's own per-call mutexes; the first call also turns off
// SQLite's memory statistics, which take a global mutex on every allocation.
int open_connection(const std::filesystem::path& path, int flags, sqlite3** db);

// "<file>: <operation>: <SQLite's message>" with the result code of `rc` (extended codes kept); without
// the file when `file` is empty (the operation names it).
StorageError sqlite_error(sqlite3* db, int rc, const std::filesystem::path& file, std::string_view operation);

// Throws sqlite_error(...) unless rc is SQLITE_OK, SQLITE_ROW or SQLITE_DONE.
void check(sqlite3* db, int rc, const std::filesystem::path& file, std::string_view operation);

// Runs every statement of `sql`, stepping through (and ignoring) their result rows.
void run_script(sqlite3* db, std::string_view sql, const std::filesystem::path& file, std::string_view operation);

// The first column of the first row of `sql` as an integer (0 when there is no row).
std::int64_t query_int(sqlite3* db, const std::string& sql, const std::filesystem::path& file,
                       std::string_view operation);

// An SQL statement, finalised on destruction. Binding indexes are 1-based as in SQLite.
class Statement {
 public:
  Statement() = default;
  Statement(sqlite3* db, std::string_view sql, const std::filesystem::path& file, std::string_view operation);
  ~Statement() { sqlite3_finalize(stmt_); }
  Statement(Statement&& o) noexcept : db_(o.db_), stmt_(o.stmt_) { o.stmt_ = nullptr; }
  Statement& operator=(Statement&& o) noexcept;
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  void bind(int i, std::string_view text);
  // Binds text without a copy: it must stay valid and unchanged until the statement is reset.
  void bind_static(int i, std::string_view text);
  void bind(int i, std::int64_t value);
  void bind(int i, int value) { bind(i, static_cast<std::int64_t>(value)); }
  void bind_null(int i);
  // Steps once: true on a row, false when done; throws on an error.
  bool step(const std::filesystem::path& file, std::string_view operation);
  // Resets for another run and clears the bindings.
  void reset();

  std::string text(int col) const;
  // The text of a column until the next step or reset.
  std::string_view text_view(int col) const;
  std::int64_t integer(int col) const { return sqlite3_column_int64(stmt_, col); }

  sqlite3_stmt* get() const { return stmt_; }

 private:
  sqlite3* db_ = nullptr;
  sqlite3_stmt* stmt_ = nullptr;
};

}  // namespace brenloc::storage::detail
