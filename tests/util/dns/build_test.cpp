#include <gtest/gtest.h>
#include <sys/sysinfo.h>

#include <algorithm>
#include <string>

#include "msgapi/dns.h"
#include "util/dns/packet_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

uint16_t field(const PacketOwner &packet, size_t offset) {
  return static_cast<uint16_t>(*at(packet, offset) << 8 | *at(packet, offset + 1));
}

uint32_t uptime_s() {
  struct sysinfo now {};
  ::sysinfo(&now);
  return static_cast<uint32_t>(now.uptime);
}

TEST(DnsBuildRequest, WritesAnAddressQueryWithTheCountInHostOrder) {
  Bytes expected = {0, 0,   1,   0,   0, 0,   0,   0, 0, 0, 0, 0,
                    3, 'w', 'w', 'w', 2, 'd', 'e', 0, 0, 1, 0, 1};
  const uint16_t one = 1;
  std::memcpy(&expected[4], &one, sizeof one);
  EXPECT_EQ(expected, message_of(own(ORP_DNS_PacketBuildRequest("www.de"))));

  // Empty labels are skipped, but count in the length.
  expected.insert(expected.end(), 3, 0);
  EXPECT_EQ(expected, message_of(own(ORP_DNS_PacketBuildRequest(".www..de."))));
}

TEST(DnsBuildRequest, DoesNotCheckLabelsButTheWholeName) {
  const PacketOwner packet = own(ORP_DNS_PacketBuildRequest(std::string(259, 'x').c_str()));

  ASSERT_TRUE(packet);
  EXPECT_EQ(259 % 256, *at(packet, 12));
  EXPECT_EQ(1, *at(packet, packet->ulLength - 1));
  for (const std::string &name : {std::string(), std::string("..."), std::string(260, 'x')}) {
    EXPECT_EQ(nullptr, ORP_DNS_PacketBuildRequest(name.c_str())) << name;
  }
}

const uint8_t kAddress[] = {192, 0, 2, 1};

PacketOwner respond(const PacketOwner &query, uint32_t ttl_s, uint32_t cached_at_s = 0) {
  const ORP_DNS_RR_ST record = {"", 1, 1, ttl_s, sizeof kAddress, kAddress};
  return own(ORP_DNS_PacketBuildResponse(query.get(), &record, cached_at_s));
}

TEST(DnsBuildResponse, AppendsTheRecordBehindTheWholeQuery) {
  const PacketOwner query = make_packet(captures::kTextQuery);
  Bytes expected = message_of(query);
  ASSERT_EQ(1, expected[11]) << "a record that is copied, but not counted";
  expected[2] = 0x81;  // a reply to a query that wants recursion
  expected[3] = 0;
  expected[7] = 1;
  expected[11] = 0;
  const Bytes answer = {0xC0, 12, 0, 1, 0, 1, 0, 0, 600 >> 8, 600 & 255, 0, 4, 192, 0, 2, 1};
  expected.insert(expected.end(), answer.begin(), answer.end());

  const PacketOwner reply = respond(query, 600);
  ASSERT_TRUE(reply);
  EXPECT_EQ(expected, message_of(reply));
}

TEST(DnsBuildResponse, AgesTheTtl) {
  const PacketOwner query = make_packet(captures::kPoolQuery);
  // Below an uptime of 100 s this wraps, and the difference is still 100 s.
  const uint32_t cached_at_s = uptime_s() - 100;

  const PacketOwner reply = respond(query, 600, cached_at_s);

  ASSERT_TRUE(reply);
  const uint32_t ttl =
      uint32_t{field(reply, query->ulLength + 6)} << 16 | field(reply, query->ulLength + 8);
  EXPECT_LE(ttl, 500u);
  EXPECT_GE(ttl, 440u);
  EXPECT_FALSE(respond(query, 99, cached_at_s)) << "expired";
  EXPECT_FALSE(respond(query, 600, uptime_s() + 100)) << "in the future: the elapsed time wraps";
}

TEST(DnsBuildResponse, RefusesWhatIsTooLongBeforeReadingIt) {
  const PacketOwner query = make_packet(captures::kPoolQuery);
  ORP_DNS_RR_ST record = {"", 1, 1, 600, 0x7FFFFFF7, kAddress};
  EXPECT_EQ(nullptr, ORP_DNS_PacketBuildResponse(query.get(), &record, 0));
  record = {"", 1, 1, 600, 1, nullptr};
  EXPECT_EQ(nullptr, ORP_DNS_PacketBuildResponse(query.get(), &record, 0));

  ORP_DNS_PACKET_ST huge = {0x7FFFFFF7};
  EXPECT_EQ(nullptr, ORP_DNS_IpTypeMismatchResponse(&huge));
}

TEST(DnsReplies, SetFlagsAndCounts) {
  const PacketOwner query = make_packet(captures::kMailReply);
  Bytes expected = message_of(query);
  expected[2] = 0x81;
  expected[3] = 0x80;
  expected[10] = expected[11] = 0;
  EXPECT_EQ(expected, message_of(own(ORP_DNS_IpTypeMismatchResponse(query.get()))));

  std::fill(&expected[6], &expected[10], 0);
  expected[3] = 3;
  EXPECT_EQ(expected, message_of(own(ORP_DNS_PacketBuildErrorResponse(query.get(), 3))));
  // The code is added without a mask, so higher codes change the other flags.
  expected[3] = 0x80;
  EXPECT_EQ(expected, message_of(own(ORP_DNS_PacketBuildErrorResponse(query.get(), 0x10080))));
}

TEST(DnsReplies, NeedAWholeHeader) {
  for (size_t size = 0; size < 12; ++size) {
    const PacketOwner packet = make_packet(Bytes(size, 0));
    EXPECT_FALSE(respond(packet, 600)) << size;
    EXPECT_EQ(nullptr, ORP_DNS_PacketBuildErrorResponse(packet.get(), 2)) << size;
    EXPECT_EQ(nullptr, ORP_DNS_IpTypeMismatchResponse(packet.get())) << size;
    EXPECT_EQ(1u, ORP_DNS_PacketCheckIfErrorRely(packet.get())) << size;
  }
}

TEST(DnsReplies, AreErrorsByCodeOrWithoutAnyRecord) {
  const auto is_error = [](std::string_view hex) {
    return ORP_DNS_PacketCheckIfErrorRely(make_packet(hex).get());
  };
  EXPECT_EQ(1u, is_error(captures::kNoSuchNameReply));
  EXPECT_EQ(1u, is_error(captures::kPoolQuery));
  EXPECT_EQ(0u, is_error("000081800000000000010000"));  // an authority record is one
  EXPECT_EQ(0u, is_error(captures::kPoolReply));
}

}  // namespace
