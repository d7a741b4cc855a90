// The example, run like a user runs it.

#include <gmock/gmock.h>
#include <signal.h>

#include "support/process.h"

namespace {

using testing::HasSubstr;

TEST(Supervisor, RestartsProgramsAndShowsTheirOutputByLines) {
  test::Process supervisor("supervisor",
                           {"--restarts=1", "--delay=1", "one=printf 'first\\nsecond'; exit 3",
                            "two=echo problem >&2; kill -9 $$"});

  EXPECT_EQ(0, supervisor.wait());

  for (const char *line :
       {"one: first\n", "one: second\n", "one: ended with exit code 3\n", "one: not restarted\n",
        "two: problem\n", "two: ended by signal 9\n", "two: not restarted\n"}) {
    EXPECT_THAT(supervisor.output(), HasSubstr(line));
  }
  const size_t first = supervisor.output().find("one: first");
  EXPECT_NE(std::string::npos, supervisor.output().find("one: first", first + 1)) << "restarted";
}

TEST(Supervisor, EndsItsProgramsOnSignal) {
  test::Process supervisor("supervisor", {"sleeper=echo up; sleep 1000"});
  ASSERT_TRUE(supervisor.wait_for("sleeper: up"));

  EXPECT_EQ(0, supervisor.stop(SIGTERM));

  EXPECT_THAT(supervisor.output(), HasSubstr("sleeper: ended by signal 15\n"));
}

TEST(Supervisor, RefusesWhatIsNoProgram) {
  test::Process supervisor("supervisor", {"nameless"});

  EXPECT_EQ(2, supervisor.wait());
}

}  // namespace
