// SQLite as the spool uses it: a database for this process alone, prepared statements, and errors
// as exceptions.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <stdexcept>
#include <string>

namespace msgbridge {

struct DiskError : std::runtime_error {
  DiskError(int result, const std::string &what) : std::runtime_error(what), code(result & 0xff) {}

  // The file is damaged or no database: no retry will mend it.
  bool is_damage() const { return code == SQLITE_CORRUPT || code == SQLITE_NOTADB; }

  int code;  // SQLite's primary result code
};

struct FinalizeStatement {
  void operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

// Must outlive its statements: while one of them is left, the connection and its lock stay.
class Database {
 public:
  // With `sync` every commit reaches the disk, otherwise only the kernel.
  Database(const std::string &path, bool sync);
  Database(const Database &) = delete;
  Database &operator=(const Database &) = delete;

  Statement prepare(const char *sql) const;
  void execute(const char *sql) const;
  int64_t number(const char *query) const;
  bool in_transaction() const { return sqlite3_get_autocommit(db_.get()) == 0; }

 private:
  struct Close {
    void operator()(sqlite3 *db) const { sqlite3_close(db); }
  };

  std::unique_ptr<sqlite3, Close> db_;
};

// One run of a statement.
class Query {
 public:
  Query(const Statement &statement, std::initializer_list<int64_t> numbers);
  ~Query();
  Query(const Query &) = delete;
  Query &operator=(const Query &) = delete;

  // The texts must stay alive until the statement has run.
  void bind_text(int index, const std::string &text);
  void bind_blob(int index, const std::string &bytes);
  // True when there is a row to read.
  bool step();
  int64_t number(int column) const { return sqlite3_column_int64(statement_, column); }
  uint64_t count(int column) const { return static_cast<uint64_t>(number(column)); }
  std::string text(int column) const;

 private:
  void check(int result) const;

  sqlite3_stmt *statement_;
};

}  // namespace msgbridge
