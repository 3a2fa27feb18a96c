// The index store over one Database: writes for the indexer, queries for clients, and the swap of a
// staged index onto the live connection.
//
// Writes go through the Database's writer connection and are blocking (run them off the event loop).
// Queries run on read connections of their own (WAL readers): they never wait for a reindex or a swap,
// and see the index as of their transaction's start. Query results are cached (LRU) until the index
// changes or clear_query_cache() is called.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "brenloc/storage/database.h"
#include "brenloc/storage/records.h"

namespace brenloc::storage {

class SourceFiles;

// How long the last successful swap took: the whole call (during which the writer connection is held
// and the indexer's writes wait), and the part of it that held SQLite's write lock on the live file.
struct SwapTiming {
  double total_seconds = 0;
  double write_lock_seconds = 0;
  std::uint64_t swaps = 0;  // swaps that succeeded on this store so far
};

class Repository {
 public:
  explicit Repository(std::shared_ptr<Database> database);
  virtual ~Repository();
  Repository(const Repository&) = delete;
  Repository& operator=(const Repository&) = delete;

  const std::shared_ptr<Database>& database() const { return db_; }

  // --- writes (blocking, on the writer connection) ---
  // Path -> content hash of every indexed file.
  std::unordered_map<std::string, std::string> file_hashes();
  // Path -> content hash and status of every indexed file, or, with `under`, of those at or under one of
  // these relative paths ("" for all).
  std::unordered_map<std::string, StoredFile> file_states(const std::optional<std::vector<std::string>>& under = {});
  // Stores each entry in one transaction, replacing the file's earlier rows.
  void store_files(const std::vector<FileEntry>& entries);
  // Updates the status columns (size, mtime_ns, inode, ctime_ns, read_ns) of files whose content was found
  // unchanged, in one transaction; unknown paths are ignored.
  void update_file_status(const std::vector<FileRow>& rows);
  // Removes the files (and their symbols) with these relative paths; unknown paths are ignored.
  void remove_files(const std::vector<std::string>& paths);
  // Bulk load into an empty index: drops the name index (and empties the search tables, which are kept
  // only beside it) when no file is indexed yet and says whether it did. Inserting names in random order into that index rewrites most of its pages at every commit;
  // building it once after the load is a sort. Until restore_indexes(), name queries scan the table
  // (same results, slower).
  bool defer_name_index();
  // Creates the indexes that are missing (after a bulk load, or one that was cancelled or crashed), and
  // with the name index the search tables. True when the bulk load's connection had gone (the process was
  // killed): the uses of its files went with it, and so their rows are deleted (the index is empty), for
  // the next pass to load them again.
  bool restore_indexes();
  // Moves the uses that live stores and removals keep by file in uses_fresh into uses, in batches of files
  // (each one transaction, its rows in key order, so that each page of uses is written once per batch):
  // at most `batches` of them (0: until none are left). Queries see the same uses before and after.
  // Returns whether some are left.
  bool move_fresh_uses(std::size_t batches = 0);
  // How many files' uses are kept in uses_fresh.
  std::int64_t fresh_uses_files();

  // --- queries (own read connections, cached) ---
  // The best matches of a name search, ranked (see symbol_match.h), and how many matched. A path filter
  // selects a directory or file ("src" takes "src/a.c", not "srcx/a.c"), or, holding "*", "?" or "[",
  // the files its glob matches ("*" also matches "/"). A negative limit means no limit.
  SymbolSearch find_symbols(const SymbolQuery& query);
  // The hits of find_symbols.
  std::vector<SymbolHit> search_symbols(const SymbolQuery& query);
  // One file (a relative path) with its symbols in the indexer's order (outer definitions before those
  // they contain); absent when it is not indexed. Not cached.
  std::optional<FileEntry> file_symbols(const std::string& path);
  // Files under a directory (or that file), ordered by path; all of them for an empty prefix.
  std::vector<FileRow> list_files(const std::string& path_prefix = "");
  // A page of the uses of a name, and how many there are (see UsesQuery). The files of the page's
  // definitions are read from `texts` (the index finds their places by line and column). Not cached.
  UsesPage find_uses(const UsesQuery& query, SourceFiles& texts);
  // The includes and imports whose stem (import_stem) is one of `stems`, by importing file. Not cached.
  std::vector<ImportHit> imports_by_stem(const std::vector<std::string>& stems);
  Counts counts();
  // counts().files alone: an answer that only tells whether anything is indexed yet should not count every
  // symbol row (tens of milliseconds on a large index) after each write.
  std::int64_t file_count();

  // Replaces the live index with the one in the staging file, in one transaction on the writer
  // connection (attach read-only, check the schema version, replace the rows, commit, detach). Any
  // failure rolls back and leaves the live index exactly as it was; readers see the old index or the new
  // one, never a mix. Returns the rows copied.
  virtual Counts swap_index_from(const std::filesystem::path& staging_path);
  // Drops every cached query result.
  virtual void clear_query_cache();
  // Hands back the page caches of the writer and of the idle read connections (they fill again as
  // queries read): after a pass or a swap, whose pages no search is likely to need.
  void release_memory();
  // Timing of the last swap_index_from that succeeded (zeros before the first).
  SwapTiming last_swap_timing() const;

 private:
  struct Impl;
  std::shared_ptr<Database> db_;
  std::unique_ptr<Impl> impl_;
};

}  // namespace brenloc::storage
