#include "msg/context.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "msgapi/trace.h"
#include "support/fd_check.h"

namespace msgapi::msg {
namespace {

TEST(Context, StartsUnconnectedAndKeepsTheNameOfTheLayersBelowEqual) {
  EXPECT_EQ(-1, g_stMsgCtx.slSocket);
  EXPECT_EQ(-1, g_stMsgCtx.slTraceFd);

  set_own_name("a-very-long-name");
  EXPECT_STREQ("a-very-long", g_stMsgCtx.aucAppName);
  EXPECT_STREQ("a-very-long", g_appName);
  clear_context();
  EXPECT_STREQ("", g_appName);
}

TEST(TraceStream, IsKeptOnlyWhenTracingIsEnabledAndItCanBeWritten) {
  const test::FdCheck no_leak;
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
}  // namespace msgapi::msg
