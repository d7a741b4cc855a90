// Looking after the store: definitions, defaults, walks, images.
//
// An image is a database of its own in memory, with the same tables and rules. So export and import
// are statements that copy rows, and every rule of the tables holds for imported rows. Before its
// rows are read, an image must have exactly our tables: nothing else in it is ever evaluated.

#include "cfmstore.h"

#include <cstdio>
#include <cstring>
#include <string_view>

#include "store.h"

namespace cfm {
namespace {

constexpr int kCurrent = 0;
constexpr int kDefault = 1;

// No SQLite database is smaller.
constexpr uint32_t kSmallestPage = 512;

uint32_t check_value(const CFM_VALUE &value) {
  const bool in_object = value.object != 0;
  if (value.data == nullptr || value.area > CFM_AREA_EQUIPMENT || value.type > CFM_TYPE_BYTES ||
      in_object != (value.instance != 0) || (in_object && value.area != CFM_AREA_PARAMETER) ||
      value.size == 0 || value.size > CFM_MAX_VALUE_SIZE) {
    return CFM_ERR_ARGUMENT;
  }
  switch (value.type) {
    case CFM_TYPE_NUMBER:
      return value.size == 4 && value.length == 4 ? CFM_OK : CFM_ERR_TYPE;
    case CFM_TYPE_TEXT:
      if (value.length >= value.size) return CFM_ERR_TOO_LONG;
      return std::memchr(value.data, '\0', value.length) == nullptr ? CFM_OK : CFM_ERR_TYPE;
    default:
      return value.length <= value.size ? CFM_OK : CFM_ERR_TOO_LONG;
  }
}

int add_instance(sqlite3 *db, int layer, uint32_t object, uint32_t number) {
  Statement insert(db, "INSERT OR IGNORE INTO instance VALUES(?, ?, ?)");
  return insert.bind(layer).bind(object).bind(number).step();
}

int write_value(sqlite3 *db, int layer, const CFM_VALUE &value) {
  if (value.object != 0) {
    const int result = add_instance(db, layer, value.object, value.instance);
    if (result != SQLITE_DONE) return result;
  }
  Statement insert(db, "INSERT OR REPLACE INTO value VALUES(?, ?, ?, ?, ?, ?, ?, ?)");
  insert.bind(layer).bind(value.area).bind(value.object).bind(value.instance).bind(value.id);
  insert.bind(value.type).bind(value.size);
  if (value.type == CFM_TYPE_NUMBER) {
    uint32_t number;
    std::memcpy(&number, value.data, sizeof number);
    insert.bind(number);
  } else {
    insert.bind(std::span(static_cast<const char *>(value.data), value.length));
  }
  return insert.step();
}

uint32_t define(std::span<const CFM_VALUE> values, bool with_defaults) {
  for (const CFM_VALUE &value : values) {
    const uint32_t status = check_value(value);
    if (status != CFM_OK) return status;
  }

  const Session session(Open::kCreate);
  if (session.status() != CFM_OK) return session.status();
  Transaction transaction(session.db(), Transaction::Kind::kWrite);
  if (transaction.result() != SQLITE_OK) return status_of(transaction.result());
  for (const CFM_VALUE &value : values) {
    int result = write_value(session.db(), kCurrent, value);
    if (result == SQLITE_DONE && with_defaults && value.area != CFM_AREA_EQUIPMENT) {
      result = write_value(session.db(), kDefault, value);
    }
    if (result != SQLITE_DONE) return status_of(result);
  }
  return status_of(transaction.commit());
}

uint32_t remove(uint32_t area, uint32_t object, uint32_t instance, uint32_t id) {
  const Session session;
  if (session.status() != CFM_OK) return session.status();
  Transaction transaction(session.db(), Transaction::Kind::kWrite);
  if (transaction.result() != SQLITE_OK) return status_of(transaction.result());

  Statement values(session.db(),
                   "DELETE FROM value WHERE layer = 0 AND area = ?1 AND object = ?2"
                   " AND instance = ?3 AND (?4 = 0 OR id = ?4)");
  int result = values.bind(area).bind(object).bind(instance).bind(id).step();
  int removed = sqlite3_changes(session.db());
  if (result == SQLITE_DONE && id == 0) {
    Statement entry(session.db(),
                    "DELETE FROM instance WHERE layer = 0 AND object = ? AND number = ?");
    result = entry.bind(object).bind(instance).step();
    removed += sqlite3_changes(session.db());
  }
  if (result != SQLITE_DONE) return status_of(result);
  return removed == 0 ? CFM_ERR_NOT_FOUND : status_of(transaction.commit());
}

// Every value of the store in one block: the array, then the data, each with a NUL behind it.
struct Snapshot {
  Owned<CFM_VALUE> values;
  uint32_t count = 0;
};

uint32_t take_snapshot(Snapshot *out) {
  const Session session;
  if (session.status() != CFM_OK) return session.status();
  const Transaction view(session.db(), Transaction::Kind::kRead);
  if (view.result() != SQLITE_OK) return status_of(view.result());

  // A number takes four bytes; length() would count its digits.
  Statement total(session.db(),
                  "SELECT count(*), ifnull(sum(max(length(data), 4) + 1), 0) FROM value"
                  " WHERE layer = 0");
  int result = total.step();
  if (result != SQLITE_ROW) return status_of(result);
  const size_t expected = total.number(0);
  const size_t room = total.number(1);

  out->values.reset(
      static_cast<CFM_VALUE *>(std::calloc(1, (expected + 1) * sizeof(CFM_VALUE) + room)));
  if (!out->values) return CFM_ERR_MEMORY;
  char *place = reinterpret_cast<char *>(out->values.get() + expected + 1);

  Statement rows(session.db(),
                 "SELECT area, object, instance, id, type, size, data FROM value WHERE layer = 0"
                 " ORDER BY area, object, instance, id");
  while ((result = rows.step()) == SQLITE_ROW && out->count < expected) {
    CFM_VALUE &value = out->values.get()[out->count++];
    value = {rows.number(0), rows.number(1), rows.number(2), rows.number(3),
             rows.number(4), rows.number(5), place,          4};
    if (value.type == CFM_TYPE_NUMBER) {
      const uint32_t number = rows.number(6);
      std::memcpy(place, &number, sizeof number);
    } else {
      const std::span<const char> data = rows.bytes(6);
      if (!data.empty()) std::memcpy(place, data.data(), data.size());
      value.length = static_cast<uint32_t>(data.size());
    }
    place += value.length + 1;
  }
  return status_of(result);
}

uint32_t restore_defaults(const char *statements) {
  const Session session;
  if (session.status() != CFM_OK) return session.status();
  Transaction transaction(session.db(), Transaction::Kind::kWrite);
  if (transaction.result() != SQLITE_OK) return status_of(transaction.result());
  const int result = execute(session.db(), statements);
  return status_of(result == SQLITE_OK ? transaction.commit() : result);
}

// Frees what SQLite hands over.
struct SqliteFree {
  void operator()(void *block) const { sqlite3_free(block); }
};
using SqliteBlock = std::unique_ptr<unsigned char, SqliteFree>;

// A private database in memory.
class Scratch {
 public:
  Scratch() {
    if (sqlite3_open_v2(":memory:", &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr) !=
        SQLITE_OK) {
      sqlite3_close(db_);
      db_ = nullptr;
    } else {
      harden(db_);
    }
  }
  Scratch(const Scratch &) = delete;
  Scratch &operator=(const Scratch &) = delete;
  ~Scratch() { sqlite3_close(db_); }

