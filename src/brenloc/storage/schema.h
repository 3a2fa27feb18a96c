// The tables and indexes of an index database, and the options of its connections.
//
// A staging database and the live one are created by the same statements, so their tables and indexes
// are identical; the swap relies on that: "INSERT INTO main.t SELECT * FROM staging.t" into an empty
// table with identical indexes lets SQLite copy the b-trees in order (table and indexes alike) instead
// of inserting row by row, which is what makes the swap of a million rows take a couple of seconds.
// A change here is a change of kSchemaVersion.
#pragma once

#include <string>
#include <string_view>

namespace brenloc::storage::detail {

inline constexpr const char* kSchemaSql = R"sql(
CREATE TABLE IF NOT EXISTS files (
  id INTEGER PRIMARY KEY,
  path TEXT NOT NULL UNIQUE,
  language TEXT NOT NULL,
  size INTEGER NOT NULL,
  mtime_ns INTEGER NOT NULL,
  content_hash TEXT NOT NULL,
  -- The file's symbols are the rows first_symbol .. first_symbol + symbol_count - 1 of symbols: a file's
  -- rows are always inserted together, at the end of the table (which also spares symbols an index by
  -- file, and each row stored an insert into it).
  first_symbol INTEGER NOT NULL,
  symbol_count INTEGER NOT NULL,
  -- The rest of the file's status when it was read, and the wall-clock time of that reading.
  inode INTEGER NOT NULL DEFAULT 0,
  ctime_ns INTEGER NOT NULL DEFAULT 0,
  read_ns INTEGER NOT NULL DEFAULT 0
);
CREATE TABLE IF NOT EXISTS symbols (
  id INTEGER PRIMARY KEY,
  file_id INTEGER NOT NULL,
  name TEXT NOT NULL,
  kind TEXT NOT NULL,
  line INTEGER NOT NULL,
  col INTEGER NOT NULL,
  end_line INTEGER NOT NULL,
  end_col INTEGER NOT NULL,
  scope TEXT NOT NULL,
  -- How many lines before `line` the definition starts (a return type or template header above the
  -- name); almost always 0, which SQLite stores in no bytes.
  lead INTEGER NOT NULL,
  -- How the symbol ranks among the hits of its name, lower first, as far as the query does not change it
  -- (place_rank of symbol_match.h): under 2^15, two bytes.
  rank INTEGER NOT NULL
);
-- Names compared ignoring ASCII case: exact and prefix search (a range), and a name's rows best first.
CREATE INDEX IF NOT EXISTS symbols_by_name ON symbols(name COLLATE NOCASE, rank);
-- Where each file uses each name in its code: per name (by its key, name_uses.h) and file, the offsets and
-- roles of the occurrences, coded in one blob, but for the definitions that the file's rows of symbols
-- hold (name_uses.h): a file whose only uses of a name are those has no row for it. Keyed by name first,
-- so that the files using a name are one range of the table.
CREATE TABLE IF NOT EXISTS uses (
  name_key INTEGER NOT NULL,
  file_id INTEGER NOT NULL,
  spots BLOB NOT NULL,
  PRIMARY KEY (name_key, file_id)
) WITHOUT ROWID;
-- The name keys of each file's rows of uses, 4 bytes each (name_uses.h), so that they can go when the file does.
CREATE TABLE IF NOT EXISTS file_uses (
  file_id INTEGER PRIMARY KEY,
  keys BLOB NOT NULL
);
-- The uses of files that live passes stored or removed since uses was last brought up to date, one row
-- per file (coded by pack_keyed_uses, name_uses.h): a file here has these uses, whatever its rows of uses say (an
-- empty row: none). Writing a file's uses into uses at once would touch a page of it per name, all over
-- the table; they are moved there in key order, many files at once, when the worker is idle or when too
-- many have gathered at the end of a pass.
CREATE TABLE IF NOT EXISTS uses_fresh (
  file_id INTEGER PRIMARY KEY,
  uses BLOB NOT NULL
);
-- A stamp of uses_fresh that every change of it changes, by which readers keep its rows in memory
-- (fresh_uses.h). Random, so that no two states of the table, in this file or copied from another, share one.
-- bulk_load: 1 from the start of a bulk load (uses_pending) until its uses are sorted into uses; found
-- set by another connection, the bulk load's uses went with its connection.
CREATE TABLE IF NOT EXISTS uses_state (
  stamp INTEGER NOT NULL,
  bulk_load INTEGER NOT NULL
);
INSERT INTO uses_state SELECT 0, 0 WHERE NOT EXISTS (SELECT 1 FROM uses_state);
CREATE TRIGGER IF NOT EXISTS uses_fresh_added AFTER INSERT ON uses_fresh BEGIN
  UPDATE uses_state SET stamp = random();
END;
CREATE TRIGGER IF NOT EXISTS uses_fresh_removed AFTER DELETE ON uses_fresh BEGIN
  UPDATE uses_state SET stamp = random();
END;
CREATE TRIGGER IF NOT EXISTS uses_fresh_changed AFTER UPDATE ON uses_fresh BEGIN
  UPDATE uses_state SET stamp = random();
END;
-- What each file includes or imports, as written, with the last part of it (import_stem) to look it up by.
CREATE TABLE IF NOT EXISTS imports (
  file_id INTEGER NOT NULL,
  target TEXT NOT NULL,
  stem TEXT NOT NULL,
  line INTEGER NOT NULL
);
CREATE INDEX IF NOT EXISTS imports_by_stem ON imports(stem);
CREATE INDEX IF NOT EXISTS imports_by_file ON imports(file_id);
)sql";

