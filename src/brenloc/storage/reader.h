// A read connection of a Repository with its prepared statements, and the guards of a query on it.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "brenloc/storage/sqlite_util.h"

namespace brenloc::storage::detail {

class FreshUsesCache;

struct Reader {
  sqlite3* db = nullptr;
  FreshUsesCache* fresh_uses = nullptr;  // of the reader's repository (fresh_uses.h)
  std::unordered_map<std::string, std::unique_ptr<Statement>> statements;
  // The hashes of the parts of the files' paths, as of `path_parts_version` (path_parts.h).
  std::optional<std::vector<std::uint64_t>> path_parts;
  std::int64_t path_parts_version = 0;

  ~Reader() {
    statements.clear();
    sqlite3_close_v2(db);
  }

  // The statement of `sql`, prepared once per connection.
  Statement& statement(const std::string& sql, const std::filesystem::path& file) {
    auto& slot = statements[sql];
    if (!slot) slot = std::make_unique<Statement>(db, sql, file, "preparing a query");
    return *slot;
  }
};

// Resets a statement when a query is done with it, ending its read transaction.
struct ResetOnExit {
  Statement& stmt;
  ~ResetOnExit() { stmt.reset(); }
};

// One read transaction over several statements, so that they all see the same snapshot (declare it
// before the statements' ResetOnExit, so that they are reset before it ends).
struct ReadTransaction {
  sqlite3* db;
  ReadTransaction(sqlite3* c, const std::filesystem::path& file) : db(c) {
    run_script(db, "BEGIN", file, "starting a read transaction");
  }
  ~ReadTransaction() { sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr); }
};

}  // namespace brenloc::storage::detail
