// The configuration manager behind the message server.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "cfmapi.h"
#include "msgapi/dmmsg.h"
#include "servers/services.h"
#include "support/file.h"
#include "support/message_peer.h"
#include "support/store.h"

namespace {

using test::RawClient;
using testing::HasSubstr;

class ConfigManager : public test::Services {
 protected:
  static constexpr const char *kFile = "/mnt/exported.cfg";

  ConfigManager() {
    std::filesystem::create_directories(CFM_STORE_DIRECTORY);
    test::define_number(CFM_PARA_LOGIN_WAIT, 3);
    start();
    client_ = std::make_unique<RawClient>("web");
  }

  void restart(const std::vector<std::string> &arguments) {
    EXPECT_EQ(0, server_->stop(SIGTERM));
    start(arguments);
    client_ = std::make_unique<RawClient>("web");
  }

  static void set(uint32_t value) {
    EXPECT_EQ(CFM_OK, ORP_DBSetPara(nullptr, CFM_PARA_LOGIN_WAIT, &value, sizeof value));
  }
  static uint32_t get() {
    uint32_t value = 0;
    EXPECT_EQ(CFM_OK, ORP_DBGetPara(nullptr, CFM_PARA_LOGIN_WAIT, &value, sizeof value));
    return value;
  }

  uint32_t ask(uint32_t type, const std::string &path = "") {
    const std::string body = path.empty() ? "" : path + '\0';
    return client_->ask({.type = type, .body = body}).data;
  }