// During a bulk load (while the name index is deferred), the rows of uses as they come, in file order, in
// a temporary table of the writer connection (a file of its own, gone with the connection): they are
// sorted into uses when the name index is built, and their pages never become free pages of the index.
// Should the connection go first (the process killed), the bulk load is found under way without them
// (uses_state.bulk_load), and the files stored since are stored anew (restore_indexes).
inline constexpr const char* kPendingUsesSql = R"sql(
CREATE TEMP TABLE IF NOT EXISTS uses_pending (
  name_key INTEGER NOT NULL,
  file_id INTEGER NOT NULL,
  spots BLOB NOT NULL
);
)sql";

// The search tables: every distinct name of symbols (exact case) with a summary of its rows, a trigram
// index of the names, and the tables' stamp. They are kept in step with symbols by the store, and, after
// a bulk load, built with the name index (they are empty or stale exactly while it is missing).
//
// A name's summary: how many rows bear it, a bit per kind and per language among them, and the smallest
// and largest of their ids (a directory's rows are ranges of ids). The bits and the range may say more
// than the rows do (they only grow until the next rebuild), never less. Searches keep the names in
// memory by stamp, which changes with every change of names. The trigram index keeps no copy of the
// names (contentless) and no positions: what it finds is a superset that the search checks.
inline constexpr const char* kSearchTablesSql = R"sql(
CREATE TABLE IF NOT EXISTS names (
  name TEXT NOT NULL COLLATE NOCASE,
  id INTEGER NOT NULL,
  rows INTEGER NOT NULL,
  kinds INTEGER NOT NULL,
  languages INTEGER NOT NULL,
  first_row INTEGER NOT NULL,
  last_row INTEGER NOT NULL,
  PRIMARY KEY (name, id)
) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS name_state (
  stamp INTEGER NOT NULL,
  next_id INTEGER NOT NULL
);
INSERT INTO name_state SELECT 0, 1 WHERE NOT EXISTS (SELECT 1 FROM name_state);
)sql";
// Made in the schema named before the table's name: "" or "main.".
inline std::string name_grams_sql(std::string_view schema) {
  return std::string("CREATE VIRTUAL TABLE IF NOT EXISTS ") + std::string(schema) +
         "name_grams USING fts5(name, content='', tokenize='trigram', detail='none', columnsize=0)";
}

// The writer connection's page cache and temporary storage (a bulk load and an index build change them for
// their time).
// The writer appends rows at the end of their tables and touches few pages of the indexes per store, and
// the swap copies b-trees page by page, whose pages go to the log whatever the cache: a larger cache buys
// no time and would stay filled with pages after every scan (the report's, a swap's). Sorts and
// temporary b-trees larger than the cache go to temporary files rather than to memory.
#define BRENLOC_WRITER_CACHE_PRAGMAS "PRAGMA cache_size = -8192; PRAGMA temp_store = FILE;"

// The writer connection: WAL commits without a sync (the index can be rebuilt from the repository, and
// WAL keeps the file consistent), freed pages not zeroed (this SQLite is built with secure_delete on,
// which would make the swap's "DELETE FROM symbols" rewrite every page), a small page cache (above), and
// a cap on the log file kept after a checkpoint.
inline constexpr const char* kWriterPragmas =
    "PRAGMA synchronous = NORMAL; PRAGMA secure_delete = OFF; PRAGMA journal_size_limit = 67108864; "
    BRENLOC_WRITER_CACHE_PRAGMAS;

// Around an index build on the writer connection. SQLite's sorter sorts in runs the size of the page
// cache, kept in temporary files and sorted on helper threads (one per core, set beside these): small
// runs sort in parallel and merge with few cache misses (a million names: half the time of one run in
// memory). Afterwards, the writer's usual cache and no helper threads again.
inline constexpr const char* kIndexBuildPragmas = "PRAGMA temp_store = FILE; PRAGMA cache_size = -2048;";
// During a bulk load, whose stores only append (the name index is deferred): the last pages of each table
// are the only ones touched again, which a small cache holds as well; the writer's usual cache would
// fill with pages written once, beside the parse threads' largest files at a rebuild's peak of memory.
inline constexpr const char* kBulkLoadPragmas = "PRAGMA cache_size = -2048; PRAGMA temp.cache_size = -256;";
inline constexpr const char* kAfterIndexBuildPragmas = BRENLOC_WRITER_CACHE_PRAGMAS " PRAGMA threads = 0;";

#undef BRENLOC_WRITER_CACHE_PRAGMAS

}  // namespace brenloc::storage::detail
