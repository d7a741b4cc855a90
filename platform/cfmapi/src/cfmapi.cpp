// The product interface: reads and writes of single values, instance lists and records.

#include "cfmapi.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include "cfmstore.h"
#include "store.h"

namespace cfm {
namespace {

std::atomic<uint32_t> g_current_user;

// The place of a value.
struct Place {
  uint32_t area;
  uint32_t object;
  uint32_t instance;
  uint32_t id;
};

void bind_place(Statement &statement, const Place &place) {
  statement.bind(place.area).bind(place.object).bind(place.instance).bind(place.id);
}

constexpr char kSelectValue[] =
    "SELECT type, size, data FROM value"
    " WHERE layer = 0 AND area = ? AND object = ? AND instance = ? AND id = ?";

// The value as it goes into a caller's buffer, without a text's NUL.
std::span<const char> stored_bytes(const Statement &row, int column, uint32_t &number) {
  if (row.number(0) != CFM_TYPE_NUMBER) return row.bytes(column);
  number = row.number(column);
  return {reinterpret_cast<const char *>(&number), sizeof number};
}

uint32_t read_value(const Place &place, std::span<char> out) {
  const Session session;
  if (session.status() != CFM_OK) return session.status();

  Statement row(session.db(), kSelectValue);
  bind_place(row, place);
  const int result = row.step();
  if (result == SQLITE_DONE) return CFM_ERR_NOT_FOUND;
  if (result != SQLITE_ROW) return status_of(result);

  uint32_t number;
  const std::span<const char> data = stored_bytes(row, 2, number);
  const size_t nul = row.number(0) == CFM_TYPE_TEXT ? 1 : 0;
  if (out.size() < data.size() + nul) return CFM_ERR_TOO_SMALL;

  if (!data.empty()) std::memcpy(out.data(), data.data(), data.size());
  std::memset(out.data() + data.size(), 0, out.size() - data.size());
  return CFM_OK;
}

uint32_t write_value(const Place &place, std::span<const char> value) {
  const Session session;
  if (session.status() != CFM_OK) return session.status();
  Transaction transaction(session.db(), Transaction::Kind::kWrite);
  if (transaction.result() != SQLITE_OK) return status_of(transaction.result());

  Statement row(session.db(), kSelectValue);
  bind_place(row, place);
  const int found = row.step();
  if (found == SQLITE_DONE) return CFM_ERR_NOT_FOUND;
  if (found != SQLITE_ROW) return status_of(found);
  const uint32_t type = row.number(0);
  const size_t room = row.number(1);
  // A reader that is still open at COMMIT keeps SQLite from emptying its log, which would grow.
  row.again();

  // An unchanged value is not written, because flash wears out.
  Statement update(session.db(),
                   "UPDATE value SET data = ?1 WHERE layer = 0 AND area = ?2 AND object = ?3"
                   " AND instance = ?4 AND id = ?5 AND data IS NOT ?1");
  if (type == CFM_TYPE_NUMBER) {
    if (value.size() != sizeof(uint32_t)) return CFM_ERR_TYPE;
    uint32_t number;
    std::memcpy(&number, value.data(), sizeof number);
    update.bind(number);
  } else if (type == CFM_TYPE_TEXT) {
    const size_t length = strnlen(value.data(), value.size());
    if (length >= room) return CFM_ERR_TOO_LONG;
    update.bind(value.first(length));
  } else {
    if (value.size() > room) return CFM_ERR_TOO_LONG;
    update.bind(value);
  }
  bind_place(update, place);
  const int result = update.step();
  return status_of(result == SQLITE_DONE ? transaction.commit() : result);
}

bool place_of(const ORP_DB_KEY_ST *key, uint32_t para, Place *place) {
  *place = {CFM_AREA_PARAMETER, 0, 0, para};
  if (key == nullptr) return true;
  place->object = key->ulObject;
  place->instance = key->ulInstance;
  return key->ulObject != 0 && key->ulInstance != 0;
}

bool instance_exists(sqlite3 *db, const ORP_DB_KEY_ST &key, int *result) {
  Statement row(db, "SELECT 1 FROM instance WHERE layer = 0 AND object = ? AND number = ?");
  *result = row.bind(key.ulObject).bind(key.ulInstance).step();
  return *result == SQLITE_ROW;
}

// The words come first in the block, then the data that they point to; each text gets a NUL. Two
// passes over one view of the store: one for the size, one to fill the block.
uint32_t read_record(const ORP_DB_KEY_ST &key, void **record) {
  const Session session;
  if (session.status() != CFM_OK) return session.status();
  const Transaction view(session.db(), Transaction::Kind::kRead);
  if (view.result() != SQLITE_OK) return status_of(view.result());
  int result;
  if (!instance_exists(session.db(), key, &result)) {
    return result == SQLITE_DONE ? CFM_ERR_NOT_FOUND : status_of(result);
  }

  Statement rows(session.db(),
                 "SELECT type, id & 255, data FROM value"
                 " WHERE layer = 0 AND area = 0 AND object = ? AND instance = ? ORDER BY id");
  rows.bind(key.ulObject).bind(key.ulInstance);
  size_t words = CFM_OBJ_MIN_WORDS;
  size_t data_size = 0;
  while ((result = rows.step()) == SQLITE_ROW) {
    words = std::max<size_t>(words, rows.number(1));
    if (rows.number(0) != CFM_TYPE_NUMBER) data_size += rows.bytes(2).size() + 1;
  }
  if (result != SQLITE_DONE) return status_of(result);

  Owned<uintptr_t> block(
      static_cast<uintptr_t *>(std::calloc(1, words * sizeof(uintptr_t) + data_size)));
  if (!block) return CFM_ERR_MEMORY;
  char *data = reinterpret_cast<char *>(block.get() + words);
  rows.again();
  rows.bind(key.ulObject).bind(key.ulInstance);
  while ((result = rows.step()) == SQLITE_ROW) {
    const uint32_t word = rows.number(1);
    if (word == 0) continue;
    if (rows.number(0) == CFM_TYPE_NUMBER) {
      block.get()[word - 1] = rows.number(2);
      continue;
    }
    const std::span<const char> bytes = rows.bytes(2);
    if (!bytes.empty()) std::memcpy(data, bytes.data(), bytes.size());
    block.get()[word - 1] = reinterpret_cast<uintptr_t>(data);
    data += bytes.size() + 1;
  }
  if (result != SQLITE_DONE) return status_of(result);

  *record = block.release();
  return CFM_OK;
}

std::span<char> buffer(void *value, uint32_t size) {
  return {static_cast<char *>(value), size};
}

}  // namespace

uint32_t list_instances(uint32_t object, uint32_t *count, ORP_DB_KEY_ST **instances) {
  *count = 0;
  *instances = nullptr;
  const Session session;
  if (session.status() != CFM_OK) return session.status();
  const Transaction view(session.db(), Transaction::Kind::kRead);
  if (view.result() != SQLITE_OK) return status_of(view.result());

  Statement total(session.db(),
                  "SELECT count(*) FROM instance WHERE layer = 0 AND (?1 = 0 OR object = ?1)");
  int result = total.bind(object).step();
  if (result != SQLITE_ROW) return status_of(result);
  const uint32_t expected = total.number(0);
  if (expected == 0) return CFM_OK;

  Owned<ORP_DB_KEY_ST> keys(
      static_cast<ORP_DB_KEY_ST *>(std::calloc(expected, sizeof(ORP_DB_KEY_ST))));
  if (!keys) return CFM_ERR_MEMORY;
  Statement rows(session.db(),
                 "SELECT object, number FROM instance WHERE layer = 0 AND (?1 = 0 OR object = ?1)"
                 " ORDER BY object, number");
  rows.bind(object);
  uint32_t filled = 0;
  while ((result = rows.step()) == SQLITE_ROW && filled < expected) {
    keys.get()[filled++] = {rows.number(0), rows.number(1)};
  }
  if (result != SQLITE_DONE) return status_of(result);

  *count = filled;
  *instances = keys.release();
  return CFM_OK;
}

}  // namespace cfm

