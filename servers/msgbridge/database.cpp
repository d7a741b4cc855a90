#include "msgbridge/database.h"

namespace msgbridge {
namespace {

// SQLite writes the log back to the database when it has wal_autocheckpoint pages, and then begins
// it anew.
constexpr const char *kSettings =
    "PRAGMA locking_mode=EXCLUSIVE; PRAGMA journal_mode=WAL; PRAGMA temp_store=MEMORY;"
    "PRAGMA cache_size=-256; PRAGMA wal_autocheckpoint=64; PRAGMA mmap_size=0;"
    "PRAGMA secure_delete=OFF;";

}  // namespace

Database::Database(const std::string &path, bool sync) {
  sqlite3 *db = nullptr;
  const int result = sqlite3_open_v2(
      path.c_str(), &db,
      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE,
      nullptr);
  db_.reset(db);
  if (result != SQLITE_OK) {
    throw DiskError(result, db == nullptr ? "no memory" : sqlite3_errmsg(db));
  }
  sqlite3_db_config(db, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(db, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  execute(kSettings);
  execute(sync ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=NORMAL");
  // The log keeps its space, so that it can still be written when others have filled the disk.
  int keep = 1;
  sqlite3_file_control(db, "main", SQLITE_FCNTL_PERSIST_WAL, &keep);
}

Statement Database::prepare(const char *sql) const {
  sqlite3_stmt *made = nullptr;
  const int result =
      sqlite3_prepare_v3(db_.get(), sql, -1, SQLITE_PREPARE_PERSISTENT, &made, nullptr);
  Statement statement(made);
  if (result != SQLITE_OK) throw DiskError(result, sqlite3_errmsg(db_.get()));
  return statement;
}

void Database::execute(const char *sql) const {
  const int result = sqlite3_exec(db_.get(), sql, nullptr, nullptr, nullptr);
  if (result != SQLITE_OK) throw DiskError(result, sqlite3_errmsg(db_.get()));
}

int64_t Database::number(const char *query) const {
  const Statement statement = prepare(query);
  Query run(statement, {});
  return run.step() ? run.number(0) : 0;
}

Query::Query(const Statement &statement, std::initializer_list<int64_t> numbers)
    : statement_(statement.get()) {
  int index = 0;
  for (const int64_t number : numbers) check(sqlite3_bind_int64(statement_, ++index, number));
}

Query::~Query() {
  sqlite3_reset(statement_);
  sqlite3_clear_bindings(statement_);
}

void Query::bind_text(int index, const std::string &text) {
  check(
      sqlite3_bind_text64(statement_, index, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8));
}

void Query::bind_blob(int index, const std::string &bytes) {
  check(sqlite3_bind_blob64(statement_, index, bytes.data(), bytes.size(), SQLITE_STATIC));
}

bool Query::step() {
  const int result = sqlite3_step(statement_);
  if (result == SQLITE_ROW) return true;
  if (result != SQLITE_DONE) check(result);
  return false;
}

std::string Query::text(int column) const {
  const auto *bytes = static_cast<const char *>(sqlite3_column_blob(statement_, column));
  const auto size = static_cast<size_t>(sqlite3_column_bytes(statement_, column));
  return bytes == nullptr ? std::string() : std::string(bytes, size);
}

void Query::check(int result) const {
  if (result == SQLITE_OK) return;
  throw DiskError(result, sqlite3_errmsg(sqlite3_db_handle(statement_)));
}

}  // namespace msgbridge
