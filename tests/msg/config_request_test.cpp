#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>

#include "cfmstore.h"
#include "msgapi/dmmsg.h"
#include "msgapi/dynapp.h"
#include "msgapi/status.h"
#include "support/message_peer.h"

namespace {

using test::Connection;

TEST(ConfigRequest, SendsWithoutWaitingForTheCurrentUser) {
  Connection connection("self");
  CFM_SetCurrUser(6);
  const std::pair<uint32_t (*)(), uint32_t> kCases[] = {
      {ORP_DB_SaveFunc, ORP_MSG_SAVE_CFG},
      {ORP_DBSaveFunc, ORP_MSG_SAVE_CFG},
      {ORP_DB_SaveToAppFunc, ORP_MSG_SAVE_CFG_TO_APP},
      {ORP_DBSaveToAppFunc, ORP_MSG_SAVE_CFG_TO_APP}};
  for (const auto &[function, type] : kCases) {
    EXPECT_EQ(ORP_OK, function());
    connection.peer.expect({.type = type, .data = 6});
  }

  EXPECT_EQ(ORP_OK, ORP_CFM_ExtRestoreDft(3));
  EXPECT_EQ(ORP_OK, ORP_CFM_ExtReboot(8));
  const uint32_t words[] = {3, 6};
  connection.peer.expect({.type = ORP_MSG_RESTORE_DEFAULTS,
                          .body = {reinterpret_cast<const char *>(words), sizeof words}});
  connection.peer.expect({.type = ORP_MSG_REBOOT, .data = 8});
}

// The replies are there before the requests are sent, because the first message of the type is the
// answer.

TEST(ConfigRequest, ReturnsTheDataOfTheReply) {
  Connection connection("self");
  CFM_SetCurrUser(6);
  const std::pair<uint32_t (*)(), uint32_t> kCases[] = {
      {ORP_DB_SaveSyncFunc, ORP_MSG_SAVE_CFG_SYNC},
      {ORP_DBSaveSyncFunc, ORP_MSG_SAVE_CFG_SYNC},
      {ORP_AppSaveSyncFunc, ORP_MSG_SAVE_APPDATA_SYNC},
      {ORP_DB_SaveToAppSyncFunc, ORP_MSG_SAVE_CFG_TO_APP_SYNC},
      {ORP_DBSaveToAppSyncFunc, ORP_MSG_SAVE_CFG_TO_APP_SYNC},
      {ORP_CFM_DelAppdata, ORP_MSG_DELETE_APPDATA},
      {ORP_UTIL_KillAllDynApp, ORP_MSG_DYNAPP_STOP_ALL}};
  for (const auto &[function, type] : kCases) {
    connection.peer.send({.type = type, .data = 0x77});
    EXPECT_EQ(0x77u, function());
    connection.peer.expect({.type = type});
  }
  connection.peer.close();
  EXPECT_EQ(ORP_ERR_PEER_GONE, ORP_DB_SaveSyncFunc());
}

TEST(ConfigRequest, SendsPathsWithTheirNul) {
  Connection connection("self");
  const std::tuple<uint32_t (*)(const char *), uint32_t, const char *> kCases[] = {
      {ORP_CFM_ExtExportEncryptedCfgFile, ORP_MSG_EXPORT_CFG_FILE, ""},
      {ORP_CFM_ExtImportEncryptedCfgFile, ORP_MSG_IMPORT_CFG_FILE,
       "before send ORP_MSG_IMPORT_CFG_FILE, file=/var/cfg.\n"},
      {ORP_DB_CheckFile, ORP_MSG_CHECK_CFG_FILE, ""},
      {ORP_DBCheckFile, ORP_MSG_CHECK_CFG_FILE, ""},
  };
  for (const auto &[function, type, printed] : kCases) {
    connection.peer.send({.type = type, .data = 0x31});
    connection.peer.send({.type = type});
    testing::internal::CaptureStdout();
    EXPECT_EQ(0x31u, function("/var/cfg"));
    EXPECT_EQ(0u, function(nullptr));
    EXPECT_EQ(printed, testing::internal::GetCapturedStdout());
    connection.peer.expect({.type = type, .body = std::string("/var/cfg\0", 9)});
    connection.peer.expect({.type = type});
  }

  const std::string longest(255, 'p');
  connection.peer.send({.type = ORP_MSG_CHECK_CFG_FILE});
  EXPECT_EQ(0u, ORP_DB_CheckFile(longest.c_str()));
  connection.peer.expect({.type = ORP_MSG_CHECK_CFG_FILE, .body = test::padded(longest, 256)});
  testing::internal::CaptureStdout();
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_DB_CheckFile((longest + "p").c_str()));
  EXPECT_EQ("copy payload error.", testing::internal::GetCapturedStdout());

  connection.peer.send({.type = ORP_MSG_EXPORT_CFG_FILE, .data = 4});
  EXPECT_EQ(4u, ORP_CFM_ExtExportEncCfgFileByUser("/f", 9));
  connection.peer.expect({.type = ORP_MSG_EXPORT_USER, .data = 9});
  connection.peer.expect({.type = ORP_MSG_EXPORT_CFG_FILE, .body = std::string("/f\0", 3)});
}

}  // namespace