  sqlite3 *db() const { return db_; }

 private:
  sqlite3 *db_ = nullptr;
};

constexpr char kValueColumns[] = "layer, area, object, instance, id, type, size, data";

// Whether the database `db` of an image has the tables of a store and nothing else: compares it
// with a fresh one.
uint32_t check_tables(sqlite3 *db) {
  const Scratch fresh;
  if (fresh.db() == nullptr) return CFM_ERR_MEMORY;
  int result = execute(fresh.db(), kSchema);
  if (result != SQLITE_OK) return status_of(result);

  constexpr char kTables[] =
      "SELECT type || ' ' || name || ' ' || sql FROM sqlite_schema ORDER BY 1";
  Statement expected(fresh.db(), kTables);
  Statement found(db, kTables);
  for (;;) {
    const int wanted = expected.step();
    result = found.step();
    if (result != wanted) return result == SQLITE_ROW ? CFM_ERR_DAMAGED : status_of(result);
    if (result != SQLITE_ROW) return status_of(result);
    const auto text = [](const Statement &row) {
      return std::string_view(row.bytes(0).data(), row.bytes(0).size());
    };
    if (text(expected) != text(found)) return CFM_ERR_DAMAGED;
  }
}

// Opens a copy of the image in `scratch` and verifies everything about it.
uint32_t open_image(const Scratch &scratch, const void *image, uint32_t size) {
  if (scratch.db() == nullptr) return CFM_ERR_MEMORY;
  if (size < kSmallestPage) return CFM_ERR_DAMAGED;
  // SQLite takes over the copy, also when the call fails.
  auto *copy = static_cast<unsigned char *>(sqlite3_malloc64(size));
  if (copy == nullptr) return CFM_ERR_MEMORY;
  std::memcpy(copy, image, size);
  const int result =
      sqlite3_deserialize(scratch.db(), "main", copy, size, size,
                          SQLITE_DESERIALIZE_FREEONCLOSE | SQLITE_DESERIALIZE_READONLY);
  if (result != SQLITE_OK) return status_of(result);

  // Bytes that cannot even be opened, an empty file included, are no image.
  uint32_t status = check_identity(scratch.db(), "main");
  if (status == CFM_ERR_UNAVAILABLE) status = CFM_ERR_DAMAGED;
  if (status == CFM_OK) status = check_tables(scratch.db());
  if (status == CFM_OK) status = check_integrity(scratch.db(), "main");
  return status;
}

// Copies rows from one database to another, where the rules of the tables apply.
int copy_rows(sqlite3 *from, const char *select, sqlite3 *to, const char *insert, int columns) {
  Statement rows(from, select);
  Statement target(to, insert);
  int result;
  while ((result = rows.step()) == SQLITE_ROW) {
    target.again();
    for (int column = 0; column < columns; ++column) {
      // Only `data` may be a blob.
      if (rows.is_blob(column)) {
        target.bind(rows.bytes(column));
      } else {
        target.bind(rows.number64(column));
      }
    }
    const int written = target.step();
    if (written != SQLITE_DONE) return written;
  }
  return result;
}

// Parameters, instances and application data with their defaults.
int copy_store(sqlite3 *from, sqlite3 *to) {
  char values[160];
  std::snprintf(values, sizeof values, "SELECT %s FROM value WHERE area <> 2", kValueColumns);
  int result = copy_rows(from, values, to, "INSERT INTO value VALUES(?, ?, ?, ?, ?, ?, ?, ?)", 8);
  if (result == SQLITE_DONE) {
    result = copy_rows(from, "SELECT layer, object, number FROM instance", to,
                       "INSERT INTO instance VALUES(?, ?, ?)", 3);
  }
  return result;
}

uint32_t export_image(void **image, uint32_t *size) {
  const Scratch scratch;
  if (scratch.db() == nullptr) return CFM_ERR_MEMORY;
  int result = execute(scratch.db(), kSchema);
  if (result != SQLITE_OK) return status_of(result);
  {
    const Session session;
    if (session.status() != CFM_OK) return session.status();
    const Transaction view(session.db(), Transaction::Kind::kRead);
    if (view.result() != SQLITE_OK) return status_of(view.result());
    Transaction filling(scratch.db(), Transaction::Kind::kWrite);
    if (filling.result() != SQLITE_OK) return status_of(filling.result());
    result = copy_store(session.db(), scratch.db());
    if (result == SQLITE_DONE) result = filling.commit();
  }
  if (status_of(result) != CFM_OK) return status_of(result);

  sqlite3_int64 length = 0;
  const SqliteBlock bytes(sqlite3_serialize(scratch.db(), "main", &length, 0));
  if (!bytes || length > UINT32_MAX) return CFM_ERR_MEMORY;
  *image = std::malloc(static_cast<size_t>(length));
  if (*image == nullptr) return CFM_ERR_MEMORY;
  std::memcpy(*image, bytes.get(), static_cast<size_t>(length));
  *size = static_cast<uint32_t>(length);
  return CFM_OK;
}

// The rows go through a scratch store first, because an image may be a sound database and still
// break our rules. The store itself is not touched.
uint32_t check_image(const Scratch &checked, const void *image, uint32_t size) {
  if (checked.db() == nullptr) return CFM_ERR_MEMORY;
  const Scratch opened;
  const uint32_t status = open_image(opened, image, size);
  if (status != CFM_OK) return status;
  int result = execute(checked.db(), kSchema);
  if (result == SQLITE_OK) result = copy_store(opened.db(), checked.db());
  return status_of(result);
}

uint32_t import_image(const void *image, uint32_t size) {
  const Scratch checked;
  const uint32_t status = check_image(checked, image, size);
  if (status != CFM_OK) return status;

  const Session session(Open::kCreate);
  if (session.status() != CFM_OK) return session.status();
  Transaction transaction(session.db(), Transaction::Kind::kWrite);
  if (transaction.result() != SQLITE_OK) return status_of(transaction.result());
  int result = execute(session.db(), "DELETE FROM value WHERE area <> 2; DELETE FROM instance");
  if (result == SQLITE_OK) result = copy_store(checked.db(), session.db());
  return status_of(result == SQLITE_DONE ? transaction.commit() : result);
}

}  // namespace
}  // namespace cfm

