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
  ::close(0);  // the socket gets that number, which is one like any other
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

TEST_F(SocketBaseTest, ResponseWaitOutlivesItsSocketBaseHoweverThatGoes) {
  enum Way {
    kByDescriptor,
    kInItsProcedure,
    kAsIoWatcher,
    kWithTheLoop,
    kWithTheLoopInItsProcedure
  };
  OrpUvLoop *loop = OrpUvLoopGetDefault();
  for (const Way way :
       {kByDescriptor, kInItsProcedure, kAsIoWatcher, kWithTheLoop, kWithTheLoopInItsProcedure}) {
    calls.clear();
    on_event = [&](ORP_UTIL_SOCKBASE_ST *self) {
      if (way == kInItsProcedure) ORP_UTIL_SocketBaseDelete(self);
      if (way == kWithTheLoopInItsProcedure) ORP_UV_LoopDestroy(loop);
      OrpUvLoopStop(loop);
    };
    const bool in_procedure = way == kInItsProcedure || way == kWithTheLoopInItsProcedure;
    ORP_UTIL_SOCK_RESP_ST *wait = ORP_UTIL_SockbaseWaitSockRespAsync(
        in_procedure ? readable_socket() : socket(), 0, 5, 7, event);
    if (way == kByDescriptor) ORP_UTIL_SockBaseDeleteNew(wait->sockBase->io.fd);
    if (way == kAsIoWatcher) OrpUvIoDelete(&wait->sockBase->io);
    if (way == kWithTheLoop) ORP_UV_LoopDestroy(loop);
    if (in_procedure) ORP_UTIL_SockBaseStart(0);
    turn(loop);
    EXPECT_EQ(nullptr, wait->sockBase) << way;

    if (wait->timer != nullptr) wait->timer->expirySec = 1;
    turn(loop);
    EXPECT_EQ(in_procedure ? 1u : 0u, calls.size()) << way << ": the time-out calls nobody";
    EXPECT_EQ(nullptr, wait->timer) << way;
    ORP_UTIL_SocketbaseAsyncEvtDestroy(wait);
    turn(loop);
  }
}

TEST_F(SocketBaseTest, ResponseWaitThatTimesOutMayEndInAnyWay) {
  on_event = [&](ORP_UTIL_SOCKBASE_ST *self) {
    auto *response = reinterpret_cast<ORP_UTIL_SOCK_RESP_ST *>(self->io.head.data);
    EXPECT_EQ(1u, response->timedOut);
    ORP_UTIL_SocketBaseDelete(self);
    ORP_UTIL_SocketbaseAsyncEvtDestroy(response);
    ORP_UV_LoopDestroy(OrpUvLoopGetDefault());
    OrpUvLoopStop(OrpUvLoopGetDefault());
  };
  ASSERT_NE(nullptr, ORP_UTIL_SockbaseWaitSockRespAsync(socket(), 0, 5, 7, event));

  EXPECT_EQ(ORP_OK, ORP_UTIL_SockBaseStart(0));

  EXPECT_EQ(1u, calls.size());
}

TEST_F(SocketBaseTest, ResponseWaitMakesItsSocketBaseBeforeItsTimer) {
  ORP_UTIL_SOCK_RESP_ST *wait = ORP_UTIL_SockbaseWaitSockRespAsync(socket(), 0, 0, 7, event);

  EXPECT_EQ(&wait->sockBase->io.head, OrpUvLoopGetDefault()->watchers);
  EXPECT_EQ(&wait->timer->head, wait->sockBase->io.head.link);
  ORP_UTIL_SocketbaseAsyncEvtDestroy(wait);
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
