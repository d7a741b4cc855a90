// What trace records say of child processes. Tools read the records, so their texts stay as they
// are.

#include <gmock/gmock.h>

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "uv/process_fixture.h"

namespace {

std::vector<std::string> g_records;

}  // namespace

// Stands in for the library's, which writes nothing: the linker leads its calls here.
extern "C" uint32_t __wrap_ORP_TRACE_PrintInfo(const char * /*function*/, uint32_t /*line*/,
                                               uint32_t /*reserved*/, const char *category,
                                               uint32_t level, const char *format, ...) {
  char text[400];
  va_list values;
  va_start(values, format);
  std::vsnprintf(text, sizeof text, format, values);
  va_end(values);
  if (std::string(text).find("exit-proc") == std::string::npos) return 0;
  g_records.push_back(std::string(category) + " " + std::to_string(level) + ": " + text);
  return 0;
}

namespace msgapi {
namespace {

using testing::ElementsAre;
using testing::MatchesRegex;
using TraceRecordsTest = ProcessTest;

TEST_F(TraceRecordsTest, TellOfAChildsEnd) {
  Command command = Command::shell("exit 3");
  const std::string pid = std::to_string(spawn(command)->pid);
  run_to_end();

  const std::string begin = "track 8: \\[start exit-proc [0-9]+:" + pid + ":/bin/sh -c exit 3\\] ";
  EXPECT_THAT(g_records, ElementsAre(MatchesRegex(begin + "sig 0, status 3 0x[0-9a-f]+"),
                                     MatchesRegex(begin + "0x[0-9a-f]+")));
}

}  // namespace
}  // namespace msgapi
