#include "brenloc/storage/database.h"

#include <atomic>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "brenloc/storage/errors.h"
#include "storage/storage_fixture.h"

namespace brenloc::storage {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using storage::testing::open_database;
using storage::testing::TempDir;

std::int64_t scalar(Database& db, const std::string& sql) {
  std::int64_t value = -1;
  db.with_connection([&](sqlite3* c) {
    sqlite3_stmt* stmt = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(c, sql.c_str(), -1, &stmt, nullptr), SQLITE_OK) << sqlite3_errmsg(c);
    if (sqlite3_step(stmt) == SQLITE_ROW) value = sqlite3_column_int64(stmt, 0);
    sqlite3_finalize(stmt);
  });
  return value;
}

std::string text_scalar(Database& db, const std::string& sql) {
  std::string value;
  db.with_connection([&](sqlite3* c) {
    sqlite3_stmt* stmt = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(c, sql.c_str(), -1, &stmt, nullptr), SQLITE_OK) << sqlite3_errmsg(c);
    if (sqlite3_step(stmt) == SQLITE_ROW) value = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0));
    sqlite3_finalize(stmt);
  });
  return value;
}

TEST(Database, ConnectsInWalModeWithABusyTimeout) {
  TempDir dir;
  Database db(dir / "index.db");
  EXPECT_FALSE(db.is_open());
  db.connect();
  EXPECT_TRUE(db.is_open());
  EXPECT_EQ(text_scalar(db, "PRAGMA journal_mode"), "wal");
  EXPECT_GT(scalar(db, "PRAGMA busy_timeout"), 0);
}

TEST(Database, CreateSchemaIsIdempotentAndSurvivesReopening) {
  TempDir dir;
  auto path = dir / "index.db";
  {
    auto db = open_database(path);
    db->create_schema();
    EXPECT_EQ(scalar(*db, "PRAGMA user_version"), kSchemaVersion);
    Repository(db).store_files({testing::file_entry("a.cpp", {testing::symbol("f", "function", 1)})});
    db->close();
  }
  Database db(path);
  db.connect();
  db.create_schema();
  db.create_schema();
  EXPECT_EQ(scalar(db, "PRAGMA user_version"), kSchemaVersion);
  EXPECT_EQ(scalar(db, "SELECT count(*) FROM files"), 1);
  EXPECT_EQ(scalar(db, "SELECT count(*) FROM symbols"), 1);
  EXPECT_EQ(scalar(db, "SELECT count(*) FROM sqlite_schema WHERE type = 'index' AND name LIKE 'symbols_by_%'"), 2);
}

// The schema version found in a file decides whether create_schema accepts it.
TEST(Database, CreateSchemaChecksTheVersionOfTheFile) {
  struct Case {
    int found;
    bool accepted;
  };
  for (auto c : {Case{0, true}, Case{kSchemaVersion, true}, Case{kSchemaVersion + 1, false}, Case{99, false}}) {
    SCOPED_TRACE(c.found);
    TempDir dir;
    Database db(dir / "index.db");
    db.connect();
    db.execute(fmt::format("PRAGMA user_version = {}", c.found));
    if (c.accepted) {
      db.create_schema();
      EXPECT_EQ(scalar(db, "PRAGMA user_version"), kSchemaVersion);
    } else {
      try {
        db.create_schema();
        ADD_FAILURE() << "no error";
      } catch (const StorageError& e) {
        EXPECT_THAT(e.what(), HasSubstr((dir / "index.db").string()));
        EXPECT_THAT(e.what(), HasSubstr(fmt::format("schema version {} is newer", c.found)));
      }
      // Nothing was created and the version was left alone.
      EXPECT_EQ(scalar(db, "PRAGMA user_version"), c.found);
      EXPECT_EQ(scalar(db, "SELECT count(*) FROM sqlite_schema"), 0);
    }
  }
}

TEST(Database, CloseIsIdempotentAndAClosedDatabaseRefusesWork) {
  TempDir dir;
  auto db = open_database(dir / "index.db");
  db->close();
  db->close();
  EXPECT_FALSE(db->is_open());
  for (auto call : std::vector<std::function<void()>>{[&] { db->execute("SELECT 1"); }, [&] { db->create_schema(); },
                                                      [&] { db->with_connection([](sqlite3*) {}); }}) {
    try {
      call();
      ADD_FAILURE() << "no error";
    } catch (const StorageError& e) {
      EXPECT_THAT(e.what(), HasSubstr("index.db"));
      EXPECT_THAT(e.what(), HasSubstr("not connected"));
    }
  }
  db->connect();  // a closed database may be opened again
  EXPECT_EQ(scalar(*db, "PRAGMA user_version"), kSchemaVersion);
}

