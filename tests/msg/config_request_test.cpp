#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "cfmstore.h"
#include "msgapi/dmmsg.h"
#include "msgapi/status.h"
#include "support/message_peer.h"

namespace {

using test::Connection;
using test::Frame;

// Puts the reply there before the request is sent: the first message of its type is the answer.
void reply_with(Connection &connection, uint32_t type, uint32_t data) {
  connection.peer.write(test::make_frame({.type = type, .data = data}));
}

TEST(ConfigRequest, SendsWithoutWaitingForTheCurrentUser) {
  Connection connection("self");
  CFM_SetCurrUser(6);
  const struct {
    uint32_t (*function)();
    uint32_t type;
  } kCases[] = {{ORP_DB_SaveFunc, 0x5009},
                {ORP_DBSaveFunc, 0x5009},
                {ORP_DB_SaveToAppFunc, 0x503F},
                {ORP_DBSaveToAppFunc, 0x503F}};
  for (const auto &each : kCases) {
    EXPECT_EQ(ORP_OK, each.function());
    const Frame frame = connection.peer.read();
    EXPECT_EQ(each.type, frame.type());
    EXPECT_EQ("", frame.to());
    EXPECT_EQ(6u, frame.header.ulMsgData);
    EXPECT_EQ(0u, frame.header.ulDataLen);
  }
}

TEST(ConfigRequest, ReturnsTheDataOfTheReply) {
  Connection connection("self");
  CFM_SetCurrUser(6);
  const struct {
    uint32_t (*function)();
    uint32_t type;
  } kCases[] = {{ORP_DB_SaveSyncFunc, 0x502B},     {ORP_DBSaveSyncFunc, 0x502B},
                {ORP_AppSaveSyncFunc, 0x502A},     {ORP_DB_SaveToAppSyncFunc, 0x5040},
                {ORP_DBSaveToAppSyncFunc, 0x5040}, {ORP_CFM_DelAppdata, 0x5033}};
  for (const auto &each : kCases) {
    reply_with(connection, each.type, 0x77);
    EXPECT_EQ(0x77u, each.function());
    const Frame frame = connection.peer.read();
    EXPECT_EQ(each.type, frame.type());
    EXPECT_EQ(0u, frame.header.ulMsgData);
    EXPECT_EQ(0u, frame.header.ulDataLen);
  }
  connection.peer.close();
  EXPECT_EQ(ORP_ERR_PEER_GONE, ORP_DB_SaveSyncFunc());
}

TEST(ConfigRequest, SendsPathsWithTheirNul) {
  Connection connection("self");
  const std::string longest(255, 'p');
  const struct {
    uint32_t (*function)(const char *);
    uint32_t type;
    const char *printed;
  } kCases[] = {
      {ORP_CFM_ExtExportEncryptedCfgFile, 0x5026, ""},
      {ORP_CFM_ExtImportEncryptedCfgFile, 0x5027,
       "before send ORP_MSG_IMPORT_CFG_FILE, file=/var/cfg.\n"},
      {ORP_DB_CheckFile, 0x5028, ""},
      {ORP_DBCheckFile, 0x5028, ""},
  };
  for (const auto &each : kCases) {
    reply_with(connection, each.type, 0x31);
    testing::internal::CaptureStdout();
    EXPECT_EQ(0x31u, each.function("/var/cfg"));
    EXPECT_EQ(each.printed, testing::internal::GetCapturedStdout());
    const Frame frame = connection.peer.read();
    EXPECT_EQ(each.type, frame.type());
    EXPECT_EQ(0u, frame.header.ulMsgData);
    EXPECT_EQ(std::string("/var/cfg\0", 9), frame.body);

    reply_with(connection, each.type, 0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(0u, each.function(nullptr));
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_EQ("", connection.peer.read().body);
  }

  reply_with(connection, 0x5028, 0);
  EXPECT_EQ(0u, ORP_DB_CheckFile(longest.c_str()));
  EXPECT_EQ(256u, connection.peer.read().body.size());
  testing::internal::CaptureStdout();
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_DB_CheckFile((longest + "p").c_str()));
  EXPECT_EQ("copy payload error.", testing::internal::GetCapturedStdout());
  EXPECT_TRUE(connection.peer.quiet());
}

TEST(ConfigRequest, ExportsForAUserAfterSayingWhom) {
  Connection connection("self");
  reply_with(connection, 0x5026, 4);

  EXPECT_EQ(4u, ORP_CFM_ExtExportEncCfgFileByUser("/f", 9));

  const Frame user = connection.peer.read();
  EXPECT_EQ(0x5035u, user.type());
  EXPECT_EQ(9u, user.header.ulMsgData);
  EXPECT_EQ(0u, user.header.ulDataLen);
  EXPECT_EQ(0x5026u, connection.peer.read().type());
}

TEST(ConfigRequest, RestoresDefaultsAndReboots) {
  Connection connection("self");
  CFM_SetCurrUser(6);
  EXPECT_EQ(ORP_OK, ORP_CFM_ExtRestoreDft(3));
  EXPECT_EQ(ORP_OK, ORP_CFM_ExtReboot(8));

  const Frame restore = connection.peer.read();
  EXPECT_EQ(0x500Fu, restore.type());
  EXPECT_EQ(0u, restore.header.ulMsgData);
  const uint32_t words[] = {3, 6};
  EXPECT_EQ(std::string(reinterpret_cast<const char *>(words), sizeof words), restore.body);
  const Frame reboot = connection.peer.read();
  EXPECT_EQ(0x500Eu, reboot.type());
  EXPECT_EQ(8u, reboot.header.ulMsgData);
}

}  // namespace