using namespace cfm;

extern "C" uint32_t CFM_StoreDefine(const CFM_VALUE *values, uint32_t count, uint32_t flags) {
  if (values == nullptr || (flags & ~CFM_DEFINE_DEFAULT) != 0) return CFM_ERR_ARGUMENT;
  return define({values, count}, (flags & CFM_DEFINE_DEFAULT) != 0);
}

extern "C" uint32_t CFM_StoreRemove(uint32_t area, uint32_t object, uint32_t instance,
                                    uint32_t id) {
  if (id == 0 && (object == 0 || instance == 0)) return CFM_ERR_ARGUMENT;
  return cfm::remove(area, object, instance, id);
}

extern "C" uint32_t CFM_StoreAddInstance(uint32_t object, uint32_t instance) {
  if (object == 0 || instance == 0) return CFM_ERR_ARGUMENT;
  const Session session(Open::kCreate);
  if (session.status() != CFM_OK) return session.status();
  return status_of(add_instance(session.db(), kCurrent, object, instance));
}

extern "C" uint32_t CFM_StoreWalk(CFM_VALUE_PROC proc, void *user) {
  if (proc == nullptr) return CFM_ERR_ARGUMENT;
  Snapshot snapshot;
  const uint32_t status = take_snapshot(&snapshot);
  if (status != CFM_OK) return status;
  for (uint32_t i = 0; i < snapshot.count; ++i) {
    const uint32_t answer = proc(&snapshot.values.get()[i], user);
    if (answer != 0) return answer;
  }
  return CFM_OK;
}

