// Opening the store.
//
// Each process has one connection, opened at the first call and used under a mutex. SQLite
// connections and their file locks do not survive a fork(). So the connection is closed right
// before a fork, and the next call of either process opens its own. Nothing is written back at
// close: whoever opens the store next finds what the write-ahead log holds.

#include "store.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string_view>

#include "cfmapi.h"

namespace cfm {
namespace {

constexpr mode_t kDirectoryMode = 0770;
constexpr mode_t kFileMode = 0660;

// SQLite copies the log into the database every 1000 pages, about 4 MB, and then begins it anew.
// When a large transaction or a long reader has made it longer than this, it is then cut to this
// size.
#define CFM_LOG_LIMIT "5242880"

pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_once_t g_fork_handlers = PTHREAD_ONCE_INIT;
sqlite3 *g_db;

void close_connection() {
  sqlite3_close(g_db);
  g_db = nullptr;
}

void before_fork() {
  pthread_mutex_lock(&g_mutex);
  close_connection();
}

void after_fork() {
  pthread_mutex_unlock(&g_mutex);
}

void install_fork_handlers() {
  pthread_atfork(before_fork, after_fork, after_fork);
}

// Holds the lock for creating a store, so that two processes do not both create one.
class CreationLock {
 public:
  CreationLock() {
    if (::mkdir(CFM_STORE_DIRECTORY, kDirectoryMode) == 0) {
      ::chmod(CFM_STORE_DIRECTORY, kDirectoryMode);
    }
    fd_ = ::open(CFM_STORE_DIRECTORY, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd_ >= 0) ::flock(fd_, LOCK_EX);
  }
  CreationLock(const CreationLock &) = delete;
  CreationLock &operator=(const CreationLock &) = delete;
  ~CreationLock() {
    if (fd_ >= 0) ::close(fd_);
  }

