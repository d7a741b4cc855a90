#include "msgapi/restful.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "support/allocation.h"
#include "support/message_peer.h"

namespace {

using test::Connection;
using test::Frame;
using test::padded;

// What the handlers note, in order.
std::vector<std::string> g_handled;

uint32_t echo(const ORP_MSG_RESTFUL_REQ_ST *request, char **response) {
  g_handled.push_back(ORP_MSG_RESTFUL_TEXT(request));
  EXPECT_EQ(nullptr, *response);
  *response = ::strdup(("echo " + g_handled.back()).c_str());
  return 0;
}

uint32_t silent(const ORP_MSG_RESTFUL_REQ_ST *, char **) {
  return 0;
}

uint32_t refusing(const ORP_MSG_RESTFUL_REQ_ST *, char **response) {
  *response = ::strdup("is freed all the same");
  return 5;
}

constexpr ORP_MSG_RESTFUL_ROW_ST kTable[] = {{"info", echo},    {"reset", silent},
                                             {"bad", refusing}, {"info", silent},
                                             {"gone", nullptr}, {nullptr, nullptr}};

const std::string kNoText(1, '\0');

std::string request_body(const std::string &path, const std::string &handler,
                         const std::string &text) {
  return std::string(8, '\7') + padded(path, 64) + padded(handler, 64) + text;
}

// Hands a request to the registered procedures like the loop.
void dispatch(const std::string &body, uint32_t type = ORP_MSG_RESTFUL_REQUEST) {
  ORP_MSG_DefaultMsgProcs(test::make_block({type, "self", body, 11, 12, "asker"}).get());
}

TEST(RestfulRegistration, AnnouncesThePathOrItsRows) {
  Connection connection("self");
  constexpr ORP_MSG_RESTFUL_ROW_ST kRows[] = {{"info", echo}, {"reset", echo}, {nullptr, nullptr}};

  EXPECT_EQ(ORP_OK, ORP_MSG_RegRestfulProc("/dev", kRows));
  EXPECT_EQ(ORP_OK, ORP_MSG_RegRestfulProcEx("/dev", kRows, 1));
  EXPECT_EQ(ORP_OK, ORP_MSG_RegRestfulProcEx("/none", kRows + 2, 1));

  for (const std::string expected : {"/dev", "/dev/info|/dev/reset", ""}) {
    connection.peer.expect({.type = ORP_MSG_RESTFUL_REGISTER, .body = expected + kNoText});
  }
}

TEST(RestfulRegistration, StopsTheListBeforeWhatNoLongerFits) {
  Connection connection("self");
  const std::string name(121, 'n');  // "/path/" and this: 127 characters
  std::vector<ORP_MSG_RESTFUL_ROW_ST> rows(40, {name.c_str(), echo});
  rows.push_back({nullptr, nullptr});

  EXPECT_EQ(ORP_OK, ORP_MSG_RegRestfulProcEx("/path", rows.data(), 1));
  // Too long for the socket: it comes in a hand-over file.
  const std::string file = connection.peer.read().body;
  EXPECT_EQ(32u * 127 + 31 + 1, std::filesystem::file_size(file.c_str()));
  EXPECT_EQ(ORP_ERR_MEMORY, ORP_MSG_RegRestfulProcEx("/paths", rows.data(), 1));
  EXPECT_TRUE(connection.peer.quiet());
}

TEST(RestfulRegistration, ReportsFailuresAndLeavesNothing) {
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_RegRestfulProc("/dev", nullptr));
  EXPECT_EQ(ORP_ERR_NOT_CONNECTED, ORP_MSG_RegRestfulProc("/dev", kTable));
  Connection connection("self");

  for (uint32_t nth = 1; nth <= 5; ++nth) {
    msgapi::fail_allocation(nth);
    EXPECT_EQ(ORP_ERR_MEMORY, ORP_MSG_RegRestfulProc("/dev", kTable));
    dispatch(request_body("/dev", "info", std::string("x\0", 2)));
    EXPECT_TRUE(g_handled.empty());
  }
  EXPECT_EQ(ORP_OK, ORP_MSG_RegRestfulProc("/dev", kTable));
  dispatch(request_body("/dev", "info", std::string("x\0", 2)));
  EXPECT_EQ(std::vector<std::string>{"x"}, g_handled) << "one dispatcher, one call";
}

// A process with two registrations of one path and one of another.
class RestfulRequest : public testing::Test {
 protected:
  RestfulRequest() {
    static constexpr ORP_MSG_RESTFUL_ROW_ST kSecond[] = {{"only", silent}, {nullptr, nullptr}};
    EXPECT_EQ(ORP_OK, ORP_MSG_RegRestfulProc("/dev", kTable));
    EXPECT_EQ(ORP_OK, ORP_MSG_RegRestfulProc("/lan", kTable));
    EXPECT_EQ(ORP_OK, ORP_MSG_RegRestfulProc("/dev", kSecond));
    for (int i = 0; i < 3; ++i) connection.peer.read();
  }

