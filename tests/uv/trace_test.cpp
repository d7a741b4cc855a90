#include "msgapi/trace.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>

#include "support/allocation.h"

namespace msgapi {
namespace {

TEST(TraceLevels, AllStandsForEveryPackageWithoutALevel) {
  ASSERT_EQ(ORP_OK, ORP_TRACE_SetPackageLevel("all", 3));
  ASSERT_EQ(ORP_OK, ORP_TRACE_SetPackageLevel("msg", 5));

  EXPECT_EQ(1u, ORP_TRACE_IsModuleEnabled("x", 3));
  EXPECT_EQ(0u, ORP_TRACE_IsModuleEnabled("x", 4));
  EXPECT_EQ(1u, ORP_TRACE_IsModuleEnabled("msg", 5));

  ORP_TRACE_SetPackageLevel(nullptr, 2);
  EXPECT_EQ(0u, ORP_TRACE_IsModuleEnabled("msg", 5)) << "setting all removes every package first";
  ORP_TRACE_SetPackageLevel("all", 0);
  EXPECT_EQ(0u, ORP_TRACE_IsModuleEnabled("x", 0));
}

TEST(TraceLevels, KeepElevenCharactersOfAName) {
  ORP_TRACE_CTX_ST context = {nullptr, nullptr, nullptr, -1};

  ASSERT_EQ(ORP_OK, TraceCtxSetPackageLevel(&context, "abcdefghijklmno", 1));
  ASSERT_EQ(ORP_OK, TraceCtxSetPackageLevel(&context, "abcdefghijklmno", 2));

  ASSERT_NE(nullptr, context.packages);
  EXPECT_STREQ("abcdefghijk", context.packages->name);
  EXPECT_EQ(2u, context.packages->level);
  EXPECT_EQ(nullptr, context.packages->link) << "the second call must find the first one's entry";
  ASSERT_EQ(ORP_OK, TraceCtxSetPackageLevel(&context, "abcdefghijklmno", 0));
  EXPECT_EQ(nullptr, context.packages);
}

TEST(TraceLevels, ReportMissingMemory) {
  EXPECT_EQ(ORP_ERR_MEMORY, ORP_TRACE_RegModule(nullptr)) << "kept";
  EXPECT_EQ(2u, test::fail_every_allocation([] {
              const uint32_t status = ORP_TRACE_RegModule("module");
              EXPECT_TRUE(status == ORP_OK || status == ORP_ERR_MEMORY);
              return status == ORP_OK;
            }));
  fail_allocation(1);
  EXPECT_EQ(ORP_OK, ORP_TRACE_RegModule("module")) << "nothing is added for a known name";
  EXPECT_EQ(ORP_ERR_MEMORY, ORP_TRACE_SetPackageLevel("msg", 1));
}

TEST(TraceOutput, GoesToTheLogFileOrStandardOutput) {
  EXPECT_EQ(0u, ORP_TRACE_GetOutput());
  ORP_TRACE_SetOutput(1);
  EXPECT_EQ(1u, ORP_TRACE_GetOutput());
  struct stat info;
  ASSERT_EQ(0, ::stat("/online/log", &info));
  EXPECT_EQ(0700u, info.st_mode & 07777u);
  EXPECT_EQ(0, ::access("/online/log/webapp.log", F_OK));

  testing::internal::CaptureStdout();
  ORP_TRACE_SetOutput(1);
  EXPECT_EQ("mkdir for /online/log faield \r\n", testing::internal::GetCapturedStdout());
  ORP_TRACE_SetOutput(0);
  EXPECT_EQ(0u, ORP_TRACE_GetOutput());
}

TEST(TraceFileSize, IgnoresSmallSizes) {
  for (const uint64_t size : {uint64_t{1024}, uint64_t{1025}, uint64_t{1} << 32}) {
    ORP_TRACE_SetFileMaxSize(size);
    ORP_TRACE_SetFileMaxSize(1024);
    EXPECT_EQ(size, ORP_TRACE_GetFileMaxSize());
  }
}

TEST(CurPid, StaysTheParentsInAChild) {
  const int32_t parent = ORP_UTIL_GetCurPid();
  ASSERT_EQ(::getpid(), parent);

  if (::fork() == 0) ::_exit(ORP_UTIL_GetCurPid() == parent ? 0 : 1);
  int status = -1;
  ::wait(&status);

  EXPECT_EQ(0, status);
}

TEST(CurTimeStamp, ShowsBothClocks) {
  EXPECT_TRUE(std::regex_match(ORP_UTIL_GetCurTimeStamp(),
                               std::regex("\\d{8,}\\.\\d{6} \\d{8,}\\.\\d{6}")));
}

}  // namespace
}  // namespace msgapi
