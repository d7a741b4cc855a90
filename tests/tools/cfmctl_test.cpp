// cfmctl as a user runs it.

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "support/file.h"
#include "support/process.h"
#include "support/terminal.h"

namespace {

using testing::HasSubstr;

// The output includes standard error.
test::Output cfmctl(const std::string &arguments) {
  return test::shell("cfmctl " + arguments + " 2>&1");
}

std::string output_of(const std::string &arguments) {
  const test::Output outcome = cfmctl(arguments);
  EXPECT_EQ(0, outcome.status) << arguments << "\n" << outcome.text;
  return outcome.text;
}

void write_file(const char *path, const std::string &text) {
  std::ofstream(path) << text;
}

constexpr char kDefaults[] = MSGAPI_SOURCE "/tools/cfmctl/defaults.json";

TEST(Cfmctl, SeedsReadsChangesAndResets) {
  output_of("import --defaults " + std::string(kDefaults));

  EXPECT_EQ("3\n", output_of("get 0x61A11703"));
  output_of("set 1637947139 7");  // the same identifier
  EXPECT_EQ("7\n", output_of("get 0x61A11703"));
  output_of("set 0xA8622400/2/0x40A22401 root");
  output_of("set app/271 01");
  EXPECT_EQ("root\n", output_of("get 0xA8622400/2/0x40A22401"));
  EXPECT_EQ("01\n", output_of("get app/271"));
  EXPECT_EQ("host 1.0.0\n", output_of("get equip/0x80000337"));
  output_of("remove 0xA8622400/1/0");
  EXPECT_EQ("0xA8622400/2\n", output_of("objects"));

  output_of("reset");

  EXPECT_EQ("3\n", output_of("get 0x61A11703"));
  EXPECT_EQ("0xA8622400/1\n0xA8622400/2\n", output_of("objects"));
  EXPECT_EQ("the store is sound\n", output_of("check"));
}

TEST(Cfmctl, ExportsWhatItImportsByteForByte) {
  output_of("import --defaults " + std::string(kDefaults));
  output_of("set app/9 00ff7f --type bytes --size 16");
  output_of("set 5 \"$(printf 'a\\377b ')c\" --type text --size 32");
  const std::string before = output_of("export");
  write_file("/var/before.json", before);

  output_of("reset");
  EXPECT_NE(before, output_of("export -"));
  output_of("import /var/before.json");

  EXPECT_EQ(before, output_of("export"));
  output_of("export /var/before.json");
  EXPECT_EQ(before, test::contents("/var/before.json"));
  struct stat status {};
  ASSERT_EQ(0, ::stat("/var/before.json", &status));
  EXPECT_EQ(0600u, status.st_mode & 0777) << "it holds secrets";
  EXPECT_EQ(before, test::shell("cfmctl export /dev/stdout | cat").text);
  EXPECT_EQ(1, cfmctl("export >/dev/full").status);
  // A link stays one, as /dev/stdout must when it leads to a file.
  ASSERT_EQ(0, ::symlink("/var/by_link.json", "/var/link"));
  for (const char *when : {"new", "there already"}) {
    output_of("export /var/link");
    ASSERT_EQ(0, ::lstat("/var/link", &status));
    EXPECT_TRUE(S_ISLNK(status.st_mode)) << when;
    EXPECT_EQ(before, test::contents("/var/by_link.json")) << when;
  }
  ASSERT_EQ(0, ::stat("/var/by_link.json", &status));
  EXPECT_EQ(0600u, status.st_mode & 0777);
  EXPECT_THAT(before, HasSubstr("\"hex\": \"61ff622063")) << "a text that is not UTF-8";
}

TEST(Cfmctl, ShowsForeignTextsHarmlessly) {
  output_of("set 5 \"$(printf 'a\\nb\\033]0;c\\007\\302\\233')\" --type text --size 32");

  EXPECT_THAT(output_of("list"), HasSubstr("  a\\x0ab\\x1b]0;c\\x07\\xc2\\x9b\n"));
  EXPECT_THAT(output_of("export"), HasSubstr(R"("a\nb\u001b]0;c\u0007\u009b")"));
  EXPECT_EQ("a\nb\x1b]0;c\a\xc2\x9b\n", output_of("get 5")) << "a script gets it as it is";
  if (test::has_terminals()) {
    EXPECT_EQ("a\nb\\x1b]0;c\\x07\\xc2\\x9b\n", test::on_terminal("cfmctl get 5"));
  }
  write_file("/var/bad.json", R"({"format": "cfm-store", "version": 1, "\u001b[31m": 1})");
  EXPECT_THAT(cfmctl("import /var/bad.json").text, HasSubstr(R"(section '\x1b[31m')"));
}

TEST(Cfmctl, ImportsAllOrNothingAndSaysWhere) {
  output_of("import " + std::string(kDefaults));
  const struct {
    const char *text;
    const char *message;
  } kBad[] = {
      {"{", "parse error"},
      {"[]", "not a file of a configuration store"},
      {R"({"format": "cfm-store", "version": 2})", "only version 1"},
      {R"({"format": "cfm-store", "version": 1, "extra": {}})", "unknown section 'extra'"},
      {R"({"format": "cfm-store", "version": 1, "parameters": {
          "0x61A11703": {"type": "number", "value": 1}, "0x61A11704": {"type": "number",
          "value": 4294967296}}})",
       "parameters/0x61A11704: 'value' is not a number"},
      {R"({"format": "cfm-store", "version": 1, "parameters": {
          "0x61A11703": {"type": "number", "value": 1},
          "7": {"type": "text", "size": 3, "value": "abc"}}})",
       "longer than"},
      {R"({"format": "cfm-store", "version": 1, "objects": {"9": {"1": {"x": {}}}}})",
       "objects/9/1/x: 'x' is not a 32-bit number"},
      {R"({"format": "cfm-store", "version": 1, "parameters": {"0x61A11703": {"type": "number",
          "value": 1}}, "objects": {"0": {"1": {}}}})",
       "objects/0/1: both are numbered from 1"},
      {R"({"format": "cfm-store", "version": 1, "parameters": {"7": {"type": "bytes", "size": 9,
          "hex": "abc"}}})",
       "parameters/7: 'abc' is not a row of bytes"},
  };
  for (const auto &bad : kBad) {
    write_file("/var/bad.json", bad.text);

    const test::Output outcome = cfmctl("import /var/bad.json");

    EXPECT_EQ(1, outcome.status);
    EXPECT_THAT(outcome.text, HasSubstr("cfmctl: /var/bad.json: "));
    EXPECT_THAT(outcome.text, HasSubstr(bad.message));
    EXPECT_EQ("3\n", output_of("get 0x61A11703"));
  }
}

TEST(Cfmctl, ExplainsWhatItCannotDo) {
  EXPECT_THAT(cfmctl("list").text, HasSubstr("there is no store at /var/cfm/cfm.db"));
  output_of("import " + std::string(kDefaults));

  EXPECT_THAT(cfmctl("get 77").text, HasSubstr("there is no such value"));
  EXPECT_THAT(cfmctl("set 77 1").text, HasSubstr("there is no such value"));
  EXPECT_THAT(cfmctl("get 1/2").text, HasSubstr("'1/2' names no value"));
  EXPECT_THAT(cfmctl("set 0x61A11703 abc").text, HasSubstr("'abc' is not a 32-bit number"));
  EXPECT_THAT(cfmctl("export /nonexistent/file").text, HasSubstr("No such file or directory"));
  EXPECT_NE(0, cfmctl("import").status);
}

}  // namespace
