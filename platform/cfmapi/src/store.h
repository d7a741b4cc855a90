// The connection of this process to the store, and the few SQLite helpers that all calls share.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <span>

#include "cfmapi.h"

namespace cfm {

enum class Open {
  kExisting,  // a missing store is CFM_ERR_UNAVAILABLE
  kCreate,
};

// The tables of a store and of an image of one. Layer 0 holds what is in force, layer 1 the
// defaults.
extern const char kSchema[];
// Written into every database, so that a foreign file is recognised.
constexpr int kApplicationId = 0x43464D31;
constexpr int kSchemaVersion = 1;

// The CFM_ERR_... status for what an SQLite call returned.
uint32_t status_of(int result);

// Exclusive use of the process's connection for as long as it lives. Opens the store when it is
// not open.
class Session {
 public:
  explicit Session(Open open = Open::kExisting);
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;
  ~Session();

  uint32_t status() const { return status_; }
  sqlite3 *db() const { return db_; }

 private:
  uint32_t status_;
  sqlite3 *db_ = nullptr;
};

// One prepared statement. A failure to prepare or bind shows as the result of step().
class Statement {
 public:
  Statement(sqlite3 *db, const char *sql) {
    result_ = sqlite3_prepare_v2(db, sql, -1, &statement_, nullptr);
  }
  Statement(const Statement &) = delete;
  Statement &operator=(const Statement &) = delete;
  ~Statement() { sqlite3_finalize(statement_); }

  // Binds the next parameters. Bytes must stay where they are until the last step.
  Statement &bind(int64_t number) {
    if (result_ == SQLITE_OK) result_ = sqlite3_bind_int64(statement_, next_++, number);
    return *this;
  }
  Statement &bind(std::span<const char> bytes) {
    // An empty blob also needs a pointer: null would bind NULL.
    const char *data = bytes.empty() ? "" : bytes.data();
    if (result_ == SQLITE_OK) {
      result_ = sqlite3_bind_blob64(statement_, next_++, data, bytes.size(), SQLITE_STATIC);
    }
    return *this;
  }

  // SQLITE_ROW, SQLITE_DONE or an error.
  int step() {
    if (result_ == SQLITE_OK || result_ == SQLITE_ROW) result_ = sqlite3_step(statement_);
    return result_;
  }
  // Makes the statement ready for the next parameters.
  void again() {
    result_ = sqlite3_reset(statement_);
    next_ = 1;
  }

  uint32_t number(int column) const {
    return static_cast<uint32_t>(sqlite3_column_int64(statement_, column));
  }
  int64_t number64(int column) const { return sqlite3_column_int64(statement_, column); }
  bool is_blob(int column) const { return sqlite3_column_type(statement_, column) == SQLITE_BLOB; }
  std::span<const char> bytes(int column) const {
    const void *data = sqlite3_column_blob(statement_, column);
    return {static_cast<const char *>(data),
            static_cast<size_t>(sqlite3_column_bytes(statement_, column))};
  }

 private:
  sqlite3_stmt *statement_ = nullptr;
  int result_;
  int next_ = 1;
};

// Runs statements that give no rows.
int execute(sqlite3 *db, const char *sql);

// A transaction that is rolled back unless it was committed.
class Transaction {
 public:
  enum class Kind { kRead, kWrite };
  Transaction(sqlite3 *db, Kind kind)
      : db_(db), result_(execute(db, kind == Kind::kRead ? "BEGIN" : "BEGIN IMMEDIATE")) {}
  Transaction(const Transaction &) = delete;
  Transaction &operator=(const Transaction &) = delete;
  ~Transaction() {
    if (result_ == SQLITE_OK && sqlite3_get_autocommit(db_) == 0) execute(db_, "ROLLBACK");
  }

  int result() const { return result_; }
  int commit() { return execute(db_, "COMMIT"); }

 private:
  sqlite3 *db_;
  int result_;
};

// Creates the tables in the empty database `db` and marks it as a store.
int create_schema(sqlite3 *db);

// CFM_OK when `schema` of `db` is a store of this version. An empty database is
// CFM_ERR_UNAVAILABLE.
uint32_t check_identity(sqlite3 *db, const char *schema);

// CFM_OK when every page and row of `schema` is sound.
uint32_t check_integrity(sqlite3 *db, const char *schema);

// Lists the instances of one object, or of all with object 0, as ORP_DBGetNumOfObjs does.
uint32_t list_instances(uint32_t object, uint32_t *count, ORP_DB_KEY_ST **instances);

// The settings of every connection: files are read as if they were hostile.
void harden(sqlite3 *db);

struct FreeDeleter {
  void operator()(void *block) const { std::free(block); }
};
// A block that leaves the library by release() and is freed with free().
template <typename T>
using Owned = std::unique_ptr<T, FreeDeleter>;

}  // namespace cfm