extern "C" uint32_t CFM_StoreObjects(uint32_t *count, ORP_DB_KEY_ST **instances) {
  if (count == nullptr || instances == nullptr) return CFM_ERR_ARGUMENT;
  return list_instances(0, count, instances);
}

extern "C" uint32_t CFM_StoreSave() {
  const Session session;
  if (session.status() != CFM_OK) return session.status();
  return status_of(
      sqlite3_wal_checkpoint_v2(session.db(), nullptr, SQLITE_CHECKPOINT_FULL, nullptr, nullptr));
}

extern "C" uint32_t CFM_StoreCheck() {
  const Session session;
  if (session.status() != CFM_OK) return session.status();
  return check_integrity(session.db(), "main");
}

extern "C" uint32_t CFM_StoreRestoreDefaults() {
  return restore_defaults(
      "DELETE FROM value WHERE layer = 0 AND area <> 2;"
      "DELETE FROM instance WHERE layer = 0;"
      "INSERT INTO value SELECT 0, area, object, instance, id, type, size, data FROM value"
      " WHERE layer = 1 AND area <> 2;"
      "INSERT INTO instance SELECT 0, object, number FROM instance WHERE layer = 1;");
}

extern "C" uint32_t CFM_StoreRestoreAppData() {
  return restore_defaults(
      "DELETE FROM value WHERE layer = 0 AND area = 1;"
      "INSERT INTO value SELECT 0, area, object, instance, id, type, size, data FROM value"
      " WHERE layer = 1 AND area = 1;");
}

extern "C" uint32_t CFM_StoreExport(void **image, uint32_t *size) {
  if (image == nullptr || size == nullptr) return CFM_ERR_ARGUMENT;
  *image = nullptr;
  *size = 0;
  return export_image(image, size);
}

extern "C" uint32_t CFM_StoreCheckImage(const void *image, uint32_t size) {
  if (image == nullptr) return CFM_ERR_ARGUMENT;
  const Scratch checked;
  return check_image(checked, image, size);
}

extern "C" uint32_t CFM_StoreImport(const void *image, uint32_t size) {
  if (image == nullptr) return CFM_ERR_ARGUMENT;
  return import_image(image, size);
}
