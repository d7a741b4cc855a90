#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "cfmapi.h"
#include "cfmstore.h"
#include "support/file.h"

namespace {

constexpr uint32_t kNumber = 0x61A11703;
constexpr uint32_t kText = 0x60A01901;
constexpr uint32_t kBytes = 271;
constexpr ORP_DB_KEY_ST kUser1 = {CFM_OBJ_WEB_USER, 1};
constexpr ORP_DB_KEY_ST kUser9 = {CFM_OBJ_WEB_USER, 9};

CFM_VALUE number(const ORP_DB_KEY_ST &key, uint32_t id, const uint32_t &value) {
  return {CFM_AREA_PARAMETER, key.ulObject, key.ulInstance, id, CFM_TYPE_NUMBER, 4, &value, 4};
}

CFM_VALUE text(const ORP_DB_KEY_ST &key, uint32_t id, uint32_t size, const char *value) {
  return {CFM_AREA_PARAMETER, key.ulObject, key.ulInstance, id,
          CFM_TYPE_TEXT,      size,         value,          static_cast<uint32_t>(strlen(value))};
}

void seed() {
  const uint32_t seven = 7, level = 2, pending = 1;
  const CFM_VALUE values[] = {
      number({}, kNumber, seven),
      text({}, kText, 8, "1234567"),
      number(kUser9, CFM_PARA_WEB_USER_LEVEL, level),
      text(kUser1, CFM_PARA_WEB_USER_NAME, 68, "admin"),
      number(kUser1, CFM_PARA_WEB_USER_LEVEL, level),
      number(kUser1, CFM_PARA_WEB_USER_FIRST_LOGIN, pending),
      {CFM_AREA_APP_DATA, 0, 0, kBytes, CFM_TYPE_BYTES, 4, "\0\1", 2},
      {CFM_AREA_EQUIPMENT, 0, 0, CFM_EQUIP_SOFTWARE_VERSION, CFM_TYPE_TEXT, 32, "V1", 2},
  };
  ASSERT_EQ(CFM_OK, CFM_StoreDefine(values, std::size(values), CFM_DEFINE_DEFAULT));
}

uint32_t stored_number(uint32_t id = kNumber) {
  uint32_t value = 0xEEEEEEEE;
  EXPECT_EQ(CFM_OK, ORP_DBGetPara(nullptr, id, &value, sizeof value));
  return value;
}

std::vector<uint32_t> user_instances() {
  uint32_t count;
  ORP_DB_KEY_ST *keys;
  EXPECT_EQ(CFM_OK, ORP_DBGetNumOfObjs(CFM_OBJ_WEB_USER, &count, &keys));
  std::vector<uint32_t> numbers;
  for (uint32_t i = 0; i < count; ++i) numbers.push_back(keys[i].ulInstance);
  std::free(keys);
  return numbers;
}

// What CFM_StoreExport hands out.
std::string exported() {
  void *block = nullptr;
  uint32_t size = 0;
  EXPECT_EQ(CFM_OK, CFM_StoreExport(&block, &size));
  const std::string image(static_cast<char *>(block), size);
  std::free(block);
  return image;
}

TEST(Store, IsUnavailableUntilSomethingIsDefined) {
  uint32_t value = 5, count = 5;
  ORP_DB_KEY_ST *keys;

  EXPECT_EQ(CFM_ERR_UNAVAILABLE, ORP_DBGetPara(nullptr, kNumber, &value, 4));
  EXPECT_EQ(CFM_ERR_UNAVAILABLE, ORP_DBSetPara(nullptr, kNumber, &value, 4));
  EXPECT_EQ(CFM_ERR_UNAVAILABLE, ORP_DBGetNumOfObjs(CFM_OBJ_WEB_USER, &count, &keys));
  EXPECT_EQ(0u, count);
  EXPECT_EQ(nullptr, keys);
  EXPECT_EQ(5u, value);
  EXPECT_FALSE(std::filesystem::exists(CFM_STORE_DIRECTORY));

  seed();
  EXPECT_EQ(7u, stored_number());
  EXPECT_EQ(std::filesystem::perms(0660), std::filesystem::status(CFM_STORE_PATH).permissions());
}

TEST(Store, CopiesWithinTheCallersBuffer) {
  seed();
  char buffer[10];
  std::memset(buffer, 'x', sizeof buffer);

  EXPECT_EQ(CFM_ERR_TOO_SMALL, ORP_DBGetPara(nullptr, kText, buffer, 7));
  EXPECT_EQ(CFM_ERR_TOO_SMALL, ORP_DBGetPara(nullptr, kNumber, buffer, 3));
  EXPECT_EQ(CFM_ERR_TOO_SMALL, ORP_APPDATA_ReadAppData(kBytes, buffer, 1));
  EXPECT_EQ(std::string(10, 'x'), std::string(buffer, sizeof buffer));

  EXPECT_EQ(CFM_OK, ORP_DBGetPara(nullptr, kText, buffer, 8));
  EXPECT_EQ(std::string("1234567\0xx", 10), std::string(buffer, sizeof buffer));
  EXPECT_EQ(CFM_OK, ORP_APPDATA_ReadAppData(kBytes, buffer, 3));
  EXPECT_EQ(std::string("\0\1\0", 3), std::string(buffer, 3));
  EXPECT_EQ(CFM_OK, ORP_APPDATA_ReadEquip(CFM_EQUIP_SOFTWARE_VERSION, buffer, sizeof buffer));
  EXPECT_STREQ("V1", buffer);
}

TEST(Store, SaysWhatIsWrongWithACall) {
  seed();
  uint32_t value = 1;
  const ORP_DB_KEY_ST none = {CFM_OBJ_WEB_USER, 2}, bad = {CFM_OBJ_WEB_USER, 0};

  EXPECT_EQ(CFM_ERR_ARGUMENT, ORP_DBGetPara(nullptr, kNumber, nullptr, 4));
  EXPECT_EQ(CFM_ERR_ARGUMENT, ORP_DBGetPara(&bad, CFM_PARA_WEB_USER_LEVEL, &value, 4));
  EXPECT_EQ(CFM_ERR_NOT_FOUND, ORP_DBGetPara(&none, CFM_PARA_WEB_USER_LEVEL, &value, 4));
  EXPECT_EQ(CFM_ERR_NOT_FOUND, ORP_DBGetPara(nullptr, CFM_PARA_WEB_USER_LEVEL, &value, 4));
  EXPECT_EQ(CFM_ERR_NOT_FOUND, ORP_DBSetPara(nullptr, 0x12345678, &value, 4));
  EXPECT_EQ(CFM_ERR_NOT_FOUND, ORP_APPDATA_ReadEquip(kBytes, &value, 4));
  EXPECT_EQ(CFM_ERR_TYPE, ORP_DBSetPara(nullptr, kNumber, &value, 2));
  EXPECT_EQ(CFM_ERR_TOO_LONG, ORP_DBSetPara(nullptr, kText, "12345678", 8));
  EXPECT_EQ(7u, stored_number());

  const CFM_VALUE wrong[] = {
      {CFM_AREA_PARAMETER, 1, 0, 1, CFM_TYPE_NUMBER, 4, &value, 4},
      {CFM_AREA_APP_DATA, 1, 1, 1, CFM_TYPE_NUMBER, 4, &value, 4},
      {3, 0, 0, 1, CFM_TYPE_NUMBER, 4, &value, 4},
      {CFM_AREA_PARAMETER, 0, 0, 1, 3, 4, &value, 4},
      {CFM_AREA_PARAMETER, 0, 0, 1, CFM_TYPE_BYTES, CFM_MAX_VALUE_SIZE + 1, &value, 4},
      {CFM_AREA_PARAMETER, 0, 0, 1, CFM_TYPE_BYTES, 4, nullptr, 0},
  };
  for (const CFM_VALUE &each : wrong) {
    EXPECT_EQ(CFM_ERR_ARGUMENT, CFM_StoreDefine(&each, 1, 0)) << &each - wrong;
  }
  const CFM_VALUE inner_nul = {CFM_AREA_PARAMETER, 0, 0, 1, CFM_TYPE_TEXT, 4, "a\0b", 3};
  EXPECT_EQ(CFM_ERR_TYPE, CFM_StoreDefine(&inner_nul, 1, 0));
}

TEST(Store, KeepsTextsUpToTheirNulAndInstancesApart) {
  seed();
  char name[68];

  EXPECT_EQ(CFM_OK, ORP_DBSetPara(nullptr, kText, "ab\0cdefghijkl", 13));
  EXPECT_EQ(CFM_OK, ORP_DBGetPara(nullptr, kText, name, sizeof name));
  EXPECT_STREQ("ab", name);
  EXPECT_EQ(CFM_OK, ORP_DBSetPara(&kUser1, CFM_PARA_WEB_USER_NAME, "", 0));
  EXPECT_EQ(CFM_OK, ORP_DBGetPara(&kUser1, CFM_PARA_WEB_USER_NAME, name, 1));
  EXPECT_STREQ("", name);

  const uint32_t five = 5;
  EXPECT_EQ(CFM_OK, ORP_DBSetPara(&kUser9, CFM_PARA_WEB_USER_LEVEL, &five, 4));
  uint32_t level;
  EXPECT_EQ(CFM_OK, ORP_DBGetPara(&kUser1, CFM_PARA_WEB_USER_LEVEL, &level, 4));
  EXPECT_EQ(2u, level);
}

TEST(Store, HandsOutInstancesAsRecords) {
  seed();

  EXPECT_EQ((std::vector<uint32_t>{1, 9}), user_instances());

  void *record;
  ASSERT_EQ(CFM_OK, ORP_DBGetObj(&kUser1, &record));
  auto *user = static_cast<ORP_WEB_USERINFO_ST *>(record);
  EXPECT_STREQ("admin", user->pcUserName);
  EXPECT_EQ(2u, user->ulUserLevel);
  EXPECT_EQ(1u, user->ulFirstLogin);
  ORP_WEB_Free_UserInfoObj(user);

  ASSERT_EQ(CFM_OK, ORP_DBGetObj(&kUser9, &record));
  EXPECT_EQ(nullptr, static_cast<ORP_WEB_USERINFO_ST *>(record)->pcUserName);
  ORP_CFM_FreeObj(record);

  const ORP_DB_KEY_ST none = {CFM_OBJ_WEB_USER, 3};
  EXPECT_EQ(CFM_ERR_NOT_FOUND, ORP_DBGetObj(&none, &record));
  EXPECT_EQ(nullptr, record);
}

TEST(Store, RestoresDefaultsButNotEquipment) {
  seed();
  const uint32_t nine = 9;
  const CFM_VALUE equipment = {CFM_AREA_EQUIPMENT, 0,  0,    CFM_EQUIP_SOFTWARE_VERSION,
                               CFM_TYPE_TEXT,      32, "V2", 2};
  const CFM_VALUE app_data = {CFM_AREA_APP_DATA, 0, 0, kBytes, CFM_TYPE_BYTES, 4, "\7", 1};
  ASSERT_EQ(CFM_OK, ORP_DBSetPara(nullptr, kNumber, &nine, 4));
  ASSERT_EQ(CFM_OK, CFM_StoreAddInstance(CFM_OBJ_WEB_USER, 12));
  ASSERT_EQ(CFM_OK, CFM_StoreRemove(CFM_AREA_PARAMETER, CFM_OBJ_WEB_USER, 1, 0));
  ASSERT_EQ(CFM_OK, CFM_StoreDefine(&equipment, 1, 0));
  ASSERT_EQ(CFM_OK, CFM_StoreDefine(&app_data, 1, 0));
  EXPECT_EQ((std::vector<uint32_t>{9, 12}), user_instances());
  char byte;

  EXPECT_EQ(CFM_OK, CFM_StoreRestoreAppData());
  EXPECT_EQ(9u, stored_number());
  EXPECT_EQ(CFM_ERR_TOO_SMALL, ORP_APPDATA_ReadAppData(kBytes, &byte, 1));

  EXPECT_EQ(CFM_OK, CFM_StoreRestoreDefaults());
  EXPECT_EQ(7u, stored_number());
  EXPECT_EQ((std::vector<uint32_t>{1, 9}), user_instances());
  char version[32];
  EXPECT_EQ(CFM_OK, ORP_APPDATA_ReadEquip(CFM_EQUIP_SOFTWARE_VERSION, version, sizeof version));
  EXPECT_STREQ("V2", version);
}

TEST(Store, WalkShowsOneViewAndMayChangeTheStore) {
  seed();
  std::vector<uint32_t> ids;

  EXPECT_EQ(CFM_OK, CFM_StoreWalk(
                        [](const CFM_VALUE *value, void *user) -> uint32_t {
                          static_cast<std::vector<uint32_t> *>(user)->push_back(value->id);
                          return CFM_StoreRemove(value->area, value->object, value->instance,
                                                 value->id);
                        },
                        &ids));

  EXPECT_THAT(ids,
              testing::ElementsAre(kText, kNumber, CFM_PARA_WEB_USER_NAME, CFM_PARA_WEB_USER_LEVEL,
                                   CFM_PARA_WEB_USER_FIRST_LOGIN, CFM_PARA_WEB_USER_LEVEL, kBytes,
                                   CFM_EQUIP_SOFTWARE_VERSION));
  EXPECT_EQ(CFM_OK, CFM_StoreWalk([](const CFM_VALUE *, void *) { return 1u; }, nullptr))
      << "nothing is left to stop at";
}

TEST(Store, ExportsAndImportsImages) {
  seed();
  const std::string image = exported();
  const uint32_t nine = 9;
  ASSERT_EQ(CFM_OK, ORP_DBSetPara(nullptr, kNumber, &nine, 4));
  ASSERT_EQ(CFM_OK, CFM_StoreRemove(CFM_AREA_PARAMETER, CFM_OBJ_WEB_USER, 1, 0));

  const auto size = static_cast<uint32_t>(image.size());
  EXPECT_EQ(CFM_OK, CFM_StoreCheckImage(image.data(), size));
  EXPECT_EQ(9u, stored_number());
  EXPECT_EQ(CFM_OK, CFM_StoreImport(image.data(), size));
  EXPECT_EQ(7u, stored_number());
  EXPECT_EQ((std::vector<uint32_t>{1, 9}), user_instances());
  ASSERT_EQ(CFM_OK, ORP_DBSetPara(nullptr, kNumber, &nine, 4));
  EXPECT_EQ(CFM_OK, CFM_StoreRestoreDefaults()) << "defaults travel with the image";
  EXPECT_EQ(7u, stored_number());
}

// An image made of the given SQL, in the form that CFM_StoreExport hands out.
std::string image_of(const char *sql) {
  sqlite3 *db;
  EXPECT_EQ(SQLITE_OK, sqlite3_open(":memory:", &db));
  EXPECT_EQ(SQLITE_OK, sqlite3_exec(db, sql, nullptr, nullptr, nullptr)) << sqlite3_errmsg(db);
  sqlite3_int64 size;
  unsigned char *bytes = sqlite3_serialize(db, "main", &size, 0);
  const std::string image(reinterpret_cast<char *>(bytes), static_cast<size_t>(size));
  sqlite3_free(bytes);
  sqlite3_close(db);
  return image;
}

TEST(Store, RefusesDamagedAndForeignImagesAndStaysAsItWas) {
  seed();
  const std::string image = exported();
  const std::string marked = "PRAGMA application_id=1128680753; PRAGMA user_version=1;";
  const auto import = [](const std::string &bytes) {
    const uint32_t status = CFM_StoreImport(bytes.data(), static_cast<uint32_t>(bytes.size()));
    EXPECT_EQ(7u, stored_number());
    EXPECT_EQ(CFM_OK, CFM_StoreCheck());
    return status;
  };

  const std::string damaged[] = {
      "",
      "no database at all, whatever it is, and quite a bit of it",
      image.substr(0, image.size() / 2),
      image_of("CREATE TABLE other(x)"),
      image_of(("CREATE TABLE value(x);" + marked).c_str()),
      image_of(("CREATE TABLE t(x); CREATE VIEW value AS SELECT 1;" + marked).c_str()),
  };
  for (const std::string &each : damaged) EXPECT_EQ(CFM_ERR_DAMAGED, import(each));
  EXPECT_EQ(CFM_ERR_VERSION,
            import(image_of("CREATE TABLE value(x); PRAGMA application_id=1128680753;"
                            "PRAGMA user_version=2")));
  // Flipped bytes may hit data, which no structure covers; what they may not do is harm.
  for (size_t i = 0; i < image.size(); i += 97) {
    std::string flipped = image;
    flipped[i] = static_cast<char>(~flipped[i]);
    CFM_StoreCheckImage(flipped.data(), static_cast<uint32_t>(flipped.size()));
  }
}

TEST(Store, ReportsADamagedFileAndForeignOnes) {
  seed();
  ASSERT_EQ(CFM_OK, CFM_StoreSave());
  std::string bytes = test::contents(CFM_STORE_PATH);
  ASSERT_GT(bytes.size(), 8192u);
  const auto child_reads = [](const std::string &content) {
    for (const char *suffix : {"", "-wal", "-shm"}) {
      std::filesystem::remove(std::string(CFM_STORE_PATH) + suffix);
    }
    std::ofstream(CFM_STORE_PATH, std::ios::binary) << content;
    const pid_t pid = ::fork();
    if (pid == 0) {
      uint32_t value;
      const uint32_t read = ORP_DBGetPara(nullptr, kNumber, &value, 4);
      ::_exit(static_cast<int>((read == CFM_OK ? CFM_StoreCheck() : read) & 0xFF));
    }
    int status;
    ::waitpid(pid, &status, 0);
    return 0x30000u | static_cast<uint32_t>(WEXITSTATUS(status));
  };

  std::string damaged = bytes;
  for (size_t i = 4096; i < damaged.size(); ++i) damaged[i] = 'x';
  EXPECT_EQ(CFM_ERR_DAMAGED, child_reads(damaged));
  EXPECT_EQ(CFM_ERR_DAMAGED, child_reads(std::string(8192, 'x')));
  EXPECT_EQ(CFM_ERR_UNAVAILABLE, child_reads(""));
  bytes[63] = 2;  // the last byte of user_version, in the header of the file format
  EXPECT_EQ(CFM_ERR_VERSION, child_reads(bytes));
}

TEST(Store, SeveralProcessesWriteAtOnceAndForkInTheMiddle) {
  seed();
  constexpr int kWriters = 4, kWrites = 50;
  std::vector<pid_t> writers;
  for (int writer = 0; writer < kWriters; ++writer) {
    const pid_t pid = ::fork();
    if (pid == 0) {
      // Each value is found again by its own writer: nobody's write is lost.
      const uint32_t id = 0x1000u + static_cast<uint32_t>(writer);
      for (uint32_t i = 0; i < kWrites; ++i) {
        const CFM_VALUE value = number({}, id, i);
        if (CFM_StoreDefine(&value, 1, 0) != CFM_OK || stored_number(id) != i) ::_exit(1);
      }
      ::_exit(0);
    }
    writers.push_back(pid);
    EXPECT_EQ(7u, stored_number());
  }
  for (const pid_t pid : writers) {
    int status;
    ::waitpid(pid, &status, 0);
    EXPECT_EQ(0, status);
  }
  EXPECT_EQ(CFM_OK, CFM_StoreCheck());
}

TEST(Store, SurvivesWritersThatAreKilled) {
  seed();
  for (int round = 0; round < 20; ++round) {
    int ready[2];
    ASSERT_EQ(0, ::pipe(ready));
    const pid_t pid = ::fork();
    if (pid == 0) {
      // Both values change together; a reader may never see one without the other.
      for (uint32_t i = 0;; ++i) {
        const CFM_VALUE pair[] = {number({}, 0x2001, i), number({}, 0x2002, i)};
        if (CFM_StoreDefine(pair, 2, 0) != CFM_OK) ::_exit(1);
        if (::write(ready[1], "x", 1) != 1) ::_exit(1);
      }
    }
    char byte;
    for (int writes = 0; writes < 3; ++writes) ASSERT_EQ(1, ::read(ready[0], &byte, 1));
    // Another moment of the next write in every round.
    for (int i = 0; i < round * 100; ++i) (void)::getppid();
    ::kill(pid, SIGKILL);
    int status;
    ::waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status));
    ::close(ready[0]);
    ::close(ready[1]);

    EXPECT_EQ(CFM_OK, CFM_StoreCheck());
    EXPECT_EQ(stored_number(0x2001), stored_number(0x2002));
    const uint32_t zero = 0;
    EXPECT_EQ(CFM_OK, ORP_DBSetPara(nullptr, 0x2001, &zero, 4)) << "no lock is left behind";
  }
}

}  // namespace
