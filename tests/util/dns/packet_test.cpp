#include <arpa/nameser.h>
#include <gtest/gtest.h>

#include <string>

#include "msgapi/dns.h"
#include "util/dns/packet_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kMalformed = ORP_DNS_ERR_MALFORMED;

struct Read {
  uint32_t status;
  ORP_DNS_RR_ST record;
  uint32_t consumed;
};

// Reads a record with one of the two functions for that.
Read read(decltype(&ORP_DNS_PacketGetValuesOfRR) reader, const PacketOwner &packet,
          const uint8_t *place) {
  Read read{};
  read.status = reader(packet.get(), place, &read.record, &read.consumed);
  return read;
}

Read read_record(const PacketOwner &packet, const uint8_t *place) {
  return read(ORP_DNS_PacketGetValuesOfRR, packet, place);
}

// A packet's records, as many as the header says.
std::vector<ORP_DNS_RR_ST> walk(const PacketOwner &packet) {
  std::vector<ORP_DNS_RR_ST> records;
  for (const uint8_t *place = ORP_DNS_PacketGetFirstRR(packet.get()); place != nullptr;
       place = ORP_DNS_PacketGetNextRR(packet.get(), place)) {
    const Read read = read_record(packet, place);
    if (read.status == ORP_DNS_OK) records.push_back(read.record);
  }
  return records;
}

TEST(DnsWalk, AgreesWithTheSystemResolverOnRealReplies) {
  for (const std::string_view hex : captures::kReplies) {
    const PacketOwner packet = make_packet(hex);
    ns_msg peer;
    ASSERT_EQ(0, ns_initparse(at(packet, 0), static_cast<int>(packet->ulLength), &peer));

    const std::vector<ORP_DNS_RR_ST> records = walk(packet);

    size_t next = 0;
    for (const ns_sect section : {ns_s_an, ns_s_ns, ns_s_ar}) {
      for (int i = 0; i < ns_msg_count(peer, section); ++i, ++next) {
        ASSERT_LT(next, records.size());
        ns_rr expected;
        ASSERT_EQ(0, ns_parserr(&peer, section, i, &expected));
        const ORP_DNS_RR_ST &record = records[next];
        EXPECT_STREQ(ns_rr_name(expected), record.aucName[0] == '\0' ? "." : record.aucName);
        EXPECT_EQ(ns_rr_type(expected), record.ulType);
        EXPECT_EQ(ns_rr_class(expected), record.ulClass);
        EXPECT_EQ(ns_rr_ttl(expected), record.ulTtl);
        EXPECT_EQ(ns_rr_rdlen(expected), record.ulRdLength);
        EXPECT_EQ(ns_rr_rdata(expected), record.pucRdata);
      }
    }
    EXPECT_EQ(next, records.size());
  }
}

TEST(DnsWalk, FindsTheSections) {
  const PacketOwner reply = make_packet(captures::kMailReply);

  EXPECT_EQ(uint32_t{ns_t_ns},
            read_record(reply, ORP_DNS_PacketGetFirstAuthorityRecord(reply.get())).record.ulType);
  EXPECT_STREQ(
      "mail.example.com",
      read_record(reply, ORP_DNS_PacketGetFirstAddtionalRecord(reply.get())).record.aucName);
  // The only authority record ends the packet, so there is nothing behind it.
  EXPECT_EQ(nullptr,
            ORP_DNS_PacketGetFirstAddtionalRecord(make_packet(captures::kNoSuchNameReply).get()));
}

TEST(DnsWalk, TakesTheQuestionThatEndsAPacketWithoutItsTypeAndClass) {
  const PacketOwner query = make_packet(captures::kPoolQuery);
  const uint32_t name_size = ORP_DNS_PacketGetNameLen(query.get(), at(query, 12));

  const Read question = read(ORP_DNS_PacketGetValuesOfQuestion, query, at(query, 12));

  EXPECT_EQ(ORP_DNS_OK, question.status);
  EXPECT_STREQ("pool.example.com", question.record.aucName);
  EXPECT_EQ(uint32_t{ns_t_a}, question.record.ulType);
  EXPECT_EQ(query->ulLength - 12, question.consumed);
  EXPECT_EQ(name_size, ORP_DNS_PacketGetQuestionLen(query.get(), at(query, 12)));
  EXPECT_EQ(at(query, 12 + name_size), ORP_DNS_PacketGetFirstRR(query.get()));
}

