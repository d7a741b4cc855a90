#include "msgapi/dmmsg.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <string>
#include <tuple>

#include "cfmstore.h"
#include "msg/dm_message.h"
#include "msgapi/msg.h"
#include "support/message_peer.h"

namespace {

using msgapi::msg::DmBody;
using msgapi::msg::DmItemHead;

std::string bytes_of(const auto &object) {
  return {reinterpret_cast<const char *>(&object), sizeof object};
}

// The head of an item of type 1.
std::string lengths(uint32_t name, uint32_t value) {
  return bytes_of(DmItemHead{1, name, value});
}

std::string item(uint32_t type, const std::string &name, const std::string &value) {
  return bytes_of(type) + bytes_of(static_cast<uint32_t>(name.size())) +
         bytes_of(static_cast<uint32_t>(value.size())) + name + value;
}

// A message with that body, as an application reads it from its connection.
test::MessageBlock arrived(const std::string &bytes, uint32_t type = ORP_DMMSG_TYPE) {
  test::Connection connection;
  connection.peer.send({.type = type, .body = bytes});
  ORP_MSG_HEADER_ST *message = nullptr;
  EXPECT_EQ(ORP_OK, ORP_MSG_ReceiveManual(&message, 0));
  return test::MessageBlock(message);
}

// A body without a message: nothing can be read in front of it. Zeros follow.
class CopiedBody {
 public:
  explicit CopiedBody(const std::string &bytes)
      : pages_(static_cast<char *>(::mmap(nullptr, 2 * kPage, PROT_READ | PROT_WRITE,
                                          MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))) {
    ::mprotect(pages_, kPage, PROT_NONE);
    bytes.copy(pages_ + kPage, kPage);
  }
  CopiedBody(const CopiedBody &) = delete;
  CopiedBody &operator=(const CopiedBody &) = delete;
  ~CopiedBody() { ::munmap(pages_, 2 * kPage); }

  const void *get() const { return pages_ + kPage; }

