#include <fcntl.h>
#include <gmock/gmock.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "cfmapi.h"
#include "cfmstore.h"
#include "support/file.h"
#include "support/store.h"

namespace {

using testing::ElementsAre;

constexpr uint32_t kNumber = 0x61A11703;
constexpr uint32_t kText = 0x60A01901;
constexpr uint32_t kBytes = 271;
constexpr ORP_DB_KEY_ST kUser1 = {CFM_OBJ_WEB_USER, 1};
constexpr ORP_DB_KEY_ST kUser9 = {CFM_OBJ_WEB_USER, 9};

void seed() {
  test::define_number(kNumber, 7);
  test::define_text(kText, "1234567", {}, 8);
  test::define_number(CFM_PARA_WEB_USER_LEVEL, 2, kUser9);
  test::define_text(CFM_PARA_WEB_USER_NAME, "admin", kUser1);
  test::define_number(CFM_PARA_WEB_USER_LEVEL, 2, kUser1);
  test::define(CFM_AREA_APP_DATA, kBytes, CFM_TYPE_BYTES, 4, {"\0\1", 2});
  test::define(CFM_AREA_EQUIPMENT, CFM_EQUIP_SOFTWARE_VERSION, CFM_TYPE_TEXT, 32, "V1");
}

uint32_t set_number(uint32_t id, uint32_t value) {
  return ORP_DBSetPara(nullptr, id, &value, sizeof value);
}

uint32_t stored_number(uint32_t id = kNumber, const ORP_DB_KEY_ST *key = nullptr) {
  uint32_t value = 0xEEEEEEEE;
  EXPECT_EQ(CFM_OK, ORP_DBGetPara(key, id, &value, sizeof value));
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

template <typename Procedure>
pid_t start_child(Procedure procedure) {
  const pid_t pid = ::fork();
  if (pid == 0) ::_exit(procedure());
  return pid;
}

int status_of(pid_t child) {
  int status = -1;
  EXPECT_EQ(child, ::waitpid(child, &status, 0));
  return status;
}

TEST(Store, IsThereOnceSomethingIsDefined) {
  uint32_t value = 5;
  EXPECT_EQ(CFM_ERR_UNAVAILABLE, ORP_DBGetPara(nullptr, kNumber, &value, 4));
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
}

TEST(Store, KeepsTextsUpToTheirNulAndInstancesApart) {
  seed();
  char text[8];
  EXPECT_EQ(CFM_OK, ORP_DBSetPara(nullptr, kText, "ab\0cdefghijkl", 13));
  EXPECT_EQ(CFM_OK, ORP_DBGetPara(nullptr, kText, text, sizeof text));
  EXPECT_STREQ("ab", text);
  EXPECT_EQ(CFM_OK, ORP_DBSetPara(nullptr, kText, "", 0));
  EXPECT_EQ(CFM_OK, ORP_DBGetPara(nullptr, kText, text, 1));

  const uint32_t five = 5;
  EXPECT_EQ(CFM_OK, ORP_DBSetPara(&kUser9, CFM_PARA_WEB_USER_LEVEL, &five, 4));
  EXPECT_EQ(2u, stored_number(CFM_PARA_WEB_USER_LEVEL, &kUser1));
}

TEST(Store, SaysWhatIsWrongWithACall) {
  seed();
  uint32_t value = 1;
  const ORP_DB_KEY_ST none = {CFM_OBJ_WEB_USER, 2};
  EXPECT_EQ(CFM_ERR_NOT_FOUND, ORP_DBGetPara(&none, CFM_PARA_WEB_USER_LEVEL, &value, 4));
  EXPECT_EQ(CFM_ERR_NOT_FOUND, ORP_DBSetPara(nullptr, CFM_PARA_WEB_USER_LEVEL, &value, 4));
  EXPECT_EQ(CFM_ERR_NOT_FOUND, ORP_APPDATA_ReadEquip(kBytes, &value, 4));
  EXPECT_EQ(CFM_ERR_TYPE, ORP_DBSetPara(nullptr, kNumber, &value, 2));
  EXPECT_EQ(CFM_ERR_TOO_LONG, ORP_DBSetPara(nullptr, kText, "12345678", 8));

  // An object without an instance, and outside the parameters; too large; a NUL inside a text.
  const CFM_VALUE wrong[] = {
      {CFM_AREA_PARAMETER, 1, 0, 1, CFM_TYPE_NUMBER, 4, &value, 4},
      {CFM_AREA_APP_DATA, 1, 1, 1, CFM_TYPE_NUMBER, 4, &value, 4},
      {CFM_AREA_PARAMETER, 0, 0, 1, CFM_TYPE_BYTES, CFM_MAX_VALUE_SIZE + 1, &value, 4},
      {CFM_AREA_PARAMETER, 0, 0, 1, CFM_TYPE_TEXT, 4, "a\0b", 3}};
  for (const CFM_VALUE &each : wrong) EXPECT_NE(CFM_OK, CFM_StoreDefine(&each, 1, 0));
}

TEST(Store, WalkShowsOneViewAndMayChangeTheStore) {
  seed();
  std::vector<uint32_t> ids;
  const auto remove = [](const CFM_VALUE *value, void *user) -> uint32_t {
    static_cast<std::vector<uint32_t> *>(user)->push_back(value->id);
    return CFM_StoreRemove(value->area, value->object, value->instance, value->id);
  };
  EXPECT_EQ(CFM_OK, CFM_StoreWalk(remove, &ids));

  EXPECT_THAT(ids, ElementsAre(kText, kNumber, CFM_PARA_WEB_USER_NAME, CFM_PARA_WEB_USER_LEVEL,
                               CFM_PARA_WEB_USER_LEVEL, kBytes, CFM_EQUIP_SOFTWARE_VERSION));
}

// Images from CFM_StoreExport.

std::string exported() {
  void *block = nullptr;
  uint32_t size = 0;
  EXPECT_EQ(CFM_OK, CFM_StoreExport(&block, &size));
  const std::string image(static_cast<char *>(block), size);
  std::free(block);
  return image;
}

uint32_t import(const std::string &image) {
  return CFM_StoreImport(image.data(), static_cast<uint32_t>(image.size()));
}

uint32_t check(const std::string &image) {
  return CFM_StoreCheckImage(image.data(), static_cast<uint32_t>(image.size()));
}

std::string image_of(const std::string &sql) {
  sqlite3 *db;
  EXPECT_EQ(SQLITE_OK, sqlite3_open(":memory:", &db));
  EXPECT_EQ(SQLITE_OK, sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr));
  sqlite3_int64 size;
  unsigned char *bytes = sqlite3_serialize(db, "main", &size, 0);
  const std::string image(reinterpret_cast<char *>(bytes), static_cast<size_t>(size));
  sqlite3_free(bytes);
  sqlite3_close(db);
  return image;
}

// Equipment data stays as it is: it belongs to the device.
TEST(Store, BringsBackDefaultsAndImages) {
  seed();
  const std::string image = exported();
  const CFM_VALUE changes[] = {
      {CFM_AREA_EQUIPMENT, 0, 0, CFM_EQUIP_SOFTWARE_VERSION, CFM_TYPE_TEXT, 32, "V2", 2},
      {CFM_AREA_APP_DATA, 0, 0, kBytes, CFM_TYPE_BYTES, 4, "\7", 1}};
  ASSERT_EQ(CFM_OK, CFM_StoreDefine(changes, 2, 0));
  ASSERT_EQ(CFM_OK, set_number(kNumber, 9));
  ASSERT_EQ(CFM_OK, CFM_StoreAddInstance(CFM_OBJ_WEB_USER, 12));
  char text[32];

  EXPECT_EQ(CFM_OK, CFM_StoreRestoreAppData());
  EXPECT_EQ(9u, stored_number());
  EXPECT_EQ(CFM_ERR_TOO_SMALL, ORP_APPDATA_ReadAppData(kBytes, text, 1));

  for (const bool from_image : {false, true}) {
    EXPECT_EQ(CFM_OK, from_image ? import(image) : CFM_StoreRestoreDefaults());
    EXPECT_EQ(7u, stored_number());
    EXPECT_THAT(user_instances(), ElementsAre(1, 9));
    EXPECT_EQ(CFM_OK, ORP_APPDATA_ReadEquip(CFM_EQUIP_SOFTWARE_VERSION, text, sizeof text));
    EXPECT_STREQ("V2", text);

    ASSERT_EQ(CFM_OK, set_number(kNumber, 9));
    ASSERT_EQ(CFM_OK, CFM_StoreRemove(CFM_AREA_PARAMETER, CFM_OBJ_WEB_USER, 1, 0));
    EXPECT_EQ(CFM_OK, check(image));
    EXPECT_EQ(9u, stored_number());
  }
}

TEST(StoreImage, IsRefusedWhenDamagedOrForeignAndTheStoreStaysAsItWas) {
  seed();
  const std::string image = exported();
  const std::string marked = "PRAGMA application_id=1128680753; PRAGMA user_version=";
  const std::string damaged[] = {
      "",
      std::string(8192, 'x'),
      image.substr(0, image.size() / 2),
      image_of("CREATE TABLE other(x)"),
      image_of("CREATE TABLE value(x);" + marked + "1"),
      image_of("CREATE TABLE t(x); CREATE VIEW value AS SELECT 1;" + marked + "1")};

  for (const std::string &each : damaged) {
    EXPECT_EQ(CFM_ERR_DAMAGED, import(each));
    EXPECT_EQ(7u, stored_number());
  }
  EXPECT_EQ(CFM_ERR_VERSION, import(image_of("CREATE TABLE value(x);" + marked + "2")));
  EXPECT_EQ(7u, stored_number());
  EXPECT_EQ(CFM_OK, CFM_StoreCheck());
  // Flipped bytes may hit data, which nothing checks; but they must do no harm.
  for (size_t i = 0; i < image.size(); i += 97) {
    std::string flipped = image;
    flipped[i] = static_cast<char>(~flipped[i]);
    check(flipped);
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
    const pid_t child = start_child([] {
      uint32_t value;
      const uint32_t read = ORP_DBGetPara(nullptr, kNumber, &value, 4);
      return static_cast<int>((read == CFM_OK ? CFM_StoreCheck() : read) & 0xFF);
    });
    return 0x30000u | static_cast<uint32_t>(WEXITSTATUS(status_of(child)));
  };

  std::string damaged = bytes;
  std::fill(damaged.begin() + 4096, damaged.end(), 'x');
  EXPECT_EQ(CFM_ERR_DAMAGED, child_reads(damaged));
  EXPECT_EQ(CFM_ERR_DAMAGED, child_reads(std::string(8192, 'x')));
  EXPECT_EQ(CFM_ERR_UNAVAILABLE, child_reads(""));
  bytes[63] = 2;  // the last byte of user_version, in the header of the file format
  EXPECT_EQ(CFM_ERR_VERSION, child_reads(bytes));
}

TEST(Store, SeveralProcessesWriteAtOnceAndForkInTheMiddle) {
  seed();
  std::vector<pid_t> writers;
  for (uint32_t id = 0x1000; id < 0x1004; ++id) {
    writers.push_back(start_child([id] {
      // Each value is found again by its own writer: nobody's write is lost.
      test::define_number(id, 0);
      for (uint32_t i = 0; i < 50; ++i) {
        if (set_number(id, i) != CFM_OK || stored_number(id) != i) return 1;
      }
      return 0;
    }));
    EXPECT_EQ(7u, stored_number());
  }
  for (const pid_t writer : writers) EXPECT_EQ(0, status_of(writer));
  EXPECT_EQ(CFM_OK, CFM_StoreCheck());
}

TEST(Store, SurvivesWritersThatAreKilled) {
  seed();
  for (int round = 0; round < 20; ++round) {
    int ready[2];
    ASSERT_EQ(0, ::pipe(ready));
    const pid_t writer = start_child([&] {
      // Both values change together; a reader may never see one without the other.
      for (uint32_t i = 0;; ++i) {
        const CFM_VALUE pair[] = {{CFM_AREA_PARAMETER, 0, 0, 0x2001, CFM_TYPE_NUMBER, 4, &i, 4},
                                  {CFM_AREA_PARAMETER, 0, 0, 0x2002, CFM_TYPE_NUMBER, 4, &i, 4}};
        if (CFM_StoreDefine(pair, 2, 0) != CFM_OK || ::write(ready[1], "x", 1) != 1) return 1;
      }
    });
    char byte;
    for (int writes = 0; writes < 3; ++writes) ASSERT_EQ(1, ::read(ready[0], &byte, 1));
    // Each round kills the writer at another moment of its writes.
    for (int i = 0; i < round * 100; ++i) (void)::getppid();
    ::kill(writer, SIGKILL);
    EXPECT_TRUE(WIFSIGNALED(status_of(writer)));
    ::close(ready[0]);
    ::close(ready[1]);

    EXPECT_EQ(CFM_OK, CFM_StoreCheck());
    EXPECT_EQ(stored_number(0x2001), stored_number(0x2002));
    EXPECT_EQ(CFM_OK, set_number(0x2001, 0)) << "no lock is left behind";
  }
}

// Each of these writes once made the log 4 kB longer, for ever.
TEST(Store, LogIsEmptiedFromTimeToTime) {
  seed();
  constexpr uint32_t kWrites = 3000;
  for (uint32_t i = 0; i < kWrites; ++i) ASSERT_EQ(CFM_OK, set_number(kNumber, i));

  EXPECT_EQ(kWrites - 1, stored_number());
  EXPECT_LT(std::filesystem::file_size(CFM_STORE_PATH "-wal"), 5242880u);
}

int g_opens_until_failure;

int open_or_fail(const char *path, int flags, int mode) {
  if (--g_opens_until_failure == 0) return errno = EMFILE, -1;
  return ::open(path, flags, mode);
}

// A missing descriptor costs one call at most, whichever file it was for. SQLite opens a file for
// reading when it cannot open it for writing, and keeps that.
TEST(Store, StaysWritableAfterADescriptorWasMissingOnce) {
  seed();
  sqlite3_vfs *vfs = sqlite3_vfs_find(nullptr);
  constexpr int kAllOpened = 3;
  int nth = 0, result = 0;
  while (result == 0) {
    ++nth;
    result = WEXITSTATUS(status_of(start_child([&] {
      vfs->xSetSystemCall(vfs, "open", reinterpret_cast<sqlite3_syscall_ptr>(open_or_fail));
      g_opens_until_failure = nth;
      set_number(kNumber, 8);
      if (g_opens_until_failure > 0) return kAllOpened;
      return set_number(kNumber, 9) == CFM_OK ? 0 : 1;
    })));
  }
  EXPECT_EQ(kAllOpened, result) << "after the failure of open number " << nth;
  EXPECT_LT(3, nth) << "the database, its log and the log's index are opened";
}

}  // namespace