  std::unique_ptr<RawClient> client_;
};

TEST_F(ConfigManager, SavesAndBringsBackDefaults) {
  set(7);
  for (const uint32_t type : {ORP_MSG_SAVE_CFG, ORP_MSG_SAVE_CFG_TO_APP})
    client_->send({.type = type});
  for (const uint32_t type : {ORP_MSG_SAVE_CFG_SYNC, ORP_MSG_SAVE_APPDATA_SYNC,
                              ORP_MSG_SAVE_CFG_TO_APP_SYNC, ORP_MSG_DELETE_APPDATA})
    EXPECT_EQ(0u, ask(type));
  EXPECT_EQ(7u, get());
  client_->send({.type = ORP_MSG_RESTORE_DEFAULTS, .body = std::string(7, '\0')});
  EXPECT_EQ(0u, ask(ORP_MSG_SAVE_CFG_SYNC));
  EXPECT_EQ(7u, get()) << "the request is too short";

  client_->send({.type = ORP_MSG_RESTORE_DEFAULTS, .body = std::string(8, '\0')});
  EXPECT_EQ(0u, ask(ORP_MSG_SAVE_CFG_SYNC));  // done one after the other
  EXPECT_EQ(3u, get());
}

TEST_F(ConfigManager, ExportsAndImportsTheWholeStore) {
  set(7);
  client_->send({.type = ORP_MSG_EXPORT_USER, .data = 2});
  ASSERT_EQ(0u, ask(ORP_MSG_EXPORT_CFG_FILE, kFile));
  set(9);

  EXPECT_EQ(0u, ask(ORP_MSG_CHECK_CFG_FILE, kFile));
  EXPECT_EQ(9u, get());
  EXPECT_EQ(0u, ask(ORP_MSG_IMPORT_CFG_FILE, kFile));
  EXPECT_EQ(7u, get());

  for (const char *secret : {"/var/cfm/export.key", kFile}) {
    EXPECT_EQ(std::filesystem::perms{0600}, std::filesystem::status(secret).permissions());
  }
  EXPECT_EQ(32u, std::filesystem::file_size("/var/cfm/export.key"));
  EXPECT_EQ(2, test::contents(kFile)[8]);
  EXPECT_THAT(test::contents(kFile), testing::Not(HasSubstr("SQLite")));
}

TEST_F(ConfigManager, RefusesWhatItDidNotWriteItself) {
  set(7);
  ASSERT_EQ(0u, ask(ORP_MSG_EXPORT_CFG_FILE, kFile));
  const std::string whole = test::contents(kFile);
  set(9);
  const auto refused = [&](const std::string &content) {
    std::ofstream(kFile) << content;
    const bool not_taken = ask(ORP_MSG_IMPORT_CFG_FILE, kFile) != 0;
    EXPECT_EQ(not_taken, ask(ORP_MSG_CHECK_CFG_FILE, kFile) != 0);
    EXPECT_EQ(not_taken, get() == 9);
    return not_taken;
  };

  const size_t step = std::max<size_t>(whole.size() / 200, 1);
  for (size_t at = 0; at < whole.size(); at += at < 100 ? 1 : step) {
    std::string damaged = whole;
    damaged[at] = static_cast<char>(damaged[at] ^ 0x10);
    ASSERT_TRUE(refused(damaged)) << at;
  }
  for (const size_t cut : {size_t{0}, size_t{1}, size_t{39}, size_t{55}, whole.size() - 1}) {
    EXPECT_TRUE(refused(whole.substr(0, cut))) << cut;
  }
  EXPECT_TRUE(refused(whole + "x"));
  EXPECT_FALSE(refused(whole));  // the test itself would notice
  EXPECT_EQ(7u, get());

  // A file of another device.
  set(9);
  std::filesystem::rename("/var/cfm/export.key", "/var/cfm/old.key");
  ASSERT_EQ(0u, ask(ORP_MSG_EXPORT_CFG_FILE, "/mnt/other.cfg"));
  EXPECT_TRUE(refused(whole));
  // A key that others can read is not used.
  std::filesystem::permissions("/var/cfm/export.key", std::filesystem::perms{0644});
  EXPECT_NE(0u, ask(ORP_MSG_IMPORT_CFG_FILE, "/mnt/other.cfg"));
  EXPECT_NE(0u, ask(ORP_MSG_EXPORT_CFG_FILE, "/mnt/third.cfg"));
}

TEST_F(ConfigManager, WritesOnlyWhereExportsMayBe) {
  std::filesystem::create_directory("/app/elsewhere");
  std::filesystem::create_symlink("/app/elsewhere", "/mnt/link");
  std::filesystem::create_directory("/mnt/usb");

  for (const char *path : {"", "relative", "/app/x.cfg", "/mnt/../app/x.cfg",
                           "/mnt/usb/../../app/x.cfg", "/mnt/link/x.cfg", "/var/x.cfg",
                           "/var/cfm/cfm.db", "/mnt/", "/mnt/.", "/mnt/..", "/mnt/none/x.cfg"}) {
    EXPECT_NE(0u, ask(ORP_MSG_EXPORT_CFG_FILE, path)) << path;
    EXPECT_NE(0u, ask(ORP_MSG_IMPORT_CFG_FILE, path)) << path;
  }
  const std::string long_path = "/mnt/" + std::string(PATH_MAX, '/') + "x.cfg";
  EXPECT_EQ(ORP_CFM_ERR_FILE_PLACE, ask(ORP_MSG_EXPORT_CFG_FILE, long_path));
  EXPECT_EQ(0u, ask(ORP_MSG_EXPORT_CFG_FILE, "/mnt/usb//./x.cfg"));
  EXPECT_EQ(0u, ask(ORP_MSG_IMPORT_CFG_FILE, "/mnt/usb/x.cfg"));
  EXPECT_TRUE(std::filesystem::is_empty("/app/elsewhere"));
}

TEST_F(ConfigManager, KeepsExportsAndTheKeyWhereItIsTold) {
  for (const char *each : {"/var/exports", "/var/exports2", "/var/keys", "/var/usb"}) {
    std::filesystem::create_directory(each);
  }
  // A named directory may itself be a link.
  std::filesystem::create_symlink("/var/usb", "/var/exports/usb");
  restart({"--export-dir", "/var/exports/usb", "--export-dir", "/var/exports", "--export-dir",
           "/var/keys/", "--export-key", "/var/keys/device"});

  EXPECT_EQ(0u, ask(ORP_MSG_EXPORT_CFG_FILE, "/var/exports/x.cfg"));
  EXPECT_EQ(0u, ask(ORP_MSG_CHECK_CFG_FILE, "/var/exports/x.cfg"));
  EXPECT_EQ(0u, ask(ORP_MSG_EXPORT_CFG_FILE, "/var/exports/usb/x.cfg"));
  EXPECT_TRUE(std::filesystem::exists("/var/usb/x.cfg"));
  EXPECT_EQ(32u, std::filesystem::file_size("/var/keys/device"));
  EXPECT_FALSE(std::filesystem::exists("/var/cfm/export.key"));
  // Beside the named directories, in none that was there before, and not where the key is.
  for (const char *path :
       {"/var/exports2/x.cfg", "/var/exports", kFile, "/tmp/x.cfg", "/var/keys/x.cfg"}) {
    EXPECT_EQ(ORP_CFM_ERR_FILE_PLACE, ask(ORP_MSG_EXPORT_CFG_FILE, path)) << path;
  }
}

TEST_F(ConfigManager, SaysWhatAFileOrTheKeyLacks) {
  EXPECT_EQ(ORP_CFM_ERR_FILE_KEY, ask(ORP_MSG_IMPORT_CFG_FILE, "/mnt/none")) << "no key yet";
  ASSERT_EQ(0u, ask(ORP_MSG_EXPORT_CFG_FILE, kFile));
  std::filesystem::create_directory("/mnt/full");
  ASSERT_EQ(0, ::mount("full", "/mnt/full", "tmpfs", 0, "size=4k")) << std::strerror(errno);
  std::filesystem::create_directory("/mnt/directory");
  std::ofstream("/mnt/sparse") << "x";
  std::filesystem::resize_file("/mnt/sparse", (64 << 20) + 100);

  EXPECT_EQ(ORP_CFM_ERR_FILE_WRITE, ask(ORP_MSG_EXPORT_CFG_FILE, "/mnt/full/x.cfg"));
  EXPECT_TRUE(std::filesystem::is_empty("/mnt/full"));
  EXPECT_EQ(ORP_CFM_ERR_FILE_READ, ask(ORP_MSG_IMPORT_CFG_FILE, "/mnt/none"));
  EXPECT_EQ(ORP_CFM_ERR_FILE_FOREIGN, ask(ORP_MSG_IMPORT_CFG_FILE, "/mnt/directory"));
  EXPECT_EQ(ORP_CFM_ERR_FILE_FOREIGN, ask(ORP_MSG_IMPORT_CFG_FILE, "/mnt/sparse")) << "too large";

  restart({"--export-key", "/var/none/key"});
  EXPECT_EQ(ORP_CFM_ERR_FILE_KEY, ask(ORP_MSG_EXPORT_CFG_FILE, "/mnt/new.cfg"));
  EXPECT_FALSE(std::filesystem::exists("/mnt/new.cfg"));

  // What is no key is not used, nor replaced.
  std::filesystem::create_directories("/var/keys/directory");
  std::ofstream("/var/keys/short") << std::string(31, 'k');
  std::ofstream("/var/keys/good") << std::string(32, 'k');
  std::ofstream("/mnt/full/file") << std::string(4096, 'f');
  for (const char *name : {"short", "good"}) {
    std::filesystem::permissions(std::string("/var/keys/") + name, std::filesystem::perms{0600});
  }
  std::filesystem::create_symlink("good", "/var/keys/link");
  for (const char *key : {"/var/keys/directory", "/var/keys/short", "/var/keys/link",
                          "/mnt/full/key", "/var/keys/good"}) {
    restart({"--export-key", key});
    const uint32_t expected = std::string(key).ends_with("good") ? 0u : ORP_CFM_ERR_FILE_KEY;
    EXPECT_EQ(expected, ask(ORP_MSG_EXPORT_CFG_FILE, "/mnt/new.cfg")) << key;
  }
  EXPECT_EQ(31u, std::filesystem::file_size("/var/keys/short"));
  EXPECT_EQ(1, std::distance(std::filesystem::directory_iterator("/mnt/full"), {}));
}

TEST_F(ConfigManager, GoesOnWhenARequesterLeaves) {
  for (int i = 0; i < 5; ++i) {
    client_->send({.type = ORP_MSG_EXPORT_CFG_FILE, .body = std::string(kFile) + '\0'});
  }
  client_->close();
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(server_->wait_for(std::string(kFile) + ": done"));
  client_ = std::make_unique<RawClient>("web");
  EXPECT_EQ(0u, ask(ORP_MSG_CHECK_CFG_FILE, kFile));
}

TEST_F(ConfigManager, KeepsNobodyWaitingForTheManyRequestsOfAnother) {
  // Whoever reads this key waits until somebody writes it.
  ASSERT_EQ(0, ::mkfifo("/var/key", 0600));
  restart({"--export-key", "/var/key", "--tcp", "127.0.0.1:7070", "--user-jobs", "8"});
  std::vector<RawClient> boards;
  for (const size_t refused : {1, 1, 1, 1, 3}) {  // a connection may have a quarter of the eight
    RawClient &board = boards.emplace_back("board", uint16_t{7070});
    for (int i = 0; i < 3; ++i) {
      board.send({.type = ORP_MSG_CHECK_CFG_FILE, .body = std::string(kFile) + '\0'});
    }
    const auto notices = board.drain();
    ASSERT_EQ(refused, notices.size());
    for (const test::Frame &notice : notices) {
      EXPECT_EQ(ORP_MSG_UNDELIVERABLE, notice.type);
      EXPECT_EQ(ORP_MSG_CHECK_CFG_FILE, notice.data);
    }
  }
  EXPECT_TRUE(server_->wait_for("has as many configuration requests"));

  // It is this user's turn after the board's first.
  client_->send({.type = ORP_MSG_SAVE_CFG_SYNC});
  EXPECT_THAT(client_->drain(), testing::IsEmpty());
  std::ofstream("/var/key").close();
  EXPECT_EQ(ORP_MSG_SAVE_CFG_SYNC, client_->read().type);

  const std::fstream both_ends("/var/key");
  for (size_t i = 0; i < 4; ++i) {
    for (int each = 0; each < 2; ++each) EXPECT_EQ(ORP_CFM_ERR_FILE_KEY, boards[i].read().data);
  }
  EXPECT_EQ(
      ORP_CFM_ERR_FILE_KEY,
      boards[4].ask({.type = ORP_MSG_CHECK_CFG_FILE, .body = std::string(kFile) + '\0'}).data);
}

TEST_F(ConfigManager, ReplacesOnlyEarlierExports) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{AF_UNIX, "/mnt/socket"};
  ASSERT_EQ(0, ::bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address));
  ::close(fd);
  ASSERT_EQ(0, ::mkfifo("/mnt/fifo", 0600));
  std::filesystem::create_directory("/mnt/directory");
  std::ofstream("/mnt/text") << "somebody's file";
  std::ofstream("/mnt/empty");
  std::ofstream("/mnt/x.cfg.new") << "somebody's file";
  ASSERT_EQ(0u, ask(ORP_MSG_EXPORT_CFG_FILE, kFile));
  std::filesystem::create_symlink(kFile, "/mnt/link");

  for (const std::string name : {"socket", "fifo", "directory", "text", "empty", "link"}) {
    EXPECT_EQ(ORP_CFM_ERR_FILE_TAKEN, ask(ORP_MSG_EXPORT_CFG_FILE, "/mnt/" + name)) << name;
  }
  EXPECT_TRUE(std::filesystem::is_socket("/mnt/socket"));
  EXPECT_EQ("somebody's file", test::contents("/mnt/text"));
  EXPECT_TRUE(std::filesystem::is_symlink("/mnt/link"));
  EXPECT_EQ(0u, ask(ORP_MSG_EXPORT_CFG_FILE, "/mnt/x.cfg"));
  EXPECT_EQ("somebody's file", test::contents("/mnt/x.cfg.new"));
  EXPECT_EQ(0u, ask(ORP_MSG_EXPORT_CFG_FILE, kFile)) << "an earlier export";
  for (const auto &entry : std::filesystem::directory_iterator("/mnt")) {
    EXPECT_NE('.', entry.path().filename().string()[0]) << "left behind";
  }
}

