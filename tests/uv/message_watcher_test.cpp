#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/time.h>

#include <thread>
#include <utility>

#include "base/bytes.h"
#include "base/drop_count.h"
#include "base/list.h"
#include "base/memory.h"
#include "msgapi/msg.h"
#include "support/frame.h"
#include "support/system_calls.h"
#include "uv/loop_fixture.h"

namespace msgapi {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::string frame(uint32_t type, uint32_t seq, const std::string &body) {
  return test::Frame{.type = type, .body = body, .sequence = seq}.bytes();
}

std::string body_of(const ORP_MSG_HEADER_ST *message) {
  return {reinterpret_cast<const char *>(message + 1), message->ulDataLen};
}

constexpr uint32_t kFlagged = 0x10000000;

class MessageWatcherTest : public LoopTest {
 protected:
  // A started watcher of the loop for messages with the header of the message layer.
  OrpUvMsg *receive_from(int fd) {
    auto *watcher = new_record<OrpUvMsg>();
    EXPECT_EQ(ORP_OK, OrpUvMsgInit(&loop_, watcher, fd, took));
    watcher->headerSize = sizeof(ORP_MSG_HEADER_ST);
    watcher->lengthProc = [](ORP_MSG_HEADER_ST *header, uint32_t *flag) {
      *flag = header->ulMsgType & kFlagged;
      return header->ulDataLen;
    };
    watcher->matchProc = [](const ORP_MSG_HEADER_ST *message, uint32_t key1, uint32_t key2) {
      return static_cast<uint32_t>(message->ulMsgType == key1 && message->ulSeqNum == key2);
    };
    watcher->completeProc = [](ORP_MSG_HEADER_ST **message) { return completion(message); };
    EXPECT_EQ(ORP_OK, OrpUvMsgStart(watcher));
    return watcher;
  }

  void send(const std::string &bytes) {
    ASSERT_EQ(static_cast<ssize_t>(bytes.size()), ::write(peer_, bytes.data(), bytes.size()));
  }

  // A request that waits for its answer on `watcher`. `timeout_ms` of 0: without a time-out.
  void expect_answer(OrpUvMsg *watcher, uint32_t type, uint32_t seq, uint32_t timeout_ms) {
    auto *entry = new_record<OrpUvMsgPending>();
    entry->key1 = type;
    entry->key2 = seq;
    entry->data = seq;
    entry->answerProc = answered;
    entry->watcher = watcher;
    entry->timer =
        OrpUtilTimerAdd(timeout_ms, 1, UvMsgWatcherTimeout, reinterpret_cast<ORP_WORD>(entry));
    list_append(watcher->pending, entry);
  }

  static void took(ORP_MSG_HEADER_ST *message) {
    const char *end = reinterpret_cast<const char *>(message + 1) + message->ulDataLen;
    EXPECT_EQ(std::string(16, '\0'), std::string(end, 16)) << "zero bytes follow every message";
    recorded(std::to_string(message->ulMsgType) + ":" + body_of(message));
  }
  static void answered(ORP_MSG_HEADER_ST *message, uint32_t timed_out, ORP_WORD data) {
    EXPECT_EQ(message == nullptr, timed_out == 1);
    recorded((timed_out ? "timeout" : "answer") + std::to_string(data));
  }

