#include "base/copy_failure.h"

#include <gmock/gmock.h>

#include <string>

#include "msgapi/blur.h"
#include "msgapi/dynapp.h"
#include "msgapi/log.h"
#include "msgapi/mac.h"
#include "msgapi/path.h"
#include "msgapi/restful.h"
#include "msgapi/str.h"

namespace {

using testing::MatchesRegex;

TEST(CopyFailure, NamesTheFileInTheTreeTheLineAndTheError) {
  char out[4];
  testing::internal::CaptureStdout();
  EXPECT_TRUE(msgapi::copy_or_report(out, "abc"));
  EXPECT_FALSE(msgapi::copy_or_report(out, "abcd"));
  EXPECT_STREQ("", out);
  msgapi::print_copy_failure("memcpy_s", 34);
  EXPECT_THAT(testing::internal::GetCapturedStdout(),
              MatchesRegex("file tests/base/copy_failure_test.cpp, line [0-9]+: snprintf_s failed, "
                           "err = -1\nfile tests/base/copy_failure_test.cpp, line [0-9]+: memcpy_s "
                           "failed, err = 34\n"));
}

const std::string kLong(300, 'x');

TEST(CopyFailure, IsPrintedByTheFunctionsWhoseTextDoesNotFit) {
  const struct {
    const char *file;
    void (*call)();
    const char *says = "snprintf_s failed, err = -1";
  } kCases[] = {
      {"log/blur", [] { ORP_BLUR_Ip(kLong.c_str()); }},
      {"log/client", [] { MlogSetStatInfo(kLong.c_str(), "x"); }, "memcpy_s failed, err = 34"},
      {"log/client",
       [] {
         char text[8];
         MlogGetStatInfo(kLong.c_str(), text, sizeof text);
       },
       "memcpy_s failed, err = 34"},
      {"log/transport", [] { MlogSocketClose(-1, kLong.c_str()); }},
      {"msg/dynamic_app", [] { ORP_MSG_OrpSyncWait(kLong.c_str(), 1); }},
      {"msg/dynamic_app", [] { ORP_UTIL_PostLua(kLong.c_str(), "script"); }},
      {"msg/restful", [] { ORP_MSG_BuildRestfulReqMsg(0, 0, kLong.c_str(), "h", nullptr, 0); }},
      {"msg/restful",
       [] {
         const ORP_MSG_RESTFUL_ROW_ST table[] = {{kLong.c_str(), nullptr}, {nullptr, nullptr}};
         ORP_MSG_RegRestfulProcEx("path", table, 1);
       }},
      {"util/mac/mac_text",
       [] {
         uint8_t mac[ORP_MAC_SIZE];
         ORP_UTIL_MacStrToByte(kLong.c_str(), '\0', mac);
       }},
      {"util/str/edit",
       [] {
         char function[4];
         ORP_UTIL_FindModuleAndFuncByUri("/api/m/long", nullptr, 0, function, sizeof function);
       }},
  };
  for (const auto &[file, call, says] : kCases) {
    testing::internal::CaptureStdout();
    call();
    EXPECT_THAT(
        testing::internal::GetCapturedStdout(),
        MatchesRegex("file src/" + std::string(file) + ".cpp, line [0-9]+: " + says + "\n"));
  }

  testing::internal::CaptureStdout();
  char out[4];
  EXPECT_EQ(1u, ORP_UTIL_RemoveSuffix("longer", out, sizeof out, '.'));
  EXPECT_EQ("", testing::internal::GetCapturedStdout()) << "failures with paths are silent";
}

}  // namespace
