// What trace records say about child processes. Tools read the records, so their texts must not
// change.

#include <gmock/gmock.h>

#include <string>

#include "support/trace_records.h"
#include "uv/process_fixture.h"

namespace msgapi {
namespace {

using testing::ElementsAre;
using testing::MatchesRegex;
using TraceRecordsTest = ProcessTest;

TEST_F(TraceRecordsTest, TellOfAChildsEnd) {
  std::string pid;
  const auto records = test::trace_records("exit-proc", [&] {
    Command command = Command::shell("exit 3");
    pid = std::to_string(spawn(command)->pid);
    run_to_end();
  });

  const std::string begin = "uvProcessDoExitCallback track 8: \\[start exit-proc [0-9]+:" + pid +
                            ":/bin/sh -c exit 3\\] ";
  EXPECT_THAT(records, ElementsAre(MatchesRegex(begin + "sig 0, status 3 0x[0-9a-f]+"),
                                   MatchesRegex(begin + "0x[0-9a-f]+")));
}

}  // namespace
}  // namespace msgapi
