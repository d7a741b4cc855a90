// The message server inside the test, with each of its allocations and calls of epoll_ctl failing
// in turn: a client or a request is given up, the server and the other clients go on.
//
// A program of its own, because it replaces operator new and epoll_ctl.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "common/event_loop.h"
#include "common/listen.h"
#include "msgapi/restful.h"
#include "msgsvr/http_front.h"
#include "msgsvr/server.h"
#include "msgsvr/services.h"
#include "msgsvr/worker.h"
#include "servers/http_client.h"
#include "support/fd_check.h"
#include "support/message_peer.h"

namespace {

// How many calls still succeed. The one after them fails, or all after them do.
struct Fault {
  bool armed = false;
  bool lasting = false;
  long left = 0;
  uint32_t failed = 0;

  bool strikes() {
    if (!armed || left < 0) return false;
    if (left-- > 0) return false;
    if (lasting) left = 0;
    ++failed;
    return true;
  }
};
Fault g_allocation;
Fault g_epoll_ctl;
// The next wait without a time limit fails, whichever loop it is.
std::atomic<bool> g_wait_fails = false;

}  // namespace

// Those for arrays call these.
void *operator new(size_t size) {
  void *memory = g_allocation.strikes() ? nullptr : std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void operator delete(void *memory) noexcept {
  std::free(memory);
}
void operator delete(void *memory, size_t) noexcept {
  std::free(memory);
}

extern "C" int epoll_ctl(int epoll, int operation, int fd, epoll_event *event) noexcept {
  if (operation != EPOLL_CTL_DEL && g_epoll_ctl.strikes()) {
    errno = ENOMEM;
    return -1;
  }
  return static_cast<int>(::syscall(SYS_epoll_ctl, epoll, operation, fd, event));
}

extern "C" int epoll_wait(int epoll, epoll_event *events, int count, int timeout_ms) {
  if (timeout_ms < 0 && g_wait_fails.exchange(false)) {
    errno = ENOMEM;
    return -1;
  }
  return static_cast<int>(
      ::syscall(SYS_epoll_pwait, epoll, events, count, timeout_ms, nullptr, _NSIG / 8));
}

namespace {

using servers::UniqueFd;
using test::Frame;
using test::HttpClient;
using test::MessagePeer;
using test::padded;

constexpr uint32_t kType = 0x1234;

// A server with its services, one turn at a time.
class World {
 public:
  World() {
    options_.queue_limit = 65536;
    options_.cut_through = 4096;
    options_.login_state.clear();
    server_ = std::make_unique<msgsvr::Server>(&loop_, options_);
    for (const auto make : {msgsvr::make_registration, msgsvr::make_events, msgsvr::make_restful,
                            msgsvr::make_sync_points, msgsvr::make_login_control}) {
      services_.push_back(make(server_.get()));
    }
  }

  // None of these waits; a client that the server has given up reads the end of its stream.
  MessagePeer connect(const std::string &name) {
    int ends[2];
    EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends));
    const int small = 4096;
    ::setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    MessagePeer client(ends[1], false, name);
    UniqueFd server_end(ends[0]);
    const uint64_t failures_before = failures();
    arm(true);
    const msgsvr::Client *taken = server_->adopt(std::move(server_end));
    arm(false);
    EXPECT_EQ(failures() == failures_before, taken != nullptr) << "taken in whole or not at all";
    client.send({.type = ORP_MSG_REGISTER, .sequence = 1});
    turn();
    return client;
  }

  void turn() {
    for (int i = 0; i < 4; ++i) {
      arm(true);
      loop_.turn(0);
      arm(false);
    }
  }

  void send(MessagePeer *client, const Frame &frame) {
    client->send(frame);
    turn();
  }

  uint64_t failures() const { return loop_.failures(); }

 private:
  static void arm(bool on) { g_allocation.armed = g_epoll_ctl.armed = on; }

  servers::EventLoop loop_;
  msgsvr::Options options_;
  std::unique_ptr<msgsvr::Server> server_;
  std::vector<std::unique_ptr<msgsvr::Service>> services_;
};

// Reads until nothing more comes. Expects whole frames only, unless the connection has ended.
void expect_frames(World *world, MessagePeer *client) {
  std::string bytes;
  char buffer[4096];
  for (int quiet = 0; quiet < 3; ++quiet) {
    ssize_t count;
    while ((count = ::read(client->fd(), buffer, sizeof buffer)) > 0) {
      bytes.append(buffer, static_cast<size_t>(count));
      quiet = 0;
    }
    if (count == 0) return;
    world->turn();
  }
  for (std::string_view rest = bytes; !rest.empty();) {
    ASSERT_GE(rest.size(), msgsvr::kHeaderSize);
    const size_t size = msgsvr::kHeaderSize + msgsvr::load_header(rest.data(), false).ulDataLen;
    ASSERT_LE(size, rest.size());
    rest.remove_prefix(size);
  }
}