 private:
  static constexpr size_t kPage = 65536;  // or a divisor of it
  char *pages_;
};

// The head of a body.
std::string start(uint32_t capacity, uint32_t free) {
  return bytes_of(DmBody{ORP_DMMSG_MAGIC, capacity, free, 0, 0, 0});
}

// A sealed body.
std::string body_of(const std::string &items) {
  return start(static_cast<uint32_t>(sizeof(DmBody) + items.size()), 0) + items;
}

// The items, each as "type:name=value;".
std::string items_of(const void *body) {
  std::string items;
  ORP_DMMSG_ITEM_ST each;
  const void *cursor = nullptr;
  while (ORP_DMMSG_GetItemEx(body, &each, &cursor) == 0) {
    items += std::to_string(each.ulType) + ":" + (each.pcName ? each.pcName : "(none)") + "=" +
             std::string(static_cast<const char *>(each.pValue), each.ulValueLen) + ";";
  }
  return items;
}

const DmBody &head(const void *body) {
  return *static_cast<const DmBody *>(body);
}

TEST(DmMessage, StartsEmptyAndSendsOnlyWhatIsInUse) {
  test::Connection connection("self");
  CFM_SetCurrUser(5);
  void *body = nullptr;
  ASSERT_EQ(0u, ORP_DMMSG_Builder(&body, "destination12", 77));

  EXPECT_EQ(1024u, head(body).capacity);
  EXPECT_EQ(1000u, head(body).free);
  EXPECT_EQ("", items_of(body));
  EXPECT_EQ(0u, ORP_DMMSG_Send(body));
  EXPECT_EQ("", items_of(body));
  ORP_DMMSG_Free(body);

  connection.peer.expect({.type = ORP_DMMSG_TYPE,
                          .to = "destination",
                          .body = bytes_of(DmBody{ORP_DMMSG_MAGIC, 24, 0, 0, 5, 77})});
  const test::MessageBlock message = arrived(bytes_of(DmBody{ORP_DMMSG_MAGIC, 24, 0, 9, 1, 8}));
  EXPECT_EQ(9u, ORP_DMMSG_GetErrCode(message.get() + 1));
  EXPECT_EQ(8u, ORP_DMMSG_GetSubType(message.get() + 1));
}

TEST(DmMessage, WritesItemsWithoutGaps) {
  test::Connection connection("self");
  void *body = nullptr;
  ORP_DMMSG_Builder(&body, "", 0);
  ORP_MSG_GetMsgHead(body)->ulDataLen = 0;  // as in a block of the application's own
  EXPECT_EQ(0u, ORP_DMMSG_AppendItem(&body, 1, "name", "value", 6));
  EXPECT_EQ(0u, ORP_DMMSG_AppendItem(&body, 2, "", "\1\2\3", 3));
  EXPECT_EQ(0u, ORP_DMMSG_AppendItem(&body, 3, nullptr, nullptr, 0));
  EXPECT_EQ(0u, ORP_DMMSG_AppendItem(&body, 4, "last", nullptr, 0));
  const std::string expected("1:name=value\0;2:(none)=\1\2\3;3:(none)=;4:last=;", 45);
  EXPECT_EQ(expected, items_of(body));
  EXPECT_EQ(0u, ORP_DMMSG_Send(body));
  EXPECT_EQ(expected, items_of(body));
  ORP_DMMSG_Free(body);

  EXPECT_EQ(item(1, std::string("name\0", 5), std::string("value\0", 6)) + item(2, "", "\1\2\3") +
                item(3, "", "") + item(4, std::string("last\0", 5), ""),
            connection.peer.read().body.substr(sizeof(DmBody)));
}

TEST(DmMessage, GrowsByTheItemAndAKilobyte) {
  void *body = nullptr;
  ORP_DMMSG_Builder(&body, "", 0);
  const std::string value(2012, 'v');

  EXPECT_EQ(0u, ORP_DMMSG_AppendItem(&body, 0, nullptr, value.data(), 2000));
  EXPECT_EQ(4060u, head(body).capacity);
  EXPECT_EQ(2024u, head(body).free);
  EXPECT_EQ(0u, ORP_DMMSG_AppendItem(&body, 0, nullptr, value.data(), 2012));
  EXPECT_EQ(0u, head(body).free);
  // An item may be copied within its message, which moves.
  ORP_DMMSG_ITEM_ST first;
  const void *cursor = nullptr;
  ORP_DMMSG_GetItemEx(body, &first, &cursor);
  EXPECT_EQ(0u, ORP_DMMSG_AppendItem(&body, 0, "copy", first.pValue, first.ulValueLen));
  EXPECT_EQ("0:(none)=" + value.substr(0, 2000) + ";0:(none)=" + value +
                ";0:copy=" + value.substr(0, 2000) + ";",
            items_of(body));
  ORP_DMMSG_Free(body);
}

TEST(DmMessage, FailsCleanlyWithoutMemory) {
  char other;
  void *body = &other;
  msgapi::fail_allocation(1);
  EXPECT_EQ(ORP_DMMSG_ERR_MEMORY, ORP_DMMSG_Builder(&body, "", 0));
  EXPECT_EQ(nullptr, body);

  ORP_DMMSG_Builder(&body, "", 0);
  msgapi::fail_allocation(1);
  EXPECT_EQ(0u, ORP_DMMSG_AppendItem(&body, 0, nullptr, "fits", 5)) << "nothing to allocate";
  EXPECT_EQ(ORP_DMMSG_ERR_GROW,
            ORP_DMMSG_AppendItem(&body, 0, nullptr, std::string(1000, 'v').data(), 1000));
  EXPECT_EQ(nullptr, body);
  ORP_DMMSG_Builder(&body, "", 0);
  EXPECT_EQ(ORP_DMMSG_ERR_GROW, ORP_DMMSG_AppendItem(&body, 0, nullptr, "v", 0xFFFFFFFF))
      << "lengths do not wrap";
  EXPECT_EQ(nullptr, body);
}

TEST(DmMessage, RefusesWhatIsNoDmBody) {
  ORP_DMMSG_ITEM_ST each;
  const void *cursor = nullptr;
  std::string bytes = body_of(item(0, "", "v"));
  bytes[0] = 0;
  const test::MessageBlock no_magic = arrived(bytes);
  for (void *body : {static_cast<void *>(no_magic.get() + 1), static_cast<void *>(nullptr)}) {
    EXPECT_EQ(ORP_DMMSG_ERR, ORP_DMMSG_GetItemEx(body, &each, &cursor));
    EXPECT_EQ(ORP_DMMSG_ERR, ORP_DMMSG_AppendItem(&body, 0, "n", "v", 1));
    EXPECT_EQ(ORP_DMMSG_ERR, ORP_DMMSG_Send(body));
    EXPECT_EQ(0u, ORP_DMMSG_GetErrCode(body));
    EXPECT_EQ(0u, ORP_DMMSG_GetSubType(body));
    ORP_DMMSG_Free(body);
  }

  void *body = &each;
  EXPECT_EQ(ORP_DMMSG_ERR, ORP_DMMSG_Builder(&body, nullptr, 0));
  EXPECT_EQ(nullptr, body);
  ORP_DMMSG_Builder(&body, "", 0);
  EXPECT_EQ(ORP_DMMSG_ERR, ORP_DMMSG_AppendItem(&body, 0, "n", nullptr, 1));
  EXPECT_EQ(1000u, head(body).free);
  ORP_DMMSG_Free(body);
}

TEST(DmMessage, RefusesToAddToOrSendABodyThatIsUnsound) {
  for (const std::string &bytes : {
           start(24, 25),  // free beyond capacity
           start(24, 1),   // head not in use
       }) {
    const test::MessageBlock message = test::make_block({.type = ORP_DMMSG_TYPE, .body = bytes});
    void *body = message.get() + 1;
    EXPECT_EQ(ORP_DMMSG_ERR, ORP_DMMSG_AppendItem(&body, 0, "n", "v", 1));
    EXPECT_EQ(message.get() + 1, body);
    EXPECT_EQ(ORP_DMMSG_ERR, ORP_DMMSG_Send(body)) << "and not for want of a connection";
  }
}

TEST(DmMessage, GoesByTheBodysOwnWordsWhateverTheHeaderSays) {
  test::Connection connection("self");
  void *body = nullptr;
  ASSERT_EQ(0u, ORP_DMMSG_Builder(&body, "peer", 0));
  for (const uint32_t length : {24u, 0u, 0xFFFFFFFFu}) {
    ORP_MSG_GetMsgHead(body)->ulDataLen = length;
    EXPECT_EQ(0u, ORP_DMMSG_AppendItem(&body, 1, "n", std::string(600, 'v').data(), 600));
  }
  EXPECT_EQ(0xFFFFFFFFu, ORP_MSG_GetMsgHead(body)->ulDataLen) << "the caller's, until it is sent";
  EXPECT_EQ(0u, ORP_DMMSG_Send(body));
  EXPECT_EQ(24u + 3 * 614, connection.peer.read().body.size());
  EXPECT_EQ(3u * 605, items_of(body).size()) << "three whole items";
  ORP_DMMSG_Free(body);
}

// Whether the application reads the message itself, or its loop does.
TEST(DmMessage, IsHeldToItsMessageWhenItIsReceived) {
  const std::string good = item(1, std::string("n\0", 2), "v");
  const std::tuple<std::string, const char *, uint32_t, const char *> kCases[] = {
      {body_of(good), "1:n=v;", 39, "what is sealed"},
      {start(1039, 1000) + good, "1:n=v;", 39, "free room behind the message, which is not there"},
      {start(39, 0) + good + "more", "1:n=v;", 39, "more than the body uses"},
      {start(40, 0) + good, "", 40, "more in use than arrived"},
      {start(0xFFFFFFFF, 0), "", 0xFFFFFFFF, "far more"},
      {start(16, 0xFFFFFFFF - 7) + good, "", 16, "lengths that wrap"},
      {start(8, 0).substr(0, 8), "", 8, "less than a head"},
  };
  for (const uint32_t type : {ORP_DMMSG_TYPE, ORP_MSG_EVENT_TESSEL, ORP_MSG_EVENT_WAN}) {
    for (const auto &[bytes, items, capacity, what] : kCases) {
      const test::MessageBlock message = arrived(bytes, type);
      EXPECT_EQ(items, items_of(message.get() + 1)) << what;
      EXPECT_EQ(capacity, head(message.get() + 1).capacity) << what;
    }
  }
  const DmBody unused{ORP_DMMSG_MAGIC, 24, 24, 9, 1, 8};
  EXPECT_EQ(9u, ORP_DMMSG_GetErrCode(arrived(bytes_of(unused)).get() + 1))
      << "it claims no more than arrived";
  EXPECT_EQ(ORP_DMMSG_MAGIC, head(arrived(start(40, 0) + good, 0x1234).get() + 1).magic)
      << "bodies of other messages are none of the library's business";
}

TEST(DmMessage, ReadsNoFurtherThanTheBodyReaches) {
  const std::string good = item(1, std::string("n\0", 2), "v");
  using namespace std::string_literals;
  const std::tuple<std::string, std::string, const char *> kCases[] = {
      {start(24, 25) + good, "", "free beyond capacity"},
      {start(39, 15) + good, "", "item in the free area"},
      {body_of(good + std::string(11, '\0')), "1:n=v;", "no room for another head"},
      {body_of(good + std::string(12, '\0')), "1:n=v;", "another head would end at the end"},
      {body_of(good + lengths(0, 0) + "x"), "1:n=v;1:(none)=;", "head and more"},
      {body_of(lengths(0xFFFFFFFF, 0xFFFFFFFF) + "nv"), "", "lengths that wrap"},
      {body_of(lengths(0x80000000, 0x80000000) + "nv"), "", "lengths that cancel"},
      {body_of(lengths(2, 2) + "nnvv"), "", "name without a NUL"},
      {body_of(lengths(0, 13) + "v"), "1:(none)=v\0\0\0\0\0\0\0\0\0\0\0\0;"s,
       "12 bytes behind the end"},
      {body_of(lengths(0, 14) + "v"), "", "13 bytes behind the end"},
      {start(37, 0) + lengths(0, 4) + "vwww", "1:(none)=vwww;", "behind the end are bytes"},
      {body_of(lengths(9, 4) + std::string("n\0", 2)), "1:n=\0\0\0\0;"s, "value behind it"},
      {body_of(lengths(9, 4) + "nn"), "", "name that ends behind it"},
  };
  for (const auto &[bytes, items, what] : kCases) {
    EXPECT_EQ(items, items_of(CopiedBody(bytes).get())) << what;
  }
  const CopiedBody body(body_of(good));
  EXPECT_EQ(0u, ORP_DMMSG_GetErrCode(body.get()) + ORP_DMMSG_GetSubType(body.get()));
}

TEST(DmMessage, RefusesACursorOutsideTheBody) {
  const test::MessageBlock message = arrived(body_of(item(1, "", "v")));
  ORP_DMMSG_ITEM_ST each;
  const char *body = reinterpret_cast<const char *>(message.get() + 1);
  for (const char *place : {body, body + 23, body - 40, body + 37, body + 4096}) {
    const void *cursor = place;
    EXPECT_EQ(ORP_DMMSG_ERR, ORP_DMMSG_GetItemEx(body, &each, &cursor));
    EXPECT_EQ(place, cursor);
  }
}

}  // namespace