 private:
  int fd_;
};

// SQLite gives its log files the mode of the database file, so only that one is made here.
void create_file() {
  const int fd =
      ::open(CFM_STORE_PATH, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, kFileMode);
  if (fd < 0) return;
  ::fchmod(fd, kFileMode);
  ::close(fd);
}

// When a file cannot be opened for writing at the moment (too many open files, say), SQLite opens
// it for reading and stays with that. A process that may write must not stay so.
bool is_needlessly_read_only(sqlite3 *db) {
  return sqlite3_db_readonly(db, "main") == 1 &&
         ::faccessat(AT_FDCWD, CFM_STORE_PATH, W_OK, AT_EACCESS) == 0;
}

uint32_t open_connection(sqlite3 **out) {
  sqlite3 *db = nullptr;
  constexpr int kFlags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_PRIVATECACHE;
  int result = sqlite3_open_v2(CFM_STORE_PATH, &db, kFlags, nullptr);
  if (result == SQLITE_OK) {
    harden(db);
    sqlite3_busy_timeout(db, CFM_BUSY_TIMEOUT_MS);
    sqlite3_db_config(db, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    result = execute(db,
                     "PRAGMA synchronous=NORMAL; PRAGMA temp_store=MEMORY;"
                     "PRAGMA journal_size_limit=" CFM_LOG_LIMIT ";");
  }
  uint32_t status = result == SQLITE_OK ? check_identity(db, "main") : status_of(result);
  if (result == SQLITE_OK && is_needlessly_read_only(db)) {
    result = SQLITE_CANTOPEN;
    status = CFM_ERR_UNAVAILABLE;
  }
  if (result == SQLITE_OK && (status == CFM_OK || status == CFM_ERR_UNAVAILABLE)) {
    *out = db;
  } else {
    sqlite3_close(db);
  }
  return status;
}

// An empty file counts as no store: a process that dies while it creates one leaves such a file.
uint32_t open_store(Open how) {
  sqlite3 *db = nullptr;
  uint32_t status = open_connection(&db);
  if (status == CFM_ERR_UNAVAILABLE && how == Open::kCreate) {
    sqlite3_close(db);
    db = nullptr;
    const CreationLock lock;
    create_file();
    status = open_connection(&db);
    if (db != nullptr && status == CFM_ERR_UNAVAILABLE) {
      int result = execute(db, "PRAGMA journal_mode=WAL");
      if (result == SQLITE_OK) result = create_schema(db);
      status = status_of(result);
    }
  }
  if (status == CFM_OK) {
    g_db = db;
  } else {
    sqlite3_close(db);
  }
  return status;
}

int pragma_number(sqlite3 *db, const char *schema, const char *pragma) {
  char sql[64];
  std::snprintf(sql, sizeof sql, "PRAGMA %s.%s", schema, pragma);
  Statement statement(db, sql);
  return statement.step() == SQLITE_ROW ? static_cast<int>(statement.number(0)) : -1;
}

}  // namespace

// The rules for values are in the tables, so that no row breaks them, however it comes in.
const char kSchema[] =
    "CREATE TABLE value("
    "layer INTEGER NOT NULL CHECK(layer BETWEEN 0 AND 1),"
    "area INTEGER NOT NULL CHECK(area BETWEEN 0 AND 2),"
    "object INTEGER NOT NULL CHECK(object BETWEEN 0 AND 4294967295),"
    "instance INTEGER NOT NULL CHECK(instance BETWEEN 0 AND 4294967295),"
    "id INTEGER NOT NULL CHECK(id BETWEEN 0 AND 4294967295),"
    "type INTEGER NOT NULL CHECK(type BETWEEN 0 AND 2),"
    "size INTEGER NOT NULL CHECK(size BETWEEN 1 AND 65536),"
    "data NOT NULL,"
    "CHECK((object = 0) = (instance = 0)),"
    "CHECK(object = 0 OR area = 0),"
    "CHECK(CASE type"
    " WHEN 0 THEN typeof(data) = 'integer' AND size = 4 AND data BETWEEN 0 AND 4294967295"
    " WHEN 1 THEN typeof(data) = 'blob' AND length(data) < size AND instr(data, x'00') = 0"
    " ELSE typeof(data) = 'blob' AND length(data) <= size END),"
    "PRIMARY KEY(layer, area, object, instance, id)) WITHOUT ROWID;"
    "CREATE TABLE instance("
    "layer INTEGER NOT NULL CHECK(layer BETWEEN 0 AND 1),"
    "object INTEGER NOT NULL CHECK(object BETWEEN 1 AND 4294967295),"
    "number INTEGER NOT NULL CHECK(number BETWEEN 1 AND 4294967295),"
    "PRIMARY KEY(layer, object, number)) WITHOUT ROWID;"
    "PRAGMA application_id=1128680753; PRAGMA user_version=1;";
static_assert(kApplicationId == 1128680753 && kSchemaVersion == 1);

uint32_t status_of(int result) {
  switch (result & 0xFF) {
    case SQLITE_OK:
    case SQLITE_ROW:
    case SQLITE_DONE:
      return CFM_OK;
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    case SQLITE_CONSTRAINT:  // values were checked before, so the row came from a bad image
    case SQLITE_ERROR:       // our own statements fail only on tables that are not ours
      return CFM_ERR_DAMAGED;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return CFM_ERR_BUSY;
    case SQLITE_NOMEM:
      return CFM_ERR_MEMORY;
    default:
      return CFM_ERR_UNAVAILABLE;
  }
}

int execute(sqlite3 *db, const char *sql) {
  return sqlite3_exec(db, sql, nullptr, nullptr, nullptr);
}

int create_schema(sqlite3 *db) {
  Transaction transaction(db, Transaction::Kind::kWrite);
  if (transaction.result() != SQLITE_OK) return transaction.result();
  const int result = execute(db, kSchema);
  return result == SQLITE_OK ? transaction.commit() : result;
}

uint32_t check_identity(sqlite3 *db, const char *schema) {
  char sql[64];
  std::snprintf(sql, sizeof sql, "SELECT count(*) FROM %s.sqlite_schema", schema);
  Statement tables(db, sql);
  const int result = tables.step();
  if (result != SQLITE_ROW) return status_of(result);

  const int application = pragma_number(db, schema, "application_id");
  const int version = pragma_number(db, schema, "user_version");
  if (application == 0 && version == 0 && tables.number(0) == 0) return CFM_ERR_UNAVAILABLE;
  if (application != kApplicationId || version < kSchemaVersion) return CFM_ERR_DAMAGED;
  return version == kSchemaVersion ? CFM_OK : CFM_ERR_VERSION;
}

uint32_t check_integrity(sqlite3 *db, const char *schema) {
  char sql[64];
  std::snprintf(sql, sizeof sql, "PRAGMA %s.integrity_check(1)", schema);
  Statement check(db, sql);
  const int result = check.step();
  if (result != SQLITE_ROW) return status_of(result);
  const std::span<const char> answer = check.bytes(0);
  return std::string_view(answer.data(), answer.size()) == "ok" ? CFM_OK : CFM_ERR_DAMAGED;
}

void harden(sqlite3 *db) {
  sqlite3_db_config(db, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(db, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  sqlite3_db_config(db, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
  execute(db, "PRAGMA cell_size_check=ON");
}

Session::Session(Open open) {
  pthread_once(&g_fork_handlers, install_fork_handlers);
  pthread_mutex_lock(&g_mutex);
  status_ = g_db != nullptr ? CFM_OK : open_store(open);
  db_ = g_db;
}

Session::~Session() {
  // SQLite also opens the log files for reading when opening them for writing failed. The next call
  // tries again; for a process that may only read, the result is the same. And a transaction that
  // could not even be rolled back, for want of memory, would be in the way of every later one.
  const bool unfit = g_db != nullptr && ((sqlite3_errcode(g_db) & 0xFF) == SQLITE_READONLY ||
                                         sqlite3_get_autocommit(g_db) == 0);
  if (unfit) close_connection();
  pthread_mutex_unlock(&g_mutex);
}

}  // namespace cfm
