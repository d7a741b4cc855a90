#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "msgapi/msg.h"
#include "support/message_peer.h"

namespace {

using test::Frame;
using test::frame_of;
using Message = test::MessageBlock;

// A request whose sender is a field without NUL.
const Frame kRequest = {.type = 0xabcd1234, .sequence = 77, .from = "twelve-chars"};

TEST(SimpleBuilder, FillsAClearedHeaderWithTheNextSequenceNumber) {
  ORP_MSG_HEADER_ST header;
  std::memset(&header, 0xff, sizeof header);
  g_stMsgCtx.ulSeqNum = 0xfffffffe;

  ORP_MSG_SimpleBuilder(&header, "longer-than-eleven", 0x1234, 5);
  EXPECT_EQ((Frame{0x1234, "longer-than", "", 5, 0xffffffff, ""}), frame_of(&header));
  ORP_MSG_SimpleBuilder(&header, nullptr, 1, 0);
  EXPECT_EQ((Frame{.type = 1}), frame_of(&header)) << "the counter wraps";
}

TEST(ResponseBuilder, AnswersWithTypeAndNumberOfTheRequest) {
  const Message request = test::make_block(kRequest);

  const Message bare(ORP_MSG_MsgRespBuilder(request.get(), 9, nullptr, 100));
  const Message full(ORP_MSG_MsgRespBuilder(request.get(), 9, "body", 4));

  EXPECT_EQ((Frame{0xabcd1234, "twelve-char", "", 9, 77, ""}), frame_of(bare.get()));
  EXPECT_EQ((Frame{0xabcd1234, "twelve-char", "body", 9, 77, ""}), frame_of(full.get()));
  EXPECT_EQ(1u, g_stMsgCtx.ulSeqNum) << "only the form without a body takes a number";
}

TEST(ResponseBuilder, RefusesWhatItCannotBuild) {
  const Message request = test::make_block(kRequest);
  EXPECT_EQ(nullptr, ORP_MSG_MsgRespBuilder(nullptr, 0, nullptr, 0));
  EXPECT_EQ(nullptr, ORP_MSG_MsgRespBuilder(request.get(), 0, "x", 0x7fffffd7));
  EXPECT_EQ(nullptr, ORP_MSG_MsgRespBuilder(request.get(), 0, "x", 0x7fffffd6));
  msgapi::fail_allocation(1);
  EXPECT_EQ(nullptr, ORP_MSG_MsgRespBuilder(request.get(), 0, "x", 1));
}

TEST(MessageBlock, LeadsFromBodyToHeaderAndBackAndIsAtMostEightMebibytesLarge) {
  void *body = ORP_MSG_GetMsgBlock(0x800000 - 40);
  const Message message(ORP_MSG_GetMsgHead(body));
  EXPECT_EQ(0x800000u - 40, message->ulDataLen);
  EXPECT_EQ(0u, message->ulMsgType);
  EXPECT_EQ(body, ORP_MSG_GetMsgByHeader(message.get()));
  message->ulDataLen = 0;
  EXPECT_EQ(nullptr, ORP_MSG_GetMsgByHeader(message.get()));
  EXPECT_EQ(nullptr, ORP_MSG_GetMsgByHeader(nullptr));
  EXPECT_EQ(nullptr, ORP_MSG_GetMsgHead(nullptr));

  EXPECT_EQ(nullptr, ORP_MSG_GetMsgBlock(0x800000 - 39));
  EXPECT_EQ(nullptr, ORP_MSG_GetMsgBlock(0xffffffff)) << "40 + length must not wrap";
}

TEST(MessageBlock, FormatsACallersBufferOfAtLeastAHeader) {
  alignas(ORP_MSG_HEADER_ST) char buffer[41];
  std::memset(buffer, 0xff, sizeof buffer);
  EXPECT_EQ(nullptr, ORP_MSG_GetMsgBlockEx(buffer, 39));
  for (const uint32_t size : {40u, 41u}) {
    EXPECT_EQ(buffer + 40, ORP_MSG_GetMsgBlockEx(buffer, size));
    EXPECT_EQ(size - 40, ORP_MSG_GetMsgHead(buffer + 40)->ulDataLen);
  }
  EXPECT_EQ('\xff', buffer[40]);
}

TEST(Duplicate, CopiesHeaderAndBody) {
  Frame frame = kRequest;
  frame.body = "abc";
  const Message message = test::make_block(frame);

  const Message copy(ORP_MSG_Duplicate(message.get()));

  EXPECT_EQ(frame, frame_of(copy.get()));
  EXPECT_EQ(nullptr, ORP_MSG_Duplicate(nullptr));
  for (const uint32_t impossible : {0xffffffd6u, 0xffffffd7u}) {
    message->ulDataLen = impossible;
    EXPECT_EQ(nullptr, ORP_MSG_Duplicate(message.get()));
  }
}

TEST(EndianSwap, ReversesTheIntegersAndNothingElse) {
  Frame frame = {0xabcd1234, "destination", std::string(0x102, '\0'), 0x01020304, 77, "sender"};
  const Message message = test::make_block(frame);

  ORP_MSG_HeadEndianSwap(message.get());
  EXPECT_EQ(frame.bytes({}, /*swapped=*/true),
            std::string(reinterpret_cast<char *>(message.get()), 40) + frame.body);
  ORP_MSG_HeadEndianSwap(message.get());
  EXPECT_EQ(frame, frame_of(message.get()));
}

}  // namespace
