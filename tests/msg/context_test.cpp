#include <fcntl.h>
#include <gtest/gtest.h>

#include "msgapi/msg.h"
#include "support/fd_check.h"

namespace {

TEST(TraceStream, IsKeptOnlyWhenTracingIsEnabledAndItCanBeWritten) {
  const test::FdCheck no_leak;
  EXPECT_EQ(-1, g_stMsgCtx.slTraceFd);
  ORP_MSG_TraceProc(::open("/dev/null", O_WRONLY | O_CLOEXEC));
  EXPECT_EQ(nullptr, g_stMsgCtx.pstTraceStream);

  g_stMsgCtx.ulTraceEnabled = 1;
  const int kept = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  ORP_MSG_TraceProc(kept);
  EXPECT_EQ(kept, g_stMsgCtx.slTraceFd);
  EXPECT_EQ('x', std::fputc('x', g_stMsgCtx.pstTraceStream));

  ORP_MSG_TraceProc(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(-1, g_stMsgCtx.slTraceFd);
  EXPECT_EQ(nullptr, g_stMsgCtx.pstTraceStream);
  ORP_MSG_TraceProc(-1);
}

}  // namespace