  Connection connection{"self"};
};

TEST_F(RestfulRequest, IsAnsweredWithTheHandlersText) {
  for (const uint32_t type :
       {ORP_MSG_RESTFUL_REQUEST_A, ORP_MSG_RESTFUL_REQUEST, ORP_MSG_RESTFUL_REQUEST_E}) {
    dispatch(request_body("/dev", "info", std::string("hello\0", 6)), type);
    EXPECT_EQ((Frame{type, "asker", std::string("echo hello\0", 11), 11, 12, "self"}),
              connection.peer.read());
  }
  dispatch(request_body("/lan", "reset", kNoText));
  EXPECT_EQ((Frame{ORP_MSG_RESTFUL_REQUEST, "asker", "", 11, 12, "self"}), connection.peer.read())
      << "no text";
}

TEST_F(RestfulRequest, IsNotAnsweredWhenNothingFitsOrTheHandlerFails) {
  // "only" is in the second registration.
  for (const char *name : {"bad", "unknown", "gone", "only"}) {
    dispatch(request_body("/dev", name, kNoText));
  }
  dispatch(request_body("/wan", "info", kNoText));
  dispatch(request_body("/dev", "info", "").substr(0, 135));
  dispatch(request_body("/dev", "info", kNoText), 0x10B);
  EXPECT_TRUE(connection.peer.quiet());
  EXPECT_TRUE(g_handled.empty());
}

TEST_F(RestfulRequest, TextThatIsMissingOrUnterminatedIsReadWithinTheMessage) {
  dispatch(request_body("/dev", "info", ""));
  dispatch(request_body("/dev", "info", "unterminated"));
  EXPECT_EQ((std::vector<std::string>{"", "unterminated"}), g_handled);

  msgapi::fail_allocation(1);
  dispatch(request_body("/dev", "info", ""));
  EXPECT_EQ(2u, g_handled.size()) << "dropped without memory";
}

TEST_F(RestfulRequest, FieldsWithoutANulAreReadWithinTheirSize) {
  const std::string path(64, 'p'), name(64, 'h');
  const ORP_MSG_RESTFUL_ROW_ST table[] = {{name.c_str(), silent}, {nullptr, nullptr}};
  ORP_MSG_RegRestfulProc(path.c_str(), table);
  connection.peer.read();
  dispatch(request_body(path, name, "text"));
  EXPECT_EQ(ORP_MSG_RESTFUL_REQUEST, connection.peer.read().type);
}

TEST(RestfulBuilder, FillsTheWholeBlock) {
  const test::MessageBlock message(
      ORP_MSG_BuildRestfulReqMsg(1, 2, "/dev", "info", "text and more", 4));

  std::string expected = request_body("/dev", "info", std::string("text\0", 5));
  expected.replace(0, 8, std::string("\1\0\0\0\2\0\0\0", 8));
  EXPECT_EQ((Frame{.type = ORP_MSG_RESTFUL_REQUEST, .body = expected, .sequence = 1}),
            test::frame_of(message.get()));

  const test::MessageBlock bare(ORP_MSG_BuildRestfulReqMsg(0, 0, nullptr, nullptr, "ab", 4));
  EXPECT_EQ(std::string(136, '\0') + padded("ab", 5), test::frame_of(bare.get()).body);
}

TEST(RestfulBuilder, RefusesWhatDoesNotFit) {
  const std::string long_name(64, 'x');
  EXPECT_EQ(nullptr, ORP_MSG_BuildRestfulReqMsg(0, 0, long_name.c_str(), "h", nullptr, 0));
  EXPECT_EQ(nullptr, ORP_MSG_BuildRestfulReqMsg(0, 0, "/p", long_name.c_str(), nullptr, 0));
  for (const uint32_t length : {0xFFFFFF4Eu, 0xFFFFFF4Fu, 0xFFFFFFFFu}) {
    EXPECT_EQ(nullptr, ORP_MSG_BuildRestfulReqMsg(0, 0, "/p", "h", nullptr, length));
  }
  msgapi::fail_allocation(1);
  EXPECT_EQ(nullptr, ORP_MSG_BuildRestfulReqMsg(0, 0, "/p", "h", nullptr, 0));
}

TEST(RestfulResponse, NeedsABody) {
  Connection connection("self");
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_SendRestfulResponseMsg("a", 1, nullptr, 0, 0, 0));
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_SendRestfulResponseMsg("a", 1, "b", 0xFFFFFFD7, 0, 0));
  EXPECT_EQ(ORP_OK,
            ORP_MSG_SendRestfulResponseMsg("asker", ORP_MSG_RESTFUL_REQUEST_A, "body", 4, 8, 9));

  EXPECT_EQ((Frame{ORP_MSG_RESTFUL_REQUEST_A, "asker", "body", 8, 9, "self"}),
            connection.peer.read());
}

}  // namespace