TEST(Database, ConnectFailureNamesTheFile) {
  TempDir dir;
  Database db(dir / "missing-dir" / "index.db");
  try {
    db.connect();
    FAIL() << "no error";
  } catch (const StorageError& e) {
    EXPECT_THAT(e.what(), HasSubstr((dir / "missing-dir" / "index.db").string()));
    EXPECT_THAT(e.what(), HasSubstr("opening the database"));
    EXPECT_THAT(e.what(), HasSubstr("unable to open"));
    EXPECT_EQ(e.code() & 0xff, SQLITE_CANTOPEN);
  }
  EXPECT_FALSE(db.is_open());
}

TEST(Database, ExecuteRunsEveryStatementAndStepsThroughRows) {
  TempDir dir;
  auto db = open_database(dir / "index.db");
  db->execute("CREATE TABLE t(x); INSERT INTO t VALUES (1); SELECT * FROM t; INSERT INTO t VALUES (2);");
  EXPECT_EQ(scalar(*db, "SELECT count(*) FROM t"), 2);

  // The checkpoint returns a row; the log is empty only if the statement really ran to its end.
  Repository(db).store_files(testing::generated_entries("x", 20, 20));
  auto wal = fs::path(dir / "index.db-wal");
  ASSERT_GT(fs::file_size(wal), 0u);
  db->execute("PRAGMA wal_checkpoint(TRUNCATE)");
  EXPECT_EQ(fs::file_size(wal), 0u);
}

TEST(Database, ExecuteErrorsQuoteTheStatementAndSqlitesMessage) {
  TempDir dir;
  auto db = open_database(dir / "index.db");
  struct Case {
    std::string sql;
    std::string message;
  };
  for (const auto& c : {Case{"SELEC 1", "syntax error"}, Case{"SELECT * FROM nowhere", "no such table: nowhere"},
                        Case{"INSERT INTO files(path) VALUES ('a')", "NOT NULL constraint failed"}}) {
    try {
      db->execute(c.sql);
      ADD_FAILURE() << c.sql;
    } catch (const StorageError& e) {
      EXPECT_THAT(e.what(), HasSubstr((dir / "index.db").string()));
      EXPECT_THAT(e.what(), HasSubstr("\"" + c.sql + "\""));
      EXPECT_THAT(e.what(), HasSubstr(c.message));
    }
  }
  // A failed statement leaves no transaction open behind it.
  db->execute("BEGIN; COMMIT;");
}

// Opened on one thread, written on a second, checkpointed on a third, closed on a fourth: each call
// happens after the previous one, as a rebuild hands its staging database around.
TEST(Database, HandedFromThreadToThread) {
  TempDir dir;
  auto db = std::make_shared<Database>(dir / "staging.db");
  std::uintmax_t wal_after_checkpoint = 1;
  std::vector<std::function<void()>> steps = {
      [&] {
        db->connect();
        db->create_schema();
      },
      [&] { Repository(db).store_files(testing::generated_entries("t", 10, 10)); },
      [&] {
        db->execute("PRAGMA wal_checkpoint(TRUNCATE)");
        wal_after_checkpoint = fs::file_size(dir / "staging.db-wal");
      },
      [&] { db->close(); },
  };
  for (auto& step : steps) std::thread(step).join();
  EXPECT_EQ(wal_after_checkpoint, 0u);
  EXPECT_FALSE(db->is_open());
  auto reopened = open_database(dir / "staging.db");
  EXPECT_EQ(Repository(reopened).counts().symbols, 100);
}

// Several threads at once are serialised by the database's own lock.
TEST(Database, CallsFromSeveralThreadsAtOnceAreSerialised) {
  TempDir dir;
  auto db = open_database(dir / "index.db");
  db->execute("CREATE TABLE t(x)");
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 50; ++i) {
        db->execute(fmt::format("INSERT INTO t VALUES ({})", t * 100 + i));
        if (i % 10 == 0) db->execute("PRAGMA wal_checkpoint(PASSIVE)");
        (void)db->is_open();
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(scalar(*db, "SELECT count(DISTINCT x) FROM t"), 200);
}

}  // namespace
}  // namespace brenloc::storage