using namespace cfm;

extern "C" uint32_t ORP_DBGetPara(const ORP_DB_KEY_ST *key, uint32_t para, void *value,
                                  uint32_t size) {
  Place place;
  if (value == nullptr || !place_of(key, para, &place)) return CFM_ERR_ARGUMENT;
  return read_value(place, buffer(value, size));
}

extern "C" uint32_t ORP_DBSetPara(const ORP_DB_KEY_ST *key, uint32_t para, const void *value,
                                  uint32_t size) {
  Place place;
  if (value == nullptr || !place_of(key, para, &place)) return CFM_ERR_ARGUMENT;
  return write_value(place, {static_cast<const char *>(value), size});
}

extern "C" uint32_t ORP_DBGetNumOfObjs(uint32_t object, uint32_t *count,
                                       ORP_DB_KEY_ST **instances) {
  if (count == nullptr || instances == nullptr) return CFM_ERR_ARGUMENT;
  if (object == 0) {
    *count = 0;
    *instances = nullptr;
    return CFM_ERR_ARGUMENT;
  }
  return list_instances(object, count, instances);
}

extern "C" uint32_t ORP_DBGetObj(const ORP_DB_KEY_ST *key, void **record) {
  if (record == nullptr) return CFM_ERR_ARGUMENT;
  *record = nullptr;
  if (key == nullptr || key->ulInstance == 0) return CFM_ERR_ARGUMENT;
  return read_record(*key, record);
}

extern "C" void ORP_CFM_FreeObj(void *record) {
  std::free(record);
}

extern "C" void ORP_WEB_Free_UserInfoObj(ORP_WEB_USERINFO_ST *user) {
  std::free(user);
}

extern "C" uint32_t ORP_CFM_GetCurrUser() {
  return g_current_user.load(std::memory_order_relaxed);
}

extern "C" uint32_t ORP_APPDATA_ReadAppData(uint32_t item, void *value, uint32_t size) {
  if (value == nullptr) return CFM_ERR_ARGUMENT;
  return read_value({CFM_AREA_APP_DATA, 0, 0, item}, buffer(value, size));
}

extern "C" uint32_t ORP_APPDATA_ReadEquip(uint32_t item, void *value, uint32_t size) {
  if (value == nullptr) return CFM_ERR_ARGUMENT;
  return read_value({CFM_AREA_EQUIPMENT, 0, 0, item}, buffer(value, size));
}

extern "C" void CFM_SetCurrUser(uint32_t user) {
  g_current_user.store(user, std::memory_order_relaxed);
}