TEST_F(ConfigManager, IsNotLedElsewhereByASwappedDirectory) {
  std::filesystem::create_directory("/app/elsewhere");
  std::filesystem::create_directory("/mnt/real");
  std::filesystem::create_symlink("/app/elsewhere", "/mnt/trap");
  std::atomic<bool> ends = false;
  std::thread swapper([&ends] {
    while (!ends) {
      ::renameat2(AT_FDCWD, "/mnt/real", AT_FDCWD, "/mnt/trap", RENAME_EXCHANGE);
    }
  });
  for (int i = 0; i < 200; ++i) ask(ORP_MSG_EXPORT_CFG_FILE, "/mnt/real/x.cfg");
  ends = true;
  swapper.join();
  EXPECT_TRUE(std::filesystem::is_empty("/app/elsewhere"));
}

TEST_F(ConfigManager, LogsWhoTransfersWhat) {
  const std::string who =
      "web[" + std::to_string(::getpid()) + "], uid " + std::to_string(::getuid());
  ask(ORP_MSG_EXPORT_CFG_FILE, kFile);
  EXPECT_TRUE(server_->wait_for(who + ": export to " + kFile + ": done"));
  ask(ORP_MSG_IMPORT_CFG_FILE, kFile);
  EXPECT_TRUE(server_->wait_for(who + ": import from " + kFile + ": done"));
  ask(ORP_MSG_EXPORT_CFG_FILE, "/var/run/msgsvr");
  EXPECT_TRUE(server_->wait_for(who + ": export to /var/run/msgsvr: files may not be there"));
}

}  // namespace
