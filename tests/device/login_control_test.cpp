#include <gtest/gtest.h>

#include <numeric>
#include <string>
#include <thread>

#include "cfmstore.h"
#include "msgapi/login.h"
#include "msgapi/status.h"
#include "support/message_peer.h"

namespace {

using test::Connection;

std::string counted_bytes(size_t size) {
  std::string bytes(size, '\0');
  std::iota(bytes.begin(), bytes.end(), '\0');
  return bytes;
}

TEST(LoginControl, ExchangesWholeRecords) {
  const struct {
    uint32_t (*function)(const void *, void *);
    uint32_t type;
    size_t request, result;
  } kCases[] = {{ORP_LCTRLAPI_Login, ORP_LCTRL_MSG_LOGIN, 200, 20},
                {ORP_LCTRLAPI_Check, ORP_LCTRL_MSG_CHECK, 200, 20},
                {ORP_LCTRLAPI_GetForbiddenRound, ORP_LCTRL_MSG_GET_ROUND, 12, 8}};
  Connection connection("self");
  for (const auto &each : kCases) {
    const std::string request = counted_bytes(each.request);
    // The first message of its type is the reply, even if it is there before the request.
    const auto reply_with = [&](size_t size) {
      connection.peer.send({.type = each.type, .body = counted_bytes(size)});
    };
    std::string result(each.result + 1, 'x');
    reply_with(each.result + 5);
    EXPECT_EQ(ORP_LCTRL_OK, each.function(request.data(), result.data()));
    EXPECT_EQ(counted_bytes(each.result) + "x", result);

    connection.peer.expect({.type = each.type, .body = request});

    result.assign(each.result, 'x');
    reply_with(each.result - 1);
    EXPECT_EQ(ORP_LCTRL_ERR_REPLY, each.function(request.data(), result.data()));
    EXPECT_EQ(std::string(each.result, 'x'), result);
    connection.peer.read();
    EXPECT_EQ(ORP_LCTRL_ERR_ARGUMENT, each.function(request.data(), nullptr));
  }
}

TEST(LoginControl, SendsLimitsAndClearsWithoutWaiting) {
  Connection connection("self");
  EXPECT_EQ(ORP_OK, ORP_LCTRLAPI_SetMaxFailedTimes("12345678"));
  EXPECT_EQ(ORP_LCTRL_ERR_ARGUMENT, ORP_LCTRLAPI_SetMaxFailedTimes(nullptr));
  EXPECT_EQ(ORP_OK, ORP_LCTRLAPI_ClearForbiddenList(0x64636261));

  connection.peer.expect({.type = ORP_LCTRL_MSG_SET_MAX_FAILED, .body = "12345678"});
  connection.peer.expect({.type = ORP_LCTRL_MSG_CLEAR_FORBIDDEN, .body = "abcd"});
}

TEST(LoginControl, TriesOnceMoreAfterATimeOut) {
  Connection connection("self");
  const std::string request(200, 'r');
  std::string result(20, 'x');
  // Answers only the second request.
  std::thread service([&connection] {
    connection.peer.read();
    connection.peer.answer(connection.peer.read(), 0, counted_bytes(20));
  });

  testing::internal::CaptureStdout();
  EXPECT_EQ(ORP_LCTRL_OK, ORP_LCTRLAPI_Login(request.data(), result.data()));
  EXPECT_EQ("msg timeout error : 65541 \n", testing::internal::GetCapturedStdout());
  EXPECT_EQ(counted_bytes(20), result);
  service.join();

  // Nothing else is tried again.
  connection.peer.close();
  testing::internal::CaptureStdout();
  EXPECT_EQ(ORP_ERR_PEER_GONE, ORP_LCTRLAPI_Check(request.data(), result.data()));
  EXPECT_EQ("", testing::internal::GetCapturedStdout());
  EXPECT_EQ(counted_bytes(20), result) << "untouched";
}

TEST(LoginWaitTime, IsTheStoredValueUpTo10) {
  EXPECT_EQ(0u, ORP_LCTRLAPI_LoginWaitTime()) << "no store";
  for (const uint32_t value : {0u, 10u, 11u, 0xFFFFFFFFu}) {
    const CFM_VALUE stored = {CFM_AREA_PARAMETER, 0, 0,      CFM_PARA_LOGIN_WAIT,
                              CFM_TYPE_NUMBER,    4, &value, 4};
    ASSERT_EQ(CFM_OK, CFM_StoreDefine(&stored, 1, 0));
    EXPECT_EQ(value == 10 ? 10u : 0u, ORP_LCTRLAPI_LoginWaitTime()) << value;
  }
}

}  // namespace