Bytes operator+(Bytes left, const Bytes &right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

// `count` pointers (RFC 1035, 4.1.4). Each leads to a label "a" with the next pointer behind it,
// the last one to a whole name "a".
Bytes pointer_chain(uint8_t count) {
  Bytes message;
  for (uint8_t i = 1; i <= count; ++i) {
    message = message + Bytes{1, 'a', 0xC0, static_cast<uint8_t>(i * 4)};
  }
  return message + Bytes{1, 'a', 0, 0};
}

const std::string kFullText(63, 'x');
const Bytes kFullLabel = Bytes{63} + Bytes(63, 'x');

const struct {
  const char *why;
  Bytes message;  // the name begins at `offset`
  size_t offset;
  uint32_t length;
  const char *text;  // null: malformed
  uint32_t consumed;
} kNames[] = {
    {"plain", {3, 'w', 'w', 'w', 2, 'd', 'e', 0, 9}, 0, 8, "www.de", 8},
    {"root", {0, 9}, 0, 1, "", 1},
    {"a name needs a byte behind it", {1, 'a', 0}, 0, 0, nullptr, 0},
    {"nothing at the position", {0, 9}, 2, 0, nullptr, 0},
    {"pointer only", {1, 'a', 0, 0xC0, 0, 9}, 3, 2, "a", 2},
    {"a pointer needs a byte behind it", {1, 'a', 0, 0xC0, 0}, 3, 0, nullptr, 0},
    {"labels and a pointer consume nothing", {1, 'a', 0, 1, 'b', 0xC0, 0, 9}, 3, 4, "b.a", 0},
    {"labels and a pointer to the root", {0, 1, 'b', 0xC0, 0, 9}, 1, 4, "b", 0},
    {"labels and a pointer cut short", {1, 'a', 0, 1, 'b', 0xC0, 0}, 3, 0, nullptr, 0},
    {"pointer to a pointer", {1, 'a', 0xC0, 5, 9, 0xC0, 0, 9}, 0, 4, nullptr, 0},
    {"pointer to itself", {0xC0, 0, 9}, 0, 2, nullptr, 2},
    {"pointer loop", {1, 'a', 0xC0, 0, 9}, 0, 4, nullptr, 0},
    {"pointer to the packet's end", {1, 'a', 0xC0, 5, 9}, 0, 4, nullptr, 0},
    {"pointer beyond the packet", {0xC1, 0, 9}, 0, 2, nullptr, 0},
    {"9 pointers", pointer_chain(9), 0, 4, "a.a.a.a.a.a.a.a.a.a", 0},
    {"10 pointers", pointer_chain(10), 0, 4, nullptr, 0},
    {"dot in a label", {3, 'a', '.', 'b', 0, 9}, 0, 5, nullptr, 0},
    {"longest label", kFullLabel + Bytes{0, 9}, 0, 65, kFullText.c_str(), 65},
    {"longer label", Bytes{64} + Bytes(64, 'x') + Bytes{0, 9}, 0, 0, nullptr, 0},
    {"label beyond the packet", {5, 'a', 'b', 0, 9}, 0, 0, nullptr, 0},
    {"text too long for the buffer",
     kFullLabel + kFullLabel + kFullLabel + kFullLabel + Bytes{0, 9}, 0, 257, nullptr, 0},
};

TEST(DnsName, IsMeasuredAndReadWithinItsBounds) {
  for (const auto &expected : kNames) {
    SCOPED_TRACE(expected.why);
    const PacketOwner packet = make_packet(expected.message);
    const uint8_t *place = at(packet, expected.offset);
    char text[ORP_DNS_NAME_SIZE] = "old";
    uint32_t consumed = 99;

    EXPECT_EQ(expected.length, ORP_DNS_PacketGetNameLen(packet.get(), place));
    EXPECT_EQ(expected.text != nullptr ? ORP_DNS_OK : kMalformed,
              ORP_DNS_PacketGetName(packet.get(), place, text, sizeof text, &consumed));
    EXPECT_STREQ(expected.text != nullptr ? expected.text : "", text);
    EXPECT_EQ(expected.consumed, consumed);
  }
}

TEST(DnsName, NeedsRoomForItsLastDotThoughTheNulTakesItsPlace) {
  const PacketOwner packet = make_packet(Bytes{2, 'a', 'b', 1, 'c', 0, 9});
  for (const uint32_t size : {1u, 5u, 6u}) {
    const std::unique_ptr<char[]> out(new char[size]);
    EXPECT_EQ(size < 6 ? kMalformed : ORP_DNS_OK,
              ORP_DNS_PacketGetName(packet.get(), at(packet, 0), out.get(), size, nullptr));
    EXPECT_STREQ(size < 6 ? "" : "ab.c", out.get());
    EXPECT_EQ(ORP_DNS_OK,
              ORP_DNS_PacketGetName(packet.get(), at(packet, 5), out.get(), size, nullptr));
  }
}

TEST(DnsName, RefusesPositionsBeforeThePacketAndBuffersOfNoSize) {
  const PacketOwner packet = make_packet(Bytes{1, 'a', 0, 9});
  const uint8_t *place = at(packet, 0);
  char text[8] = "old";

  EXPECT_EQ(kMalformed, ORP_DNS_PacketGetName(packet.get(), place - 1, text, 8, nullptr));
  EXPECT_STREQ("", text);
  EXPECT_EQ(0u, ORP_DNS_PacketGetNameLen(packet.get(), place - 1));
  EXPECT_EQ(ORP_DNS_ERR_ARGUMENT, ORP_DNS_PacketGetName(packet.get(), place, text, 0, nullptr));
  EXPECT_EQ(ORP_DNS_ERR_ARGUMENT, ORP_DNS_PacketGetName(nullptr, place, text, 8, nullptr));
}

const Bytes kRecord = {1, 'a', 0, 0, 1, 0, 2, 0, 0, 1, 0, 0, 2, 0xAB, 0xCD};

TEST(DnsRecord, MayEndThePacketButThenHasNoLength) {
  const PacketOwner packet = make_packet(kRecord);

  const auto [status, record, consumed] = read_record(packet, at(packet, 0));

  EXPECT_EQ(ORP_DNS_OK, status);
  EXPECT_EQ(at(packet, 13), record.pucRdata);
  EXPECT_EQ(15u, consumed);
  EXPECT_EQ(0u, ORP_DNS_PacketGetRRLen(packet.get(), at(packet, 0)));
  EXPECT_EQ(nullptr, ORP_DNS_PacketGetNextRR(packet.get(), at(packet, 0)));

  const PacketOwner longer = make_packet(kRecord + Bytes{0});
  EXPECT_EQ(15u, ORP_DNS_PacketGetRRLen(longer.get(), at(longer, 0)));
  EXPECT_EQ(at(longer, 15), ORP_DNS_PacketGetNextRR(longer.get(), at(longer, 0)));
}

TEST(DnsRecord, CutShortAnywhereIsMalformed) {
  for (size_t size = 1; size < kRecord.size(); ++size) {
    SCOPED_TRACE(size);
    const PacketOwner packet = make_packet(Bytes(kRecord.data(), kRecord.data() + size));

    EXPECT_EQ(kMalformed, read_record(packet, at(packet, 0)).status);
    EXPECT_EQ(0u, ORP_DNS_PacketGetRRLen(packet.get(), at(packet, 0)));
    EXPECT_EQ(size > 6 ? ORP_DNS_OK : kMalformed,
              read(ORP_DNS_PacketGetValuesOfQuestion, packet, at(packet, 0)).status);
  }
}

TEST(DnsRecord, CountsItsDataLengthIn16Bits) {
  const PacketOwner packet = make_packet(Bytes{1, 'a', 0, 0, 1, 0, 2, 0, 0, 1, 0, 0xFF, 0xFE, 9});
  EXPECT_EQ(11u, ORP_DNS_PacketGetRRLen(packet.get(), at(packet, 0)));
}

// A name of labels and a pointer consumes nothing, so the fields are read from the name itself.
TEST(DnsRecord, ReadsItsFieldsFromANameOfLabelsAndAPointer) {
  const PacketOwner packet = make_packet(Bytes{1, 'a', 0, 1, 'b', 0xC0, 0, 0, 1, 0, 1});

  const auto [status, question, consumed] =
      read(ORP_DNS_PacketGetValuesOfQuestion, packet, at(packet, 3));

  EXPECT_EQ(ORP_DNS_OK, status);
  EXPECT_STREQ("b.a", question.aucName);
  EXPECT_EQ(uint32_t{1 << 8 | 'b'}, question.ulType);
  EXPECT_EQ(0xC000u, question.ulClass);
  EXPECT_EQ(4u, consumed);
}

TEST(DnsWalk, EndsOnPacketsWithoutAWholeHeaderOrQuestion) {
  for (size_t size = 0; size < 12; ++size) {
    const PacketOwner packet = make_packet(Bytes(size, 0));
    EXPECT_EQ(nullptr, ORP_DNS_PacketGetFirstRR(packet.get())) << size;
    EXPECT_EQ(nullptr, ORP_DNS_PacketGetFirstAddtionalRecord(packet.get())) << size;
  }
  Bytes header(12, 0);
  EXPECT_TRUE(walk(make_packet(header)).empty());
  header[5] = 1;
  EXPECT_EQ(nullptr, ORP_DNS_PacketGetFirstRR(make_packet(header).get()));
}

TEST(DnsCopy, TakesAllOrTheBeginningUnlessTheAllocatorRefuses) {
  const PacketOwner packet = make_packet(captures::kPoolReply);
  for (const uint32_t size : {0u, 12u, 100000u}) {
    const PacketOwner copy = own(ORP_DNS_PacketCopy(packet.get(), size));
    ASSERT_TRUE(copy);
    EXPECT_EQ(Bytes(at(packet, 0), at(packet, size == 12 ? 12 : packet->ulLength)),
              message_of(copy));
  }

  for (const uint32_t length : {0xFFFFFFFFu, 0x800000u}) {
    ORP_DNS_PACKET_ST huge = {length};
    EXPECT_EQ(nullptr, ORP_DNS_PacketCopy(&huge, 0));
  }
}

}  // namespace