  static inline std::function<uint32_t(ORP_MSG_HEADER_ST **)> completion;
};

TEST_F(MessageWatcherTest, HandsOnWholeMessagesOneAnEvent) {
  receive_from(socket());
  send(frame(1, 1, "") + frame(2, 1, "body") + frame(3, 1, std::string(9000, 'x')));
  on_recorded = [&] { EXPECT_EQ(calls.size(), loop_.iteration + 1); };

  run();

  EXPECT_THAT(calls, ElementsAre("1:", "2:body", "3:" + std::string(9000, 'x')));
}

TEST_F(MessageWatcherTest, CostsThreeSystemCallsWithABodyAndTwoWithout) {
  if (!test::can_count_system_calls()) GTEST_SKIP() << "tracing is not possible here";
  for (int n = 0; n < 100; ++n) watch(socket(), ORP_UV_READABLE);
  receive_from(socket());
  on_recorded = [&] { OrpUvLoopStop(&loop_); };

  for (const std::string body : {"", "body"}) {
    auto made = test::system_calls([&] { send(frame(1, 1, body)); }, [&] { run(0); });
    std::erase_if(made, [](const auto &call) { return call.number == SYS_clock_gettime; });
    EXPECT_EQ(body.empty() ? 2u : 3u, made.size()) << "select, header, body";
  }
}

TEST_F(MessageWatcherTest, WaitsForTheMissingPiecesAlsoOnAPipe) {
  int pipe[2];
  ASSERT_EQ(0, ::pipe2(pipe, O_CLOEXEC));
  const int socket_end = socket();
  const std::string bytes = frame(1, 1, "piece by piece");
  on_recorded = [&] { OrpUvLoopStop(&loop_); };
  for (const auto &[reader, writer] : {std::pair(socket_end, peer_), {pipe[0], pipe[1]}}) {
    receive_from(reader);
    std::thread other([&, to = writer] {
      for (const size_t at : {0u, 18u, 36u}) EXPECT_EQ(18, ::write(to, &bytes[at], 18));
    });
    EXPECT_EQ(ORP_OK, run(0));
    other.join();
  }

  EXPECT_THAT(calls, ElementsAre("1:piece by piece", "1:piece by piece"));
  ::close(pipe[1]);
}

TEST_F(MessageWatcherTest, DropsHalfAMessageAfterASecondOfSilence) {
  receive_from(socket());
  send(frame(1, 1, "").substr(0, 20));

  EXPECT_EQ(ORP_ERR_TIMEOUT, run());

  EXPECT_THAT(calls, IsEmpty());
  EXPECT_EQ(1u, g_dropped.read);
}

TEST_F(MessageWatcherTest, DropsWhatIsTooLongOrFindsNoMemory) {
  OrpUvMsg *watcher = receive_from(socket());
  std::string too_long = frame(1, 1, "");
  store(&too_long[offsetof(ORP_MSG_HEADER_ST, ulDataLen)], uint32_t{0x8000001});
  send(too_long);
  run();
  EXPECT_EQ(1u, g_dropped.too_long);
  EXPECT_EQ(ORP_UV_READABLE, watcher->io.armed);

  fail_allocation(1);
  send(frame(2, 1, ""));
  run();
  EXPECT_THAT(calls, ElementsAre("2:")) << "the bytes stay for the next attempt";
  on_recorded = [] { fail_allocation(2); };
  send(frame(3, 1, "") + frame(4, 1, "lost"));
  run();
  EXPECT_THAT(calls, ElementsAre("2:", "3:"));
  EXPECT_EQ(2u, g_dropped.no_memory + g_dropped.read);
}

TEST_F(MessageWatcherTest, CompletionMayReplaceTakeOrRefuseTheMessage) {
  receive_from(socket());
  completion = [](ORP_MSG_HEADER_ST **message) -> uint32_t {
    const std::string body = body_of(*message);
    std::free(*message);
    *message = nullptr;
    if (body == "take") return ORP_OK;
    if (body == "fail") return ORP_ERR_MEMORY;
    *message = static_cast<ORP_MSG_HEADER_ST *>(std::calloc(1, sizeof(ORP_MSG_HEADER_ST) + 16));
    (*message)->ulMsgType = 99;
    return body == "refuse" ? ORP_ERR_ARGUMENT : ORP_OK;
  };
  send(frame(kFlagged, 1, "take") + frame(kFlagged, 1, "fail") + frame(kFlagged, 1, "refuse") +
       frame(kFlagged, 1, "replace") + frame(5, 1, "plain"));

  run();

  EXPECT_THAT(calls, ElementsAre("99:", "5:plain"));
  EXPECT_EQ(3u, g_dropped.completion);
}

TEST_F(MessageWatcherTest, RawModeHandsOnWhatOneReadReturns) {
  OrpUvMsg *watcher = receive_from(socket(SOCK_SEQPACKET));
  watcher->io.head.status |= ORP_UV_MSG_RAW;
  watcher->msgProc = [](ORP_MSG_HEADER_ST *message) {
    recorded(reinterpret_cast<const char *>(message));
  };
  send("first");
  send(std::string(1024, 'y'));

  run();

  EXPECT_THAT(calls, ElementsAre("first", std::string(1024, 'y')));
  timeval timeout = {};
  socklen_t size = sizeof timeout;
  ::getsockopt(watcher->io.fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, &size);
  EXPECT_EQ(1, timeout.tv_sec);
}

TEST_F(MessageWatcherTest, EndOfStreamIsNotWaitedForUntilReadingIsArmedAnew) {
  for (const uint32_t mode : {0u, ORP_UV_MSG_RAW}) {
    OrpUvMsg *watcher = receive_from(socket());
    watcher->io.head.status |= mode;
    const int fd = watcher->io.fd;
    ::shutdown(peer_, SHUT_WR);

    EXPECT_EQ(ORP_ERR_TIMEOUT, run(1)) << "a readable descriptor would keep the loop busy";
    EXPECT_EQ(ORP_UV_READABLE, watcher->io.armed);
    EXPECT_NE(0u, loop_.readSet[fd / 32] & 1u << (fd % 32));
    EXPECT_EQ(0u, g_dropped.read) << "no message was lost";

    OrpUvIoStop(&watcher->io, ORP_UV_READABLE);
    OrpUvMsgStart(watcher);
    ::dup2(readable_socket(), fd);
    watcher->io.head.status |= ORP_UV_MSG_RAW;
    on_recorded = [&] { OrpUvLoopStop(&loop_); };
    EXPECT_EQ(ORP_OK, run(0));
    OrpUvMsgDelete(watcher);
  }
}

TEST_F(MessageWatcherTest, AnswerProcedureMayStartTheNextRequestAndRunTheLoop) {
  OrpUvMsg *watcher = receive_from(socket());
  expect_answer(watcher, 1, 1, 0);
  send(frame(1, 1, "") + frame(1, 1, "second"));
  bool first = true;
  on_recorded = [&] {
    if (!std::exchange(first, false)) return;
    EXPECT_EQ(nullptr, watcher->pending) << "taken out before the call";
    expect_answer(watcher, 1, 2, 0);
    send(frame(1, 2, ""));
    run();
  };

  run();

  EXPECT_THAT(calls, ElementsAre("answer1", "1:second", "answer2"));
}

TEST_F(MessageWatcherTest, RequestOutlivesItsWatcherUntilItsTimerEndsIt) {
  OrpUvMsg *watcher = receive_from(socket());
  expect_answer(watcher, 1, 1, 5);
  expect_answer(watcher, 1, 2, 5);
  send(frame(1, 1, ""));
  on_recorded = [&] { EXPECT_EQ(ORP_OK, OrpUvMsgDelete(watcher)); };
  run();
  turn(&loop_);
  EXPECT_EQ(nullptr, loop_.watchers);

  on_recorded = [] { OrpUvLoopStop(OrpUvLoopGetDefault()); };
  EXPECT_EQ(ORP_OK, ORP_UV_LoopRun(nullptr, 0));
  EXPECT_THAT(calls, ElementsAre("answer1", "timeout2"));
}

TEST_F(MessageWatcherTest, RequestWithoutATimeOutGoesWithItsWatcherOrItsTimer) {
  OrpUvMsg *watcher = receive_from(socket());
  expect_answer(watcher, 1, 1, 0);
  expect_answer(watcher, 1, 2, 60000);
  expect_answer(watcher, 1, 3, 60000);
  OrpUvMsgPending *sleeping = watcher->pending->link, *timer_freed = sleeping->link;
  OrpUtilTimerChgPeriod(sleeping->timer, 0);
  OrpUvMsgDelete(watcher);
  turn(&loop_);
  OrpUvTimerDelete(timer_freed->timer);
  turn(OrpUvLoopGetDefault());
  turn(OrpUvLoopGetDefault());

  EXPECT_EQ(nullptr, OrpUvLoopGetDefault()->watchers);
  EXPECT_THAT(calls, IsEmpty()) << "the leak checker tells the rest";
}

TEST_F(MessageWatcherTest, DestroyedLoopsLeaveNoRequestBehind) {
  OrpUvLoop *loops[] = {&loop_, OrpUvLoopGetDefault()};
  for (const int first : {0, 1}) {
    OrpUvMsg *watcher = receive_from(socket());
    expect_answer(watcher, 1, 1, 60000);
    ::close(watcher->io.fd);
    ORP_UV_LoopDestroy(loops[first]);
    ORP_UV_LoopDestroy(loops[1 - first]);
  }

  EXPECT_THAT(calls, IsEmpty()) << "the leak checker and the sanitizer tell the rest";
}

}  // namespace
}  // namespace msgapi
