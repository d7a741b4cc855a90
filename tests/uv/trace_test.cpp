#include "msgapi/trace.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>

#include "base/memory.h"

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
}

TEST(TraceLevels, NamesAboveElevenCharactersAreStoredCutAndNeverMatch) {
  constexpr char kLong[] = "abcdefghijklmno", kStored[] = "abcdefghijk";
  ASSERT_EQ(ORP_OK, ORP_TRACE_SetPackageLevel("all", 1));
  ASSERT_EQ(ORP_OK, ORP_TRACE_SetPackageLevel(kLong, 5));

  EXPECT_EQ(1u, ORP_TRACE_IsModuleEnabled(kStored, 5));
  EXPECT_EQ(0u, ORP_TRACE_IsModuleEnabled(kLong, 5)) << "what counts is all";
  EXPECT_EQ(1u, ORP_TRACE_IsModuleEnabled(kLong, 1));
  ORP_TRACE_SetPackageLevel(kLong, 0);
  EXPECT_EQ(1u, ORP_TRACE_IsModuleEnabled(kStored, 5)) << "not removed";
  ORP_TRACE_SetPackageLevel(kStored, 0);
  EXPECT_EQ(0u, ORP_TRACE_IsModuleEnabled(kStored, 5));

  ORP_TRACE_CTX_ST context = {nullptr, nullptr, nullptr, -1};
  for (const uint32_t level : {1u, 2u}) TraceCtxSetPackageLevel(&context, kLong, level);
  ASSERT_NE(nullptr, context.packages->link) << "each time another one";
  EXPECT_STREQ(kStored, context.packages->link->name);
  TraceCtxSetPackageLevel(&context, "all", 0);
  EXPECT_EQ(nullptr, context.packages);
}

TEST(TraceModules, AreKnownByName) {
  EXPECT_EQ(ORP_ERR_MEMORY, ORP_TRACE_RegModule(nullptr)) << "kept";
  EXPECT_EQ(ORP_OK, ORP_TRACE_RegModule("module"));
  fail_allocation(1);
  EXPECT_EQ(ORP_OK, ORP_TRACE_RegModule("module")) << "nothing is added";
  EXPECT_EQ(ORP_ERR_MEMORY, ORP_TRACE_RegModule("another"));
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
