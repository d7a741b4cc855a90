#include "common/command_line.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "support/process.h"

namespace {

using servers::CommandLine;
using servers::kUsageStatus;
using servers::Presence;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

std::optional<int> parse(CommandLine *line, std::vector<std::string> words) {
  words.insert(words.begin(), "/usr/bin/whatever");
  std::vector<char *> arguments;
  for (std::string &word : words) arguments.push_back(word.data());
  return line->parse(static_cast<int>(arguments.size()), arguments.data());
}

struct Values {
  std::string name = "before";
  std::vector<std::string> places = {"/a", "/b"};
  std::string colour = "auto";
  bool quiet = false;
  uint32_t count = 5;
  std::string file;

  explicit Values(CommandLine *line) {
    line->option("-n,--name", &name, "a text");
    line->option("--place", &places, "several");
    line->choice("--colour", &colour, {"auto", "always"}, "one of a list");
    line->flag("--quiet", &quiet, "a flag");
    line->number("--count", &count, "a number", {1, 4000000000});
    line->argument("FILE", &file, "an argument", Presence::kOptional);
  }
};

TEST(CommandLine, LeavesWhatIsNotGiven) {
  CommandLine line("tool", "A tool.");
  const Values values(&line);

  EXPECT_EQ(std::nullopt, parse(&line, {}));

  EXPECT_EQ("before", values.name);
  EXPECT_THAT(values.places, ElementsAre("/a", "/b"));
  EXPECT_EQ("auto", values.colour);
  EXPECT_FALSE(values.quiet);
  EXPECT_EQ(5u, values.count);
  EXPECT_EQ("", values.file);
}

TEST(CommandLine, TakesOneValueForEachTimeAnOptionIsGiven) {
  CommandLine line("tool", "A tool.");
  const Values values(&line);

  EXPECT_EQ(std::nullopt,
            parse(&line, {"--place", "/c", "-n", "new", "--quiet", "--count=4000000000", "--colour",
                          "ALWAYS", "--place", "/d", "file"}));

  EXPECT_EQ("new", values.name);
  EXPECT_THAT(values.places, ElementsAre("/c", "/d"));
  EXPECT_EQ("always", values.colour);
  EXPECT_TRUE(values.quiet);
  EXPECT_EQ(4000000000u, values.count);
  EXPECT_EQ("file", values.file);
}

TEST(CommandLine, TakesEmptyValues) {
  CommandLine line("tool", "A tool.");
  const Values values(&line);
  EXPECT_EQ(std::nullopt, parse(&line, {"--name=", "--place=", "--", "--name="}));
  EXPECT_EQ("", values.name);
  EXPECT_THAT(values.places, ElementsAre(""));
  EXPECT_EQ("--name=", values.file);
  EXPECT_EQ(kUsageStatus, parse(&line, {"--count="}));
}

TEST(CommandLine, NamesTheProgramAndTheMistake) {
  const struct {
    std::vector<std::string> words;
    const char *said;
  } kMistakes[] = {
      {{"--nme", "x"}, "--nme"},
      {{"--name"}, "--name"},
      {{"--count", "0"}, "--count"},
      {{"--count", "4000000001"}, "--count"},
      {{"--count", "-1"}, "--count"},
      {{"--count", "many"}, "--count"},
      {{"--colour", "red"}, "--colour"},
      {{"file", "another\x1b[2J\xc2\x9b"}, "another?[2J?"},
      {{"file", "a\x7f\xc2\xa9\xc2"}, "a?\xc2\xa9\xc2"},
  };
  for (const auto &mistake : kMistakes) {
    SCOPED_TRACE(mistake.said);
    CommandLine line("tool", "A tool.");
    const Values values(&line);

    testing::internal::CaptureStderr();
    EXPECT_EQ(kUsageStatus, parse(&line, mistake.words));

    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                AllOf(StartsWith("tool: "), HasSubstr(mistake.said), HasSubstr("'tool --help'")));
    EXPECT_EQ(5u, values.count);
  }
}

TEST(CommandLine, RunsTheOneCommandThatIsGiven) {
  CommandLine line("tool", "A tool.");
  std::string place, name = "name", done;
  const auto get = [&] { done += "get " + place; };
  servers::Command command = line.command("get", "Print", get);
  command.argument("PLACE", &place, "where", Presence::kRequired);
  command.option("--as", &name, "as whom");
  line.command("fail", "Cannot", [] { throw servers::UsageError("not like this"); });

  testing::internal::CaptureStderr();
  EXPECT_EQ(kUsageStatus, parse(&line, {}));
  EXPECT_EQ(kUsageStatus, parse(&line, {"get"}));
  EXPECT_EQ(kUsageStatus, parse(&line, {"get", "here", "there"}));
  EXPECT_EQ("", done) << "nothing is done before everything is checked";
  EXPECT_EQ(kUsageStatus, parse(&line, {"fail"}));
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("tool: not like this\n"));

  EXPECT_EQ(std::nullopt, parse(&line, {"get", "here"}));
  EXPECT_EQ("get here", done);
  EXPECT_EQ(std::nullopt, parse(&line, {"get", "--as=", "there"}));
  EXPECT_EQ("get hereget there", done);
  EXPECT_EQ("", name);
  EXPECT_EQ(kUsageStatus, parse(&line, {"get", "--like=", "there"}));
}

TEST(CommandLine, ShowsDefaultsThatMeanSomething) {
  CommandLine line("tool", "A tool.");
  Values values(&line);
  uint32_t size = 0;
  line.number("--size", &size, "of something", {1, 9});

  testing::internal::CaptureStdout();
  EXPECT_EQ(0, parse(&line, {"--help"}));

  EXPECT_THAT(testing::internal::GetCapturedStdout(),
              AllOf(HasSubstr("A tool."), HasSubstr("Usage: tool"), HasSubstr("before"),
                    HasSubstr("5"), HasSubstr("/a"), Not(HasSubstr("=0"))));
}

TEST(Programs, SayTheirVersionAndRefuseWhatTheyDoNotKnow) {
  for (const char *program : {"msgsvr", "notifyserver", "mlogserver", "mlog", "cfmctl",
                              "supervisor", "dns_relay", "lan_watch"}) {
    SCOPED_TRACE(program);
    test::Process version(program, {"--version"});
    EXPECT_EQ(0, version.wait());
    EXPECT_EQ(std::string(program) + " " MSGAPI_VERSION "\n", version.output());

    test::Process mistaken(program, {"--no-such-option"});
    EXPECT_EQ(kUsageStatus, mistaken.wait());
    EXPECT_THAT(mistaken.output(), StartsWith(std::string(program) + ": "));
  }
}

}  // namespace
