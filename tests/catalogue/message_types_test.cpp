#include "catalogue/message_types.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "msgapi/event.h"
#include "support/file.h"

namespace {

namespace fs = std::filesystem;

using catalogue::describe;
using catalogue::Group;
using catalogue::message_types;
using catalogue::MessageType;
using catalogue::number_of;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const fs::path kSource = MSGAPI_SOURCE;

using Constants = std::map<std::string, uint32_t>;

Constants constants_in(const fs::path &header) {
  const std::string text = test::contents(header);
  static const std::regex definition(R"(#define (\w+) (0x[0-9a-fA-F]+)u\b)");
  Constants constants;
  for (std::sregex_iterator match(text.begin(), text.end(), definition), end; match != end;
       ++match) {
    constants[(*match)[1]] = static_cast<uint32_t>(std::stoul((*match)[2], nullptr, 16));
  }
  return constants;
}

TEST(MessageTypes, AreThoseOfThePublicHeader) {
  Constants in_header = constants_in(kSource / "include/msgapi/messages.h");
  EXPECT_EQ(1u, in_header.erase("ORP_MSG_EVENT_PAGE"));
  EXPECT_EQ(1u, in_header.erase("ORP_MSG_FIRST_JSON_EVENT"));

  Constants in_table;
  for (const MessageType &type : message_types())
    in_table[std::string(type.constant)] = type.number;

  EXPECT_EQ(in_header, in_table);
}

TEST(MessageTypes, HaveNamesThatTellThemApart) {
  std::set<std::string_view> names;
  static const std::regex words("[a-z]+(-[a-z]+)*");
  for (const MessageType &type : message_types()) {
    EXPECT_TRUE(names.insert(type.name).second) << type.name;
    EXPECT_TRUE(std::regex_match(std::string(type.name), words)) << type.name;
    EXPECT_FALSE(type.meaning.empty()) << type.name;
  }
}

TEST(MessageTypes, NameTheModulesOfTheLibrary) {
  size_t modules = 0;
  for (uint32_t number = ORP_MSG_ALL_EVENTS; number >> 8 == ORP_MSG_EVENT_PAGE; ++number) {
    const char *module = ORP_EVT_GetEventModuleNameByEventType(number);
    const MessageType *type = catalogue::find(number);
    ASSERT_NE(nullptr, type);
    EXPECT_EQ(module != nullptr, type->last == type->number) << number;
    if (module == nullptr) continue;
    EXPECT_EQ("module \"" + std::string(module) + "\"", type->meaning);
    ++modules;
  }
  EXPECT_LT(0u, modules);
}

TEST(MessageTypes, AreDescribedByTheirLowBits) {
  EXPECT_EQ("register (0x701)", describe(ORP_MSG_REGISTER));
  EXPECT_EQ("register (0x701)", describe(0xfff00000u | ORP_MSG_REGISTER));
  EXPECT_EQ("event-wan (0x2da65)", describe(ORP_MSG_EVENT_WAN));
  EXPECT_EQ("event (0x2dafe)", describe(0x2dafe));
  EXPECT_EQ("0x2db00", describe(0x2db00));
  EXPECT_EQ("0x0", describe(0));
}

TEST(MessageTypes, AreFoundByNameConstantAndNumber) {
  for (const MessageType &type : message_types()) {
    EXPECT_EQ(type.number, number_of(type.name));
    EXPECT_EQ(type.number, number_of(type.constant));
  }
  EXPECT_EQ(0x1234u, number_of("0x1234"));
  EXPECT_EQ(0xfffffu, number_of("1048575"));
  for (const char *text :
       {"", "0x", "0x100000", "1048576", "-1", "0x12g", "Register", "register "}) {
    EXPECT_EQ(std::nullopt, number_of(text)) << text;
  }
}

// "FILE:LINE: 0x701 is ORP_..." for each number of a known type in the code.
std::vector<std::string> raw_numbers(const fs::path &file) {
  // Comments and texts of a line are matched, too, so that numbers in them are not.
  static const std::regex part(
      R"re(//.*|/\*.*?(?:\*/|$)|^ *\*.*|R"\(.*?(?:\)"|$)|'"'|"(?:\\.|[^"\\])*")re"
      R"re(|\b(0x[0-9a-fA-F]{1,5})(?![0-9a-fA-F]))re");
  std::vector<std::string> found;
  std::ifstream lines(file);
  int line = 0;
  for (std::string code; std::getline(lines, code);) {
    ++line;
    for (std::sregex_iterator match(code.begin(), code.end(), part), end; match != end; ++match) {
      if (!(*match)[1].matched) continue;
      const auto number = static_cast<uint32_t>(std::stoul((*match)[1], nullptr, 16));
      const MessageType *type = catalogue::find(number);
      if (type == nullptr || type->number != number) continue;
      found.push_back(fs::relative(file, kSource).string() + ":" + std::to_string(line) + ": " +
                      match->str() + " is " + std::string(type->constant));
    }
  }
  return found;
}

TEST(MessageTypes, AreNumberedInOnePlace) {
  const fs::path header = kSource / "include/msgapi/messages.h";
  std::vector<std::string> found;
  for (const char *folder :
       {"include", "src", "platform", "servers", "tools", "examples", "tests", "fuzz", "bench"}) {
    for (const auto &entry : fs::recursive_directory_iterator(kSource / folder)) {
      static const std::set<std::string> kCode = {".h", ".cpp", ".c"};
      const fs::path &path = entry.path();
      // The tests of the catalogue itself may have numbers.
      if (!kCode.contains(path.extension()) || path == header ||
          path.parent_path() == kSource / "tests/catalogue") {
        continue;
      }
      std::ranges::move(raw_numbers(path), std::back_inserter(found));
    }
  }

  EXPECT_THAT(found, IsEmpty()) << "use the constant of msgapi/messages.h";
  EXPECT_EQ(message_types().size(), raw_numbers(header).size());
}

}  // namespace
