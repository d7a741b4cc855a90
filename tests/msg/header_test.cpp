#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "msgapi/msg.h"
#include "support/allocation.h"

namespace {

struct Free {
  void operator()(void *block) const { std::free(block); }
};
using Message = std::unique_ptr<ORP_MSG_HEADER_ST, Free>;

std::string body_text(ORP_MSG_HEADER_ST *message) {
  return {static_cast<char *>(ORP_MSG_GetMsgByHeader(message)), message->ulDataLen};
}

// A request whose sender is a field without NUL.
ORP_MSG_HEADER_ST unterminated_request() {
  ORP_MSG_HEADER_ST request = {};
  request.ulMsgType = 0xabcd1234;
  request.ulSeqNum = 77;
  std::memcpy(request.aucSendApp, "twelve-chars", sizeof request.aucSendApp);
  return request;
}

TEST(SimpleBuilder, FillsAClearedHeaderWithTheNextSequenceNumber) {
  ORP_MSG_HEADER_ST header;
  std::memset(&header, 0xff, sizeof header);
  g_stMsgCtx.ulSeqNum = 0xfffffffe;

  ORP_MSG_SimpleBuilder(&header, "longer-than-eleven", 0x1234, 5);
  EXPECT_EQ(0x1234u, header.ulMsgType);
  EXPECT_EQ(5u, header.ulMsgData);
  EXPECT_EQ(0xffffffffu, header.ulSeqNum);
  EXPECT_EQ(0u, header.ulDataLen);
  EXPECT_STREQ("", header.aucSendApp);
  EXPECT_STREQ("longer-than", header.aucRecvApp);

  ORP_MSG_SimpleBuilder(&header, nullptr, 1, 0);
  EXPECT_EQ(0u, header.ulSeqNum) << "the counter wraps";
  EXPECT_STREQ("", header.aucRecvApp);
  ORP_MSG_SimpleBuilder(nullptr, "app", 1, 0);
}

TEST(ResponseBuilder, AnswersWithTypeAndNumberOfTheRequest) {
  const ORP_MSG_HEADER_ST request = unterminated_request();

  const Message bare(ORP_MSG_MsgRespBuilder(&request, 9, nullptr, 100));
  const Message full(ORP_MSG_MsgRespBuilder(&request, 9, "body", 4));

  for (const ORP_MSG_HEADER_ST *response : {bare.get(), full.get()}) {
    EXPECT_EQ(0xabcd1234u, response->ulMsgType);
    EXPECT_EQ(77u, response->ulSeqNum);
    EXPECT_EQ(9u, response->ulMsgData);
    EXPECT_STREQ("twelve-char", response->aucRecvApp);
  }
  EXPECT_EQ(0u, bare->ulDataLen);
  EXPECT_EQ("body", body_text(full.get()));
  EXPECT_EQ(1u, g_stMsgCtx.ulSeqNum) << "only the form without a body takes a number";
}

TEST(ResponseBuilder, RefusesWhatItCannotBuild) {
  const ORP_MSG_HEADER_ST request = unterminated_request();

  EXPECT_EQ(nullptr, ORP_MSG_MsgRespBuilder(nullptr, 0, nullptr, 0));
  EXPECT_EQ(nullptr, ORP_MSG_MsgRespBuilder(&request, 0, "x", 0x7fffffd7));
  testing::internal::CaptureStdout();
  EXPECT_EQ(nullptr, ORP_MSG_MsgRespBuilder(&request, 0, "x", 0x7fffffd6));
  EXPECT_EQ("error: not host tool, but malloc 4M, return NULL, malloc len=2147483646\n",
            testing::internal::GetCapturedStdout());
  EXPECT_EQ(1u, test::fail_every_allocation([&] {
              return Message(ORP_MSG_MsgRespBuilder(&request, 0, "x", 1)) != nullptr;
            }));
}

TEST(MessageBlock, LeadsFromBodyToHeaderAndBack) {
  void *body = ORP_MSG_GetMsgBlock(5);
  const Message message(ORP_MSG_GetMsgHead(body));

  EXPECT_EQ(5u, message->ulDataLen);
  EXPECT_EQ(0u, message->ulMsgType);
  EXPECT_EQ(body, ORP_MSG_GetMsgByHeader(message.get()));
  message->ulDataLen = 0;
  EXPECT_EQ(nullptr, ORP_MSG_GetMsgByHeader(message.get()));
  EXPECT_EQ(nullptr, ORP_MSG_GetMsgByHeader(nullptr));
  EXPECT_EQ(nullptr, ORP_MSG_GetMsgHead(nullptr));
}

TEST(MessageBlock, IsAtMostEightMebibytesLarge) {
  const Message largest(ORP_MSG_GetMsgHead(ORP_MSG_GetMsgBlock(0x800000 - 40)));
  EXPECT_NE(nullptr, largest);
  EXPECT_EQ(nullptr, ORP_MSG_GetMsgBlock(0x800000 - 39));
  EXPECT_EQ(nullptr, ORP_MSG_GetMsgBlock(0xffffffff)) << "40 + length must not wrap";
}

TEST(MessageBlock, FormatsACallersBufferOfAtLeastAHeader) {
  alignas(ORP_MSG_HEADER_ST) char buffer[41];
  std::memset(buffer, 0xff, sizeof buffer);

  EXPECT_EQ(nullptr, ORP_MSG_GetMsgBlockEx(buffer, 39));
  EXPECT_EQ(nullptr, ORP_MSG_GetMsgBlockEx(nullptr, 40));
  for (const uint32_t size : {40u, 41u}) {
    EXPECT_EQ(buffer + 40, ORP_MSG_GetMsgBlockEx(buffer, size));
    EXPECT_EQ(size - 40, ORP_MSG_GetMsgHead(buffer + 40)->ulDataLen);
  }
  EXPECT_EQ('\xff', buffer[40]);
}

TEST(Duplicate, CopiesHeaderAndBody) {
  const ORP_MSG_HEADER_ST request = unterminated_request();
  const Message message(ORP_MSG_MsgRespBuilder(&request, 0, "abc", 3));

  const Message copy(ORP_MSG_Duplicate(message.get()));

  EXPECT_EQ(0xabcd1234u, copy->ulMsgType);
  EXPECT_EQ("abc", body_text(copy.get()));
  EXPECT_EQ(nullptr, ORP_MSG_Duplicate(nullptr));
  for (const uint32_t impossible : {0xffffffd6u, 0xffffffd7u}) {
    message->ulDataLen = impossible;
    EXPECT_EQ(nullptr, ORP_MSG_Duplicate(message.get()));
  }
}

TEST(EndianSwap, ReversesTheIntegersAndNothingElse) {
  ORP_MSG_HEADER_ST header = unterminated_request();
  header.ulMsgData = 0x01020304;
  header.ulDataLen = 0x05060708;
  const ORP_MSG_HEADER_ST original = header;

  ORP_MSG_HeadEndianSwap(&header);
  EXPECT_EQ(0x3412cdabu, header.ulMsgType);
  EXPECT_EQ(77u << 24, header.ulSeqNum);
  EXPECT_EQ(0x04030201u, header.ulMsgData);
  EXPECT_EQ(0x08070605u, header.ulDataLen);
  EXPECT_EQ(0, std::memcmp(original.aucSendApp, header.aucSendApp, 24));

  ORP_MSG_HeadEndianSwap(&header);
  EXPECT_EQ(0, std::memcmp(&original, &header, sizeof header));
  ORP_MSG_HeadEndianSwap(nullptr);
}

}  // namespace
