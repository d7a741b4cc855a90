// The store without memory: SQLite's allocations fail one after the other.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdint>
#include <cstdlib>

#include "cfmapi.h"
#include "support/store.h"

namespace {

constexpr uint32_t kStoredNumber = 0x61A11703;

sqlite3_mem_methods g_usual;
uint32_t g_left;  // until an allocation fails; 0: none does

bool fails() {
  return g_left > 0 && --g_left == 0;
}
void *allocate(int size) {
  return fails() ? nullptr : g_usual.xMalloc(size);
}
void *reallocate(void *block, int size) {
  return fails() ? nullptr : g_usual.xRealloc(block, size);
}

// A rollback needs memory, too. If it gets none, the transaction must not stay open, or every later
// one would be refused.
TEST(StoreWithoutMemory, WorksAgainAfterwards) {
  sqlite3_config(SQLITE_CONFIG_GETMALLOC, &g_usual);
  sqlite3_mem_methods failing = g_usual;
  failing.xMalloc = allocate;
  failing.xRealloc = reallocate;
  if (sqlite3_config(SQLITE_CONFIG_MALLOC, &failing) != SQLITE_OK) {
    GTEST_SKIP() << "another test of this process has used SQLite";
  }
  test::define_number(kStoredNumber, 7);
  test::define_number(CFM_PARA_WEB_USER_LEVEL, 2, {CFM_OBJ_WEB_USER, 1});

  uint32_t failed = 0;
  for (uint32_t nth = 1;; ++nth) {
    g_left = nth;
    uint32_t count = 0;
    ORP_DB_KEY_ST *keys = nullptr;
    const uint32_t listed = ORP_DBGetNumOfObjs(CFM_OBJ_WEB_USER, &count, &keys);
    const bool all_taken = g_left > 0;
    g_left = 0;
    if (listed == CFM_OK) std::free(keys);
    ASSERT_EQ(CFM_OK, ORP_DBSetPara(nullptr, kStoredNumber, &nth, sizeof nth)) << nth;
    if (all_taken) break;
    ++failed;
  }
  EXPECT_GT(failed, 0u);
}

}  // namespace
