#include "msgapi/dmmsg.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "cfmstore.h"
#include "msg/dm_message.h"
#include "msgapi/msg.h"
#include "support/allocation.h"
#include "support/message_peer.h"

namespace {

using msgapi::msg::DmBody;
using msgapi::msg::DmItemHead;

std::string bytes_of(const auto &object) {
  return {reinterpret_cast<const char *>(&object), sizeof object};
}

std::string item(uint32_t type, const std::string &name, const std::string &value) {
  const DmItemHead head = {type, static_cast<uint32_t>(name.size()),
                           static_cast<uint32_t>(value.size())};
  return bytes_of(head) + name + value;
}

// A message with that body, as it arrives.
test::MessageBlock arrived(const std::string &bytes) {
  return test::make_block({.body = bytes});
}

// A sealed body; `used` stands for its real size unless it lies.
std::string body_of(const std::string &items, uint32_t lie = 0, uint32_t free = 0) {
  const auto used = static_cast<uint32_t>(sizeof(DmBody) + items.size());
  return bytes_of(DmBody{ORP_DMMSG_MAGIC, used + free + lie, free, 0, 0, 0}) + items;
}

std::vector<std::string> items_of(const void *body) {
  std::vector<std::string> items;
  ORP_DMMSG_ITEM_ST each;
  const void *cursor = nullptr;
  while (ORP_DMMSG_GetItemEx(body, &each, &cursor) == 0) {
    items.push_back(std::to_string(each.ulType) + ":" + (each.pcName ? each.pcName : "(none)") +
                    "=" + std::string(static_cast<const char *>(each.pValue), each.ulValueLen));
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
  EXPECT_TRUE(items_of(body).empty());
  EXPECT_EQ(0u, ORP_DMMSG_Send(body));
  EXPECT_TRUE(items_of(body).empty());
  ORP_DMMSG_Free(body);

  connection.peer.expect({.type = 0x209,
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

  EXPECT_EQ(0u, ORP_DMMSG_AppendItem(&body, 1, "name", "value", 6));
  EXPECT_EQ(0u, ORP_DMMSG_AppendItem(&body, 2, "", "\1\2\3", 3));
  EXPECT_EQ(0u, ORP_DMMSG_AppendItem(&body, 3, nullptr, nullptr, 0));
  EXPECT_EQ(0u, ORP_DMMSG_AppendItem(&body, 4, "last", nullptr, 0));
  const std::vector<std::string> expected = {std::string("1:name=value\0", 13), "2:(none)=\1\2\3",
                                             "3:(none)=", "4:last="};
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
  EXPECT_EQ(4060u, head(body).capacity);
  EXPECT_EQ(0u, head(body).free);
  EXPECT_EQ(2u, items_of(body).size());
  // An item may be copied within its message, which moves.
  ORP_DMMSG_ITEM_ST first;
  const void *cursor = nullptr;
  ORP_DMMSG_GetItemEx(body, &first, &cursor);
  EXPECT_EQ(0u, ORP_DMMSG_AppendItem(&body, 0, "copy", first.pValue, first.ulValueLen));
  EXPECT_EQ("0:copy=" + value.substr(0, 2000), items_of(body).back());
  ORP_DMMSG_Free(body);
}

TEST(DmMessage, FailsCleanlyWithoutMemory) {
  void *body = nullptr;
  EXPECT_EQ(1u, test::fail_every_allocation([&body] {
              const uint32_t status = ORP_DMMSG_Builder(&body, "", 0);
              if (status != 0) {
                EXPECT_EQ(ORP_DMMSG_ERR_MEMORY, status);
                EXPECT_EQ(nullptr, body);
              }
              return status == 0;
            }));

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

  void *body = nullptr;
  EXPECT_EQ(ORP_DMMSG_ERR, ORP_DMMSG_Builder(&body, nullptr, 0));
  ORP_DMMSG_Builder(&body, "", 0);
  EXPECT_EQ(ORP_DMMSG_ERR, ORP_DMMSG_AppendItem(&body, 0, "n", nullptr, 1));
  EXPECT_EQ(1000u, head(body).free);
  ORP_DMMSG_Free(body);
}

TEST(DmMessage, RefusesToAddToOrSendABodyThatLies) {
  test::Connection connection("self");
  for (const std::string &bytes : {
           body_of(item(0, "", "v"), 1),                        // capacity beyond the message
           bytes_of(DmBody{ORP_DMMSG_MAGIC, 24, 25, 0, 0, 0}),  // free beyond capacity
           bytes_of(DmBody{ORP_DMMSG_MAGIC, 24, 1, 0, 0, 0}),   // head not in use
           bytes_of(DmBody{ORP_DMMSG_MAGIC, 0xFFFFFFFF, 0, 0, 0, 0}),
       }) {
    const test::MessageBlock message = arrived(bytes);
    void *body = message.get() + 1;
    EXPECT_EQ(ORP_DMMSG_ERR, ORP_DMMSG_AppendItem(&body, 0, "n", "v", 1));
    EXPECT_EQ(message.get() + 1, body);
    EXPECT_EQ(ORP_DMMSG_ERR, ORP_DMMSG_Send(body));
  }
  EXPECT_TRUE(connection.peer.quiet());
}

TEST(DmMessage, ReadsNoFurtherThanTheMessageReaches) {
  const std::string good = item(1, std::string("n\0", 2), "v");
  const std::vector<std::string> one = {"1:n=v"}, none;
  const struct {
    std::string bytes;
    std::vector<std::string> items;
    const char *what;
  } kCases[] = {
      {body_of(good, 1000), one, "capacity beyond the message"},
      {bytes_of(DmBody{ORP_DMMSG_MAGIC, 24, 25, 0, 0, 0}) + good, none, "free beyond capacity"},
      {bytes_of(DmBody{ORP_DMMSG_MAGIC, 39, 15, 0, 0, 0}) + good, none, "item in the free area"},
      {body_of(good + std::string(11, '\0')), one, "no room for another head"},
      {body_of(good + std::string(12, '\0')), one, "another head would end at the end"},
      {body_of(good + bytes_of(DmItemHead{9, 0, 0}) + "x"),
       {"1:n=v", "9:(none)="},
       "head and more"},
      {body_of(bytes_of(DmItemHead{1, 0xFFFFFFFF, 0xFFFFFFFF}) + "nv"), none, "lengths that wrap"},
      {body_of(bytes_of(DmItemHead{1, 0x80000000, 0x80000000}) + "nv"), none,
       "lengths that cancel"},
      {body_of(bytes_of(DmItemHead{1, 2, 2}) + "nnvv"), none, "name without a NUL"},
      {body_of(bytes_of(DmItemHead{1, 0, 13}) + "v"), {"1:(none)=v"}, "12 bytes behind the end"},
      {body_of(bytes_of(DmItemHead{1, 0, 14}) + "v"), none, "13 bytes behind the end"},
      {bytes_of(DmBody{ORP_DMMSG_MAGIC, 37, 0, 0, 0, 0}) + bytes_of(DmItemHead{1, 0, 4}) + "vwww",
       {"1:(none)=vwww"},
       "behind the end, where the message has bytes"},
      {body_of(bytes_of(DmItemHead{1, 9, 4}) + std::string("n\0", 2)), {"1:n="}, "value behind it"},
      {body_of(bytes_of(DmItemHead{1, 9, 4}) + "nn"), none, "name that ends behind it"},
  };
  for (const auto &each : kCases) {
    EXPECT_EQ(each.items, items_of(arrived(each.bytes).get() + 1)) << each.what;
  }
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
