#include "catalogue/type_files.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "support/file.h"

namespace {

namespace fs = std::filesystem;

using catalogue::Body;
using catalogue::Catalogue;
using catalogue::MessageType;
using catalogue::Problem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// A file of one message. Its further members begin on line 4.
std::string file_of(const std::string &members) {
  return "{\"messages\": [{\n\"type\": \"0x1001\", \"name\": \"read-it\",\n"
         "\"from\": \"web\", \"to\": \"cms\", \"meaning\": \"reads it\"" +
         members + "}]}";
}

TEST(TypeFiles, DescribeWhatApplicationsSay) {
  Catalogue types;

  ASSERT_EQ(std::nullopt, types.add(file_of(R"(,
      "comment": "whatever", "timeout_ms": 1500,
      "request": {"data": "which", "body": "path"},
      "answer": {"body": "record", "record": "struct it"})"),
                                    "it.json"));

  const MessageType *type = types.find(0x1001);
  ASSERT_NE(nullptr, type);
  EXPECT_EQ(0x1001u, types.number_of("read-it"));
  EXPECT_EQ("read-it (0x1001)", types.describe(0x1001));
  EXPECT_EQ("register (0x701)", types.describe(0x701));
  EXPECT_EQ("web", type->from);
  EXPECT_EQ("cms", type->to);
  EXPECT_EQ("reads it", type->meaning);
  EXPECT_EQ("which", type->request.data);
  EXPECT_EQ(Body::kPath, type->request.body);
  ASSERT_TRUE(type->answer);
  EXPECT_EQ("struct it", type->answer->record);
  EXPECT_EQ(1500u, type->timeout_ms);
  EXPECT_EQ(0x1001u, type->last);
}

TEST(TypeFiles, MayTakeAnEventOfNoKnownModule) {
  Catalogue types;

  EXPECT_EQ(std::nullopt, types.add(R"({"messages": [{"type": 186999, "name": "event-door",
      "from": "door", "to": "subscribers", "meaning": "open or shut"}]})",
                                    "door.json"));

  EXPECT_EQ("event-door (0x2da77)", types.describe(0x2da77));
  EXPECT_EQ("event (0x2da78)", types.describe(0x2da78));
}

TEST(TypeFiles, WithAMistakeAreSkippedWhole) {
  const struct {
    std::string text;
    size_t line;
    const char *what;
  } kBad[] = {
      {"", 1, "unexpected end of input"},
      {"{\n\n\"messages\" [", 3, "expected ':'"},
      {"{\"messages\": [\n\"\xff\"]}", 2, "invalid string"},
      {"[]", 1, "must be an object"},
      {"{\n}", 1, "'messages' is missing"},
      {"{\"messages\": 7\n}", 1, "must be a list"},
      {"{\"messages\": [\n1\n]}", 2, "a message must be an object"},
      {"{\"messages\": [],\n\"extra\\u001b\": 1}", 2, "'extra?' is not known"},
      {"{\"messages\": [],\n\"messages\": []}", 2, "twice"},
      {std::string(17, '['), 1, "too many levels"},
      {file_of(",\n\"type\": 5"), 4, "twice"},
      {file_of(",\n\"body\": \"text\""), 4, "'body' is not known"},
      {file_of(",\n\"request\": \"text\""), 4, "'request' must be an object"},
      {file_of(",\n\"request\": {\n\"body\": \"json\"}"), 5, "'body' must be none"},
      {file_of(",\n\"request\": {\"body\": \"record\"}"), 4, "'record' says"},
      {file_of(",\n\"answer\": {\"record\": \"x\"}"), 4, "'record' says"},
      {file_of(",\n\"answer\": {\"data\": \"\"}"), 4, "not empty"},
      {file_of(",\n\"answer\": {\"data\": \"\\u009b2J\"}"), 4, "control characters"},
      {file_of(",\n\"answer\": {\"data\": \"" + std::string(401, 'x') + "\"}"), 4, "longer than"},
      {file_of(",\n\"timeout_ms\": 5"), 4, "with an 'answer'"},
      {file_of(",\n\"answer\": {},\n\"timeout_ms\": 1.5\n"), 5, "milliseconds"},
      {file_of(",\n\"answer\": {},\n\"timeout_ms\": 86400001"), 5, "at most a day"},
      {file_of("}, {\"type\": \"0x1002\", \"name\": \"read-it\""), 3, "the name of 0x1001"},
      {file_of("}, {\n\"type\": 4097"), 3, "'name' is missing"},
      {file_of("}, {\n\"type\": 4097, \"name\": \"other\""), 4, "described already, as read-it"},
      {file_of("}, {\n\"type\": \"0x701\", \"name\": \"other\""), 4, "already, as register"},
      {file_of("}, {\n\"type\": 0, \"name\": \"other\""), 4, "from 1 to 0xfffff"},
      {file_of("}, {\n\"type\": -1, \"name\": \"other\""), 4, "from 1 to 0xfffff"},
      {file_of("}, {\n\"type\": \"0x100000\", \"name\": \"other\""), 4, "from 1 to 0xfffff"},
      {file_of("}, {\n\"type\": \"register\", \"name\": \"other\""), 4, "from 1 to 0xfffff"},
      {file_of("}, {\n\"type\": 9, \"name\": \"Other\""), 4, "lower-case words"},
      {file_of("}, {\n\"type\": 9, \"name\": \"4097\""), 4, "lower-case words"},
      {file_of("}, {\n\"type\": 9, \"name\": \"other-\""), 4, "lower-case words"},
  };
  for (const auto &bad : kBad) {
    Catalogue types;
    const size_t before = types.types().size();

    const auto problem = types.add(bad.text, "bad\x1b.json");

    ASSERT_TRUE(problem) << bad.text;
    EXPECT_EQ("bad?.json", problem->file);
    EXPECT_EQ(bad.line, problem->line) << bad.text << "\n" << problem->what;
    EXPECT_THAT(problem->what, HasSubstr(bad.what)) << bad.text;
    EXPECT_EQ(before, types.types().size()) << bad.text;
    EXPECT_EQ("bad?.json:" + std::to_string(bad.line) + ": " + problem->what, problem->text());
  }
}