// The clients' work. In the end each must have got whole frames.
void act(World *world) {
  MessagePeer a = world->connect("a");
  MessagePeer b = world->connect("b");
  world->send(&b, {.type = ORP_MSG_SUBSCRIBE, .data = ORP_MSG_EVENT_WLAN});
  world->send(&a, {.type = ORP_MSG_SUBSCRIBE, .body = padded("b"), .data = ORP_MSG_EVENT_WLAN + 1});
  world->send(&a, {.type = kType, .to = "b", .body = "short"});
  world->send(&a, {.type = ORP_MSG_EVENT_WLAN, .body = "event"});
  world->send(&a, {.type = kType, .to = "nobody"});
  world->send(&a, {.type = ORP_MSG_SYNC_WAIT, .body = padded("point", 6)});
  world->send(&b, {.type = ORP_MSG_SYNC_POST, .body = padded("point", 6)});
  world->send(&b, {.type = ORP_MSG_SYNC_POST, .body = padded("later", 6)});
  world->send(&b, {.type = ORP_MSG_RESTFUL_REGISTER, .body = padded("/a|/b/c", 8)});
  world->send(&a, {.type = ORP_MSG_COUNT_PROCESSES, .body = padded("b")});
  // In two pieces.
  const std::string half =
      Frame{.type = kType, .to = "b", .body = std::string(900, 'k')}.bytes("a");
  for (const auto &piece : {half.substr(0, 100), half.substr(100)}) {
    a.send_bytes(piece);
    world->turn();
  }
  // Passed on while it arrives, to a slow reader.
  const std::string stream =
      Frame{.type = kType, .to = "b", .body = std::string(20000, 's')}.bytes("a");
  for (size_t at = 0; at < stream.size(); at += 7000) {
    a.send_bytes(std::string_view(stream).substr(at, 7000));
    world->turn();
  }
  // More than the queue takes, and a reader that leaves what is in it, descriptors among that.
  MessagePeer gone = world->connect("gone");
  for (int i = 0; i < 12; ++i) {
    for (const char *to : {"b", "gone"}) {
      world->send(&a, {.type = kType, .to = to, .body = std::string(3000, 'f')});
    }
    if (i % 6 != 0) continue;
    test::send_with_descriptors(a.fd(), std::string(2, '\0'));
    world->turn();
  }
  gone.close();
  MessagePeer c = world->connect("c");
  c.send_bytes(std::string_view(stream).substr(0, 9000));
  world->turn();
  c.close();
  world->turn();
  a.close();
  world->turn();
  expect_frames(world, &b);
  b.close();
  world->turn();
}

void expect_service(World *world) {
  MessagePeer x = world->connect("x");
  MessagePeer y = world->connect("y");
  world->send(&x, {.type = kType, .to = "y", .body = "ok"});
  EXPECT_EQ(ORP_MSG_REGISTER, y.receive(0).value_or(Frame()).type);
  EXPECT_EQ("ok", y.receive(0).value_or(Frame()).body);
}

class Faults : public testing::TestWithParam<bool> {
 protected:
  Faults() {
    // A line for each of thousands of faults.
    const UniqueFd quiet(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    ::dup2(quiet.get(), STDERR_FILENO);
  }

  void fail_each(Fault *fault) {
    {
      World first;  // some things are opened or allocated only by the first run
      act(&first);
    }
    const test::FdCheck fd_check;
    long nth = 0;
    for (bool struck = true; struck; ++nth) {
      World world;
      *fault = Fault{.armed = false, .lasting = GetParam(), .left = nth, .failed = 0};
      act(&world);
      struck = fault->failed > 0;
      fault->left = -1;
      EXPECT_TRUE(!struck || world.failures() > 0 || fault == &g_allocation) << nth;
      expect_service(&world);
      if (HasFailure()) FAIL() << "with call " << nth << " failing";
    }
    RecordProperty("faults", std::to_string(nth));
    EXPECT_GT(nth, 4);
  }
};

TEST_P(Faults, OfMemoryGiveUpAClientOrARequest) {
  fail_each(&g_allocation);
}
TEST_P(Faults, OfEpollGiveUpAClientOrARequest) {
  fail_each(&g_epoll_ctl);
}
INSTANTIATE_TEST_SUITE_P(OnceAndForGood, Faults, testing::Bool());

TEST(WorkerFaults, AreNotTakenForResults) {
  servers::EventLoop loop;
  msgsvr::Worker worker(&loop);
  int done = 0;
  worker.run([] { throw std::bad_alloc(); }, [&] { done += 100; });
  worker.run([] {}, [&] { ++done; });
  while (done == 0) loop.turn(1000);
  EXPECT_EQ(1, done);

#ifndef __SANITIZE_ADDRESS__  // looks at objects through a pipe
  // Without descriptors there is no worker, and it says so.
  rlimit before{};
  ::getrlimit(RLIMIT_NOFILE, &before);
  const rlimit none{0, before.rlim_max};
  ::setrlimit(RLIMIT_NOFILE, &none);
  EXPECT_THROW(msgsvr::Worker another(&loop), std::system_error);
  ::setrlimit(RLIMIT_NOFILE, &before);
#endif
}

class HttpFaults : public testing::Test {
 protected:
  template <typename Handler>
  void serve(Handler handler) {
    front_.emplace(
        &loop_, servers::listen_tcp("127.0.0.1:8080"),
        msgsvr::HttpLimits{.patience = std::chrono::seconds(10)},
        [this, handler](uint64_t id, const msgsvr::HttpRequest &) {
          begun_.push_back(id);
          handler();
        },
        [this](uint64_t id) { abandoned_.push_back(id); });
  }

