// One SQLite index database file (WAL mode, busy timeout, versioned schema).
//
// The Database owns the writer connection of its file. Its operations may be called from different
// threads one after another (opened on one, checkpointed on a second, closed on a third); an internal
// mutex makes each call safe, and two threads never use the connection at once. Readers use their own
// connections (see Repository), so they never wait for the writer.
//
// Virtual so that tests can make one step fail over a real file; the daemon uses this class as is.
#pragma once

#include <sqlite3.h>

#include <filesystem>
#include <functional>
#include <mutex>
#include <string>

namespace brenloc::storage {

// The schema version written to PRAGMA user_version by create_schema().
inline constexpr int kSchemaVersion = 13;

// Whether the writer connection syncs the file to disk. `synced`: a crash of the machine may lose the
// last commits but never leaves a corrupt file. `unsynced`: nothing is synced, which a bulk load into a
// scratch database (one that is deleted unread after any crash) does not need and pays dearly for; a crash
// of the process still loses nothing, a crash of the machine may leave the file corrupt.
enum class Durability { synced, unsynced };

class Database {
 public:
  explicit Database(std::filesystem::path path, Durability durability = Durability::synced);
  virtual ~Database();  // closes the connection if still open
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  // Opens the writer connection (creating the file), WAL mode, busy timeout. Throws StorageError.
  virtual void connect();
  // Creates the tables and indexes if missing and sets user_version; idempotent. An index of an older
  // version is dropped (it is rebuilt by the next reindex). Throws on a file whose user_version is newer
  // than kSchemaVersion.
  virtual void create_schema();
  // Closes the writer connection; a closed database may be closed again.
  virtual void close();
  // Runs one or more statements on the writer connection; result rows are ignored.
  virtual void execute(const std::string& sql);

  const std::filesystem::path& path() const { return path_; }
  bool is_open() const;

  // Runs `fn` with the writer connection under the database's mutex. Throws when not connected.
  void with_connection(const std::function<void(sqlite3*)>& fn);

 private:
  std::filesystem::path path_;
  Durability durability_;
  mutable std::mutex mu_;
  sqlite3* db_ = nullptr;
};

}  // namespace brenloc::storage