class TypeDirectories : public testing::Test {
 protected:
  TypeDirectories() {
    fs::create_directories("/var/packages");
    fs::create_directories("/var/device");
  }

  static void write(const std::string &path, const char *number, const char *name) {
    std::ofstream(path) << R"({"messages": [{"type": ")" << number << R"(", "name": ")" << name
                        << R"(", "from": "a", "to": "b", "meaning": "c"}]})";
  }

  std::vector<std::string> load() {
    static constexpr std::string_view kDirectories[] = {"/var/packages", "/var/nowhere",
                                                        "/var/device"};
    std::vector<std::string> problems;
    for (const Problem &problem : types_.load(kDirectories)) problems.push_back(problem.text());
    return problems;
  }

  Catalogue types_;
};

TEST_F(TypeDirectories, AreReadInTheOrderOfFileNamesTheDevicesInPlaceOfThePackages) {
  write("/var/packages/b.json", "0x1001", "second");
  write("/var/packages/c.json", "0x1002", "replaced");
  write("/var/device/c.json", "0x1003", "third");
  write("/var/device/a.json", "0x1001", "first");
  write("/var/device/d.jsonx", "0x1004", "no-such-file");

  EXPECT_THAT(load(), ElementsAre("/var/packages/b.json:1: 0x1001 is described already, as first"));

  EXPECT_EQ("first (0x1001)", types_.describe(0x1001));
  EXPECT_EQ("0x1002", types_.describe(0x1002));
  EXPECT_EQ("third (0x1003)", types_.describe(0x1003));
  EXPECT_EQ("0x1004", types_.describe(0x1004));
}

TEST_F(TypeDirectories, HoldFilesOnly) {
  fs::create_directory("/var/device/a.json");
  ASSERT_EQ(0, ::mkfifo("/var/device/b.json", 0600));
  fs::create_symlink("/nonexistent", "/var/device/c.json");
  std::ofstream("/var/device/d.json") << std::string(256 * 1024 + 1, ' ');
  write("/var/device/e.json", "0x1001", "last");

  EXPECT_THAT(load(), ElementsAre("/var/device/a.json: is no regular file",
                                  "/var/device/b.json: is no regular file",
                                  "/var/device/c.json: No such file or directory",
                                  "/var/device/d.json: is larger than 256 KiB"));
  EXPECT_EQ("last (0x1001)", types_.describe(0x1001));
}

TEST(TypeFiles, OfTheDemoDescribesItsMessages) {
  Catalogue types;
  const std::string demo = MSGAPI_SOURCE "/examples/demo/";

  const auto problem = types.add(test::contents(demo + "demo_types.json"), "demo_types.json");

  ASSERT_FALSE(problem) << problem->text();
  const std::string header = test::contents(demo + "messages.h");
  static const std::regex constant(R"(constexpr uint32_t k\w+ = (0x\w+);)");
  size_t messages = 0;
  for (std::sregex_iterator match(header.begin(), header.end(), constant), end; match != end;
       ++match, ++messages) {
    EXPECT_NE(nullptr, types.find(*types.number_of((*match)[1].str()))) << (*match)[0];
  }
  EXPECT_EQ(types.types().size(), catalogue::message_types().size() + messages);
}

}  // namespace
