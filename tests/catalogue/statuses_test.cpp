#include "catalogue/statuses.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <map>
#include <regex>
#include <string>
#include <utility>

#include "msgapi.h"
#include "support/file.h"

namespace {

namespace fs = std::filesystem;

using catalogue::describe_status;
using catalogue::meanings;
using catalogue::status_number_of;
using catalogue::statuses;
using catalogue::StatusFamily;
using catalogue::StatusNumber;

TEST(Statuses, AreThoseOfThePublicHeaders) {
  std::map<std::string, int64_t> in_headers;
  // Names with ERR or OK as a word, a number or a negative one in parentheses.
  static const std::regex definition(
      R"(#define (\w+_(?:ERR|OK)(?:_\w+)?) \(?(-?(?:0x[0-9a-fA-F]+|\d+))u?\)?(?=\s))");
  for (const char *folder : {"/include/msgapi", "/platform/cfmapi/include"}) {
    for (const auto &header : fs::directory_iterator(std::string(MSGAPI_SOURCE) + folder)) {
      const std::string text = test::contents(header.path());
      for (std::sregex_iterator match(text.begin(), text.end(), definition), end; match != end;
           ++match) {
        in_headers[(*match)[1]] = std::stoll((*match)[2], nullptr, 0);
      }
    }
  }
  in_headers["ORP_PATH_ALLOWED"] = ORP_PATH_ALLOWED;
  in_headers["ORP_INVALID_SOCKET"] = ORP_INVALID_SOCKET;

  std::map<std::string, int64_t> in_table;
  for (const StatusNumber &status : statuses()) {
    if (!status.name.empty()) in_table[std::string(status.name)] = status.number;
    EXPECT_FALSE(status.sentence.empty()) << status.name;
  }

  EXPECT_EQ(in_headers, in_table);
}

TEST(Statuses, StandOnceInAFamily) {
  std::map<std::pair<StatusFamily, int64_t>, std::string_view> seen;
  for (const StatusNumber &status : statuses()) {
    EXPECT_TRUE(seen.try_emplace({status.family, status.number}, status.name).second)
        << status.name;
  }
}

TEST(Statuses, MeanWhatTheFamilyOfTheirFunctionMeans) {
  EXPECT_EQ(
      "ORP_ERR_PEER_GONE (0x10004): the peer closed the connection, or the receiver does not "
      "exist",
      describe_status(0x10004));
  EXPECT_EQ(
      "ORP_NOTIFYCLT_ERR_TIMEOUT (0x10004): nothing came in time, or the peer closed while "
      "writing",
      describe_status(0x10004, StatusFamily::kNotify));
  EXPECT_EQ("0x10004", describe_status(0x10004, StatusFamily::kDns));
  EXPECT_EQ("0x10008", describe_status(0x10008, StatusFamily::kNotify));
  EXPECT_EQ("MLOG_ERR_SOCKET (-2): the transport failed, or nothing came in time",
            describe_status(MLOG_ERR_SOCKET, StatusFamily::kLog));
  EXPECT_EQ("1: a bad argument, or what was asked for is not there",
            describe_status(1, StatusFamily::kPlain));
  EXPECT_EQ("77", describe_status(77));
}

TEST(Statuses, AreHandedOnByFamiliesThatAskOthers) {
  const auto name_in = [](int64_t number, StatusFamily family) {
    const StatusNumber *found = catalogue::find_status(number, family);
    return found == nullptr ? std::string_view("none") : found->name;
  };
  EXPECT_EQ("ORP_EVT_ERR", name_in(1, StatusFamily::kEvents));
  EXPECT_EQ("ORP_DMMSG_ERR", name_in(0x30000, StatusFamily::kEvents));
  EXPECT_EQ("ORP_ERR_TIMEOUT", name_in(0x10005, StatusFamily::kEvents));
  EXPECT_EQ("CFM_ERR_ARGUMENT", name_in(0x30000, StatusFamily::kConfiguration));
  EXPECT_EQ("ORP_ERR_TIMEOUT", name_in(0x10005, StatusFamily::kConfiguration));
  EXPECT_EQ("ORP_CFM_ERR_FILE_KEY", name_in(0x31002, StatusFamily::kConfiguration));
  EXPECT_EQ("none", name_in(0x31002, StatusFamily::kMessages));
}

TEST(Statuses, AreListedWithAllTheirMeanings) {
  std::string names;
  for (const StatusNumber &status : meanings(0x10015)) names += std::string(status.name) + " ";

  EXPECT_EQ("ORP_ERR_SPAWN_OPTIONS ORP_ERR_BRIDGE_TEXT ", names);
  EXPECT_EQ("messages", catalogue::family_word(meanings(0x10004).front().family));
  EXPECT_TRUE(meanings(77).empty());
}

TEST(Statuses, AreFoundByNameAndNumber) {
  EXPECT_EQ(0x10005, status_number_of("ORP_ERR_TIMEOUT"));
  EXPECT_EQ(0x10005, status_number_of("0x10005"));
  EXPECT_EQ(65541, status_number_of("65541"));
  EXPECT_EQ(-2, status_number_of("-2"));
  for (const char *text : {"", "0x", "0x-1", "timeout", "1x", "99999999999999999999"}) {
    EXPECT_EQ(std::nullopt, status_number_of(text)) << text;
  }
}

}  // namespace