  static HttpClient ask() {
    HttpClient client;
    EXPECT_TRUE(client.send("GET / HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n"));
    return client;
  }

  // Everything that comes until the connection ends, while the loop turns.
  std::string answer_to(HttpClient client) {
    for (int turns = 0; !client.ended() && turns < 400; ++turns) loop_.turn(50);
    EXPECT_TRUE(client.ended());
    return client.got();
  }

  servers::EventLoop loop_;
  std::vector<uint64_t> begun_;
  std::vector<uint64_t> abandoned_;
  std::optional<msgsvr::HttpFront> front_;
};

TEST_F(HttpFaults, OfEpollAtTheStartAreThrownAndLeaveNothing) {
  const test::FdCheck no_leak;
  long calls = 0;
  for (bool started = false; !started; ++calls) {
    g_epoll_ctl = {.armed = true, .left = calls};
    try {
      serve([] {});
      started = true;
    } catch (const std::system_error &) {
    }
    EXPECT_EQ(started ? 0u : 1u, g_epoll_ctl.failed);
    g_epoll_ctl = {};
  }
  EXPECT_LT(2, calls);
  front_.reset();
}

TEST_F(HttpFaults, GiveUpTheRequestAndTellItsClient) {
  serve([] { throw std::bad_alloc(); });

  const std::string answer = answer_to(ask());

  EXPECT_TRUE(answer.starts_with("HTTP/1.1 503 ")) << answer;
  EXPECT_EQ(1u, begun_.size());
  EXPECT_EQ(begun_, abandoned_) << "what the handler had begun is cleared away";
}

// A thread whose loop fails is given up with its connections, and another one serves the next.
TEST_F(HttpFaults, OfTheThreadInterruptTheService) {
  bool serves = false;
  serve([&] {
    if (serves) front_->answer(begun_.back(), {200, "served again"});
  });
  HttpClient open = ask();
  for (int i = 0; i < 400 && begun_.empty(); ++i) loop_.turn(50);
  ASSERT_EQ(1u, begun_.size());

  testing::internal::CaptureStderr();
  g_wait_fails = true;
  const HttpClient last = ask();
  EXPECT_EQ("", answer_to(std::move(open))) << "its connection is closed";
  for (int i = 0; i < 400 && abandoned_.empty(); ++i) loop_.turn(50);
  EXPECT_EQ(begun_, abandoned_);
  front_->answer(begun_[0], {200, "nobody waits"});

#ifndef __SANITIZE_ADDRESS__  // whose checks need descriptors
  // It is tried again until there are descriptors.
  rlimit before{};
  ::getrlimit(RLIMIT_NOFILE, &before);
  const UniqueFd lowest_free(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0));
  const rlimit full{static_cast<rlim_t>(lowest_free.get()) + 1, before.rlim_max};
  ::setrlimit(RLIMIT_NOFILE, &full);
  const auto begin = std::chrono::steady_clock::now();
  while (std::chrono::steady_clock::now() - begin < std::chrono::milliseconds(1100)) loop_.turn(50);
  ::setrlimit(RLIMIT_NOFILE, &before);
#endif
  serves = true;
  EXPECT_TRUE(answer_to(ask()).ends_with("served again"));
  EXPECT_GT(begun_.back(), begun_.front()) << "numbers go on";

  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_THAT(log, testing::HasSubstr("HTTP is interrupted, its thread has stopped: epoll_wait"));
  EXPECT_THAT(log, testing::HasSubstr("HTTP is served again"));
#ifndef __SANITIZE_ADDRESS__
  EXPECT_THAT(log, testing::HasSubstr("HTTP cannot be served: dup"));
#endif
}

// The thread may break down at the very end.
TEST_F(HttpFaults, OfTheThreadDoNotKeepTheServerFromEnding) {
  g_wait_fails = true;
  serve([] {});
  while (g_wait_fails) continue;
  front_.reset();
  EXPECT_TRUE(begun_.empty());
}

}  // namespace
