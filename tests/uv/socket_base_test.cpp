#include "msgapi/sockbase.h"

#include <fcntl.h>

#include "support/allocation.h"
#include "uv/loop_fixture.h"

namespace msgapi {
namespace {

using testing::ElementsAre;

class SocketBaseTest : public LoopTest {
 protected:
  static void event(ORP_UTIL_SOCKBASE_ST *sock_base, uint32_t event) {
    recorded(std::to_string(sock_base->io.head.data) + ":" + std::to_string(event));
    OrpUvLoopStop(OrpUvLoopGetDefault());
    if (on_event) on_event(sock_base);
  }

  static inline std::function<void(ORP_UTIL_SOCKBASE_ST *)> on_event;
};

TEST_F(SocketBaseTest, ModeChoosesWhatIsArmed) {
  const struct {
    uint32_t mode, armed;
  } cases[] = {{1, ORP_UV_READABLE}, {0, 0}, {10, ORP_UV_WRITABLE}, {2, ORP_UV_EXCEPTION}};
  for (const auto &c : cases) {
    ORP_UTIL_SOCKBASE_ST *made = nullptr;
    ASSERT_EQ(ORP_OK, ORP_UTIL_SockBaseReg(socket(), 0, event, c.mode, 5, &made));
    EXPECT_EQ(c.armed, made->io.armed) << c.mode;
    EXPECT_EQ(ORP_UV_IO | ORP_UV_SOCKBASE | ORP_UV_COUNTED | ORP_UV_ACTIVE, made->io.head.status);

    ORP_UTIL_SocketBaseListen(made, 10);
    EXPECT_EQ(ORP_UV_WRITABLE, made->io.armed);
    ORP_UTIL_SocketBaseListen(made, 1);
    ORP_UTIL_SetWriteFd(made);
    EXPECT_EQ(ORP_UV_READABLE | ORP_UV_WRITABLE, made->io.armed);
    ORP_UTIL_ClearWriteFd(made);
    EXPECT_EQ(ORP_UV_READABLE, made->io.armed);
    ORP_UTIL_SocketBaseListen(made, 3);
    EXPECT_EQ(0u, made->io.armed);
    ORP_UTIL_SocketBaseDelete(made);
  }
}

TEST_F(SocketBaseTest, CallsItsProcedureFromTheDefaultLoop) {
  ORP_UTIL_SockBaseRegNew(readable_socket(), 0, event, 1, 1);
  ORP_UTIL_SockBaseRegNew(socket(), 0, nullptr, 10, 2);

  EXPECT_EQ(ORP_OK, ORP_UTIL_SockBaseStart(60));

  EXPECT_EQ(60000u, OrpUvLoopGetIdleTime(nullptr));
  EXPECT_THAT(calls, ElementsAre("1:1"));
}

TEST_F(SocketBaseTest, ForcesAReadEvent) {
  ORP_UTIL_SOCKBASE_ST *quiet = ORP_UTIL_SockBaseRegNew(socket(), 0, event, 0, 1);
  ORP_UTIL_SOCKBASE_ST *closed = ORP_UTIL_SockBaseRegNew(-1, 0, event, 1, 2);
  EXPECT_EQ(ORP_OK, ORP_UTIL_SocketBaseForceLoop(quiet));
  EXPECT_EQ(ORP_OK, ORP_UTIL_SocketBaseForceLoop(closed)) << "without a descriptor: no effect";
  ORP_UTIL_SocketBaseDirectDo(closed);

  ORP_UV_LoopRun(nullptr, 1);  // the looking that this takes does not count as idle time

  EXPECT_THAT(calls, ElementsAre("1:1", "2:1"));
}

TEST_F(SocketBaseTest, DeletesByWatcherOrDescriptorInsideACallback) {
  ORP_UTIL_SOCKBASE_ST *first = ORP_UTIL_SockBaseRegNew(readable_socket(), 0, event, 1, 1);
  const int first_fd = first->io.fd;
  ORP_UTIL_SockBaseRegNew(readable_socket(), 0, event, 1, 2);
  const int plain_fd = socket();
  auto *plain = new_record<OrpUvIo>();
  OrpUvIoInit(nullptr, plain, plain_fd, record_event);
  on_event = [&](ORP_UTIL_SOCKBASE_ST *self) {
    ORP_UTIL_SockBaseDeleteNew(plain_fd);
    ORP_UTIL_SockBaseDeleteNew(self->io.fd);
  };

  ORP_UTIL_SockBaseStart(0);

  EXPECT_THAT(calls, ElementsAre("1:1")) << "deletion ends the pass";
  EXPECT_EQ(-1, ::fcntl(first_fd, F_GETFD));
  EXPECT_EQ(plain_fd, plain->fd) << "an I/O watcher that is no socket base stays";
  OrpUvIoDelete(plain);
}

TEST_F(SocketBaseTest, ResponseWaitEndsByResponseOrTimeOut) {
  ORP_UTIL_SOCK_RESP_ST *wait = nullptr;
  on_event = [&](ORP_UTIL_SOCKBASE_ST *self) {
    auto *response = reinterpret_cast<ORP_UTIL_SOCK_RESP_ST *>(self->io.head.data);
    EXPECT_EQ(wait, response);
    EXPECT_EQ(7u, response->userValue);
    recorded(response->timedOut ? "timeout" : "response");
    ORP_UTIL_SocketbaseAsyncEvtDestroy(response);
  };

  wait = ORP_UTIL_SockbaseWaitSockRespAsync(readable_socket(), 0, 60000, 7, event);
  ORP_UTIL_SockBaseStart(0);
  EXPECT_EQ("response", calls.back());
  wait = ORP_UTIL_SockbaseWaitSockRespAsync(socket(), 0, 5, 7, event);
  ORP_UTIL_SockBaseStart(0);
  EXPECT_EQ("timeout", calls.back());

  EXPECT_EQ(ORP_ERR_TIMEOUT, ORP_UV_LoopRun(nullptr, 20));
  EXPECT_EQ(4u, calls.size()) << "neither the timer nor the socket calls again";
}

TEST_F(SocketBaseTest, WithoutMemoryTheDescriptorStaysTheCallers) {
  const int fd = socket();

  EXPECT_EQ(3u, test::fail_every_allocation([&] {
              ORP_UTIL_SOCK_RESP_ST *wait = ORP_UTIL_SockbaseWaitSockRespAsync(fd, 0, 5, 7, event);
              EXPECT_NE(-1, ::fcntl(fd, F_GETFD));
              ORP_UTIL_SocketbaseAsyncEvtDestroy(wait);
              return wait != nullptr;
            }));
}

}  // namespace
}  // namespace msgapi
