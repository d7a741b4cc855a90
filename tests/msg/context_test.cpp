#include "msg/context.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>

#include "base/app_name.h"
#include "support/fd_check.h"

namespace msgapi::msg {
namespace {

TEST(Context, StartsUnconnected) {
  EXPECT_STREQ("", g_stMsgCtx.aucAppName);
  EXPECT_EQ(-1, g_stMsgCtx.slSocket);
  EXPECT_EQ(-1, g_stMsgCtx.slTraceFd);
  EXPECT_EQ(0u, g_stMsgCtx.ulFlags);
}

TEST(Context, KeepsTheNameOfTheLayersBelowEqual) {
  set_own_name("a-very-long-name");
  EXPECT_STREQ("a-very-long", g_stMsgCtx.aucAppName);
  EXPECT_STREQ("a-very-long", g_appName);

  clear_context();
  EXPECT_STREQ("", g_appName);
}

TEST(TraceStream, IsKeptOnlyWhenTracingIsEnabled) {
  const test::FdCheck no_leak;
  int channel[2];
  ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, channel));

  ORP_MSG_TraceProc(channel[0]);
  EXPECT_EQ(nullptr, g_stMsgCtx.pstTraceStream);
  char byte;
  EXPECT_EQ(0, ::read(channel[1], &byte, 1)) << "the descriptor is closed";
  ::close(channel[1]);

  g_stMsgCtx.ulTraceEnabled = 1;
  const int kept = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  ORP_MSG_TraceProc(kept);
  EXPECT_EQ(kept, g_stMsgCtx.slTraceFd);
  EXPECT_EQ(1, std::fputc('x', g_stMsgCtx.pstTraceStream) == 'x');

  ORP_MSG_TraceProc(-1);
  EXPECT_EQ(-1, g_stMsgCtx.slTraceFd);
  EXPECT_EQ(nullptr, g_stMsgCtx.pstTraceStream);
}

TEST(TraceStream, ADescriptorThatCannotBeWrittenIsClosed) {
  const test::FdCheck no_leak;
  g_stMsgCtx.ulTraceEnabled = 1;

  ORP_MSG_TraceProc(::open("/dev/null", O_RDONLY | O_CLOEXEC));

  EXPECT_EQ(-1, g_stMsgCtx.slTraceFd);
}

}  // namespace
}  // namespace msgapi::msg
