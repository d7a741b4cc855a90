#include "msgapi/notify.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "msgapi/loop.h"
#include "msgapi/sockbase.h"
#include "support/allocation.h"
#include "support/fd_check.h"
#include "support/notify_peer.h"

namespace {

int g_wait_divisor = 1;
std::function<void()> g_before_waiting;  // called once, when the client is about to wait

}  // namespace

// Stands in for the C library's: tests of time-outs divide the client's waits.
extern "C" int poll(pollfd *entries, nfds_t count, int timeout_ms) {
  timespec wait{};
  const int ready = ::ppoll(entries, count, &wait, nullptr);
  if (ready != 0 || timeout_ms == 0) return ready;
  if (g_before_waiting) std::exchange(g_before_waiting, nullptr)();
  const int64_t nanoseconds = int64_t{timeout_ms} * 1000000 / g_wait_divisor;
  wait.tv_sec = static_cast<time_t>(nanoseconds / 1000000000);
  wait.tv_nsec = static_cast<long>(nanoseconds % 1000000000);
  return ::ppoll(entries, count, timeout_ms < 0 ? nullptr : &wait, nullptr);
}

namespace {

using test::NotifyMessage;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

constexpr uint32_t kOwnId = 8;
constexpr uint32_t kOther = 26;
constexpr uint32_t kType = 0x1234;

// What procedures were called with, in words; they are plain functions.
std::vector<std::string> g_calls;
std::function<void()> g_during_call;

std::string text_of(void *data) {
  return data == nullptr ? "null" : "\"" + std::string(static_cast<char *>(data)) + "\"";
}

void note(std::string call) {
  g_calls.push_back(std::move(call));
  if (g_during_call) std::exchange(g_during_call, nullptr)();
}

void take_notification(void *first, void *second) {
  note("async " + text_of(first) + " " + text_of(second));
}

void take_any_notification(uint32_t type, void *first, void *second) {
  note("any async " + std::to_string(type) + " " + text_of(first) + " " + text_of(second));
}

// Answers where there is room for an answer.
void take_request(void *data, uint32_t *reply_length, void **reply) {
  const bool answerable = reply_length != nullptr && reply != nullptr;
  note((answerable ? "sync " : "stray ") + text_of(data));
  if (!answerable) return;
  *reply = ::strdup("answer");
  *reply_length = 6;
}

void take_any_request(uint32_t type, void *data, void **reply, uint32_t *reply_length) {
  note("any " + std::to_string(type));
  take_request(data, reply_length, reply);
}

void promise_a_reply(void *, uint32_t *reply_length, void **) {
  *reply_length = 5;
}

// From kOther to this client.
NotifyMessage incoming(uint32_t sequence, uint32_t sync_tag, uint32_t ack_tag,
                       const std::string &data, uint32_t length1 = 0, uint32_t length2 = 0) {
  return {{kType, sequence, kOther, kOwnId, sync_tag, ack_tag, 0, length1, length2, 0, 0, 0}, data};
}

NotifyMessage notification(const std::string &data) {
  return incoming(77, 0, ORP_NOTIFYCLT_REQUEST, data, static_cast<uint32_t>(data.size()));
}

NotifyMessage request(const std::string &data) {
  return incoming(77, 1, ORP_NOTIFYCLT_REQUEST, data);
}

NotifyMessage reply(uint32_t sequence, const std::string &data) {
  return incoming(sequence, 1, ORP_NOTIFYCLT_REPLY, data);
}

void expect_message(const NotifyMessage &expected, const NotifyMessage &got) {
  EXPECT_EQ(expected.bytes(), got.bytes());
}

// Everything that is ready, and the idle procedures behind it.
void run_loop() {
  EXPECT_EQ(ORP_ERR_TIMEOUT, OrpUvLoopRun(nullptr, 1));
}

// The descriptor of the connection, which the loop watches.
int client_fd() {
  for (const int fd : test::open_descriptors()) {
    if (OrpUvIoFindByFd(nullptr, fd) != nullptr) return fd;
  }
  return -1;
}

uint32_t ask(void **data = nullptr, uint32_t *length = nullptr) {
  return ORP_NOTIFYCLT_SendSynNotify(kOther, kType, nullptr, 0, data, length, nullptr);
}

uint32_t post() {
  return ORP_NOTIFYCLT_PostSimpleAsynNotify(kOther, kType, 1, 2);
}

// What `call` prints.
template <typename Call>
std::string output_of(Call call) {
  testing::internal::CaptureStdout();
  call();
  ::fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

std::string path_of(pid_t process) {
  char path[40];
  std::snprintf(path, sizeof path, "/var/run/notify/client%05d", process);
  return path;
}

bool exists(const std::string &path) {
  return ::access(path.c_str(), F_OK) == 0;
}

class NotifyClient : public testing::Test {
 protected:
  void connect() {
    ASSERT_EQ(ORP_NOTIFYCLT_OK, ORP_NOTIFYCLT_Init(kOwnId));
    server_.accept();
    EXPECT_EQ(30u, server_.receive().head.des_id);
  }

  void deliver(const NotifyMessage &message) {
    server_.send(message);
    run_loop();
  }

  // The answer to a message, empty when there is none.
  NotifyMessage answer_to(const NotifyMessage &message) {
    deliver(message);
    return server_.has_received() ? server_.receive() : NotifyMessage{};
  }

  ~NotifyClient() override {
    ORP_NOTIFYCLT_Destroy();
    ORP_UV_LoopDestroy(OrpUvLoopGetDefault());
  }

  test::FdCheck fd_check_;
  test::FakeNotifyServer server_;
};

// ---- Starting and ending ----

TEST_F(NotifyClient, RegistersItsModuleAndPostsItems) {
  ASSERT_EQ(ORP_NOTIFYCLT_OK, ORP_NOTIFYCLT_Init(kOwnId));
  server_.accept();
  EXPECT_EQ(ORP_NOTIFYCLT_OK, ORP_NOTIFYCLT_PostAsynNotify(kOther, kType, "first", 5, "2nd", 3));
  EXPECT_EQ(ORP_NOTIFYCLT_OK, ORP_NOTIFYCLT_PostAsynNotify(kOther, kType, nullptr, 9, "x", 1));
  const uint32_t values[2] = {kOwnId, 0};
  expect_message(
      {{0, 1, kOwnId, 30, 0, 1, 8, 4, 4, 0, 0, 0}, {reinterpret_cast<const char *>(values), 8}},
      server_.receive());
  expect_message({{kType, 2, kOwnId, kOther, 0, 1, 8, 5, 3, 0, 0, 1}, "first2nd"},
                 server_.receive());
  expect_message({{kType, 3, kOwnId, kOther, 0, 1, 1, 0, 1, 0, 0, 1}, "x"}, server_.receive());

  struct stat info {};
  ASSERT_EQ(0, ::stat(path_of(::getpid()).c_str(), &info));
  EXPECT_EQ(mode_t{S_IFSOCK | 0775}, info.st_mode);

  EXPECT_EQ(ORP_NOTIFYCLT_OK, ORP_NOTIFYCLT_Init(9));
  EXPECT_FALSE(server_.somebody_connects());
}

TEST_F(NotifyClient, RemovesItsSocketWhenItDisconnectsOrExits) {
  connect();
  // A child has the parent's connection, too, but not its socket's name.
  for (const bool destroys : {true, false}) {
    const pid_t child = ::fork();
    if (child == 0) {
      if (destroys) ORP_NOTIFYCLT_Destroy();
      if (destroys) ORP_NOTIFYCLT_Init(kOwnId);
      std::exit(exists(path_of(::getpid())) == destroys ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_FALSE(exists(path_of(child)));
    EXPECT_TRUE(exists(path_of(::getpid())));
  }

  ORP_NOTIFYCLT_Destroy();
  EXPECT_FALSE(exists(path_of(::getpid())));
}

TEST_F(NotifyClient, ConnectsOnlyForModulesThatThereAre) {
  EXPECT_EQ(108u, ORP_NOTIFYCLT_GetMIDByName("cloudeng"));
  EXPECT_EQ(nullptr, ORP_NOTIFYCLT_GetNameByMID(UINT32_MAX));
  for (const uint32_t id : {0u, 110u}) EXPECT_EQ(0x10002u, ORP_NOTIFYCLT_Init(id));
  for (const char *name : {"sms", "CMS", static_cast<const char *>(nullptr)}) {
    EXPECT_EQ(ORP_NOTIFYCLT_OK, ORP_NOTIFYCLT_InitByName(name));
  }
  EXPECT_FALSE(server_.somebody_connects());

  EXPECT_EQ(ORP_NOTIFYCLT_OK, ORP_NOTIFYCLT_InitByName("web"));
  server_.accept();
  EXPECT_EQ(26u, server_.receive().head.source_id);
}

TEST(NotifyClientAlone, FailsWithoutAServerAndLeavesNothing) {
  const test::FdCheck check;
  uint32_t length = 7;
  void *data = &length;

  EXPECT_EQ(ORP_NOTIFYCLT_ERR_SOCKET, ORP_NOTIFYCLT_Init(kOwnId));
  EXPECT_EQ(ORP_NOTIFYCLT_ERR_ARGUMENT, post());
  EXPECT_EQ(ORP_NOTIFYCLT_ERR_ARGUMENT, ask(&data, &length));
  EXPECT_EQ(nullptr, data);
  EXPECT_EQ(0u, length);
}

TEST_F(NotifyClient, SurvivesAnyFailedAllocation) {
  const auto attempt = [&] {
    testing::internal::CaptureStdout();
    bool good = ORP_NOTIFYCLT_Init(kOwnId) == ORP_NOTIFYCLT_OK;
    server_.accept();
    good = good && ORP_NOTIFYCLT_RegSyncMsgProc(kType, take_request) == ORP_NOTIFYCLT_OK;
    void *data = nullptr;
    if (good) {
      server_.send(notification("put aside"));
      server_.send(reply(2, "data"));
      good = ask(&data) == ORP_NOTIFYCLT_OK;
    }
    EXPECT_EQ(good, data != nullptr);
    std::free(data);
    ORP_NOTIFYCLT_Destroy();
    server_.close();
    ORP_UV_LoopDestroy(OrpUvLoopGetDefault());
    testing::internal::GetCapturedStdout();
    return good;
  };

  EXPECT_LE(9u, test::fail_every_allocation(attempt));
}

TEST_F(NotifyClient, ForgetsEverythingWhenDestroyed) {
  connect();
  ORP_UV_LoopDestroy(OrpUvLoopGetDefault());  // which the client outlives
  EXPECT_EQ(ORP_NOTIFYCLT_OK, post());
  EXPECT_EQ(kType, server_.receive().head.msg_type);
  ORP_NOTIFYCLT_RegAsyncMsgProc(kType, take_notification);
  ORP_NOTIYCLT_RegMsgProc(take_any_request, take_any_notification);

  ORP_NOTIFYCLT_Destroy();
  EXPECT_EQ(UINT32_MAX, server_.receive().head.msg_type);
  run_loop();

  connect();  // its registration is number 1 again
  EXPECT_EQ(ORP_NOTIFYCLT_OK, post());
  EXPECT_EQ(2u, server_.receive().head.seq_num);
  deliver(notification("late"));
  EXPECT_TRUE(g_calls.empty());
}

// ---- Sending ----

TEST_F(NotifyClient, KeepsMessagesOfManyThreadsWhole) {
  connect();
  std::vector<std::thread> threads;
  for (const char letter : {'a', 'b', 'c', 'd'}) {
    threads.emplace_back([letter] {
      const std::string data(3000, letter);
      for (int i = 0; i < 200; ++i) {
        ORP_NOTIFYCLT_PostAsynNotify(kOther, kType, data.data(), 3000, nullptr, 0);
      }
    });
  }

  std::set<uint32_t> sequence_numbers;
  while (sequence_numbers.size() < 800) {
    const NotifyMessage message = server_.receive();
    ASSERT_EQ(std::string(3000, message.data[0]), message.data);
    EXPECT_TRUE(sequence_numbers.insert(message.head.seq_num).second);
  }
  for (std::thread &thread : threads) thread.join();
}

TEST_F(NotifyClient, TellsWhenTheServerIsGone) {
  connect();
  const std::string fd = std::to_string(client_fd());
  server_.close();

  EXPECT_EQ("notifyclient fail to write notify: fd=" + fd +
                ", data_len=8, send_len=0, errno=EPIPE, ret=-1.\n"
                "notifyclient NotifyMsgSend fail to send, type=0x1234, src=[8], dest=[26] seq=2, "
                "sync_tag=0, data_len=8, ulRetVal=65540, fd=" +
                fd + "\n",
            output_of([] { EXPECT_EQ(ORP_NOTIFYCLT_ERR_TIMEOUT, post()); }));
}

TEST_F(NotifyClient, RebootsWhenTenSendsInARowCouldNotWrite) {
  connect();
  const int room = 4096;
  ::setsockopt(client_fd(), SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
  g_wait_divisor = 1000;
  const auto fail_to_post = [](int times) {
    for (int failed = 0; failed < times;) {
      const uint32_t status = post();
      failed += status == ORP_NOTIFYCLT_ERR_NOT_WRITABLE;
      EXPECT_TRUE(failed > 0 || status == ORP_NOTIFYCLT_OK);
    }
  };
  const auto post_well = [&] {
    while (server_.has_received()) server_.receive();
    EXPECT_EQ(ORP_NOTIFYCLT_OK, post());
  };

  EXPECT_THAT(
      output_of([&] { fail_to_post(9); }),
      MatchesRegex("(Send notify msg err 0:[0-9]+, type=0x1234, src=\\[8\\], dest=\\[26\\], "
                   "ack=\\[1\\], failed time = \\[[1-9]\\]\n){9}"));
  EXPECT_EQ("", output_of(post_well));
  EXPECT_THAT(output_of([&] { fail_to_post(10); }), EndsWith("failed time = [10]\n"));
  EXPECT_EQ(
      "error: notifyclient failed more than 10 times, reboot devie!!"
      "orputil: not run on this host: busybox reboot -f\n",
      output_of(post_well));
}

// ---- Receiving ----

TEST_F(NotifyClient, HandsOverTheItemsThatLieInTheData) {
  connect();
  deliver(notification("nobody takes it"));
  EXPECT_EQ(ORP_NOTIFYCLT_OK, ORP_NOTIFYCLT_RegSyncMsgProc(kType, take_request));
  ORP_NOTIYCLT_RegMsgProc(nullptr, take_any_notification);
  deliver(notification("one"));
  EXPECT_THAT(g_calls, ElementsAre("any async 4660 \"one\" null"));

  EXPECT_EQ(ORP_NOTIFYCLT_OK, ORP_NOTIFYCLT_RegAsyncMsgProc(kType, take_notification));
  const std::tuple<const char *, uint32_t, uint32_t, const char *> cases[] = {
      {"", 0, 0, "async null null"},
      {"ab", 0, 0, "async \"ab\" null"},
      {"abcd", 2, 2, "async \"abcd\" \"cd\""},
      {"ab", 0, 2, "async \"ab\" \"ab\""},
      {"abcd", 2, 3, "async \"abcd\" null"},
      {"abcd", 2, UINT32_MAX, "async \"abcd\" null"},
      {"abcd", UINT32_MAX, 3, "async null null"},
  };

  for (const auto &[data, length1, length2, call] : cases) {
    g_calls.clear();
    deliver(incoming(77, 0, ORP_NOTIFYCLT_REQUEST, data, length1, length2));
    EXPECT_THAT(g_calls, ElementsAre(call)) << data << " " << length1 << " " << length2;
  }
}

TEST_F(NotifyClient, AnswersRequests) {
  connect();
  EXPECT_EQ("", answer_to(request("nobody")).data);
  ORP_NOTIYCLT_RegMsgProc(take_any_request, nullptr);
  EXPECT_EQ("answer", answer_to(request("who")).data);
  ORP_NOTIFYCLT_RegSyncMsgProc(kType, take_request);
  expect_message({{kType, 77, kOwnId, kOther, 1, 2, 6, 0, 0, 0, 0, 0}, "answer"},
                 answer_to(request("you")));

  // The server itself gets no answer, neither does a reply that nobody waits for.
  NotifyMessage from_server = request("server");
  from_server.head.source_id = 30;
  EXPECT_EQ(0u, answer_to(from_server).head.msg_type);
  EXPECT_EQ(0u, answer_to(reply(3, "late")).head.msg_type);
  EXPECT_THAT(g_calls, ElementsAre("any 4660", "sync \"who\"", "sync \"you\"", "sync \"server\"",
                                   "stray \"late\""));

  ORP_NOTIFYCLT_RegSyncMsgProc(kType, promise_a_reply);
  EXPECT_THAT(output_of([&] { EXPECT_EQ(0u, answer_to(request("")).head.msg_type); }),
              HasSubstr("memcpy_s failed, err = 22\n"));
  EXPECT_EQ(ORP_NOTIFYCLT_ERR_ARGUMENT, ORP_NOTIFYCLT_MsgFilterProc(nullptr));
}

TEST_F(NotifyClient, ReadsDataThatArrivesInPieces) {
  connect();
  ORP_NOTIFYCLT_RegAsyncMsgProc(kType, take_notification);
  const std::string bytes = notification("in pieces").bytes();
  server_.send(bytes.substr(0, 50));
  g_before_waiting = [&] { server_.send(bytes.substr(50)); };

  EXPECT_THAT(output_of(run_loop),
              HasSubstr("want len=9, got len=2, msg type=0x1234, src=26, dest=8!\n"));

  EXPECT_THAT(g_calls, ElementsAre("async \"in pieces\" null"));
}

TEST_F(NotifyClient, TakesEightMebibytes) {
  connect();
  static size_t length;
  ORP_NOTIFYCLT_RegAsyncMsgProc(
      kType, [](void *first, void *) { length = std::strlen(static_cast<char *>(first)); });
  std::thread sender([&] { server_.send(notification(std::string(0x800000, 'x'))); });

  output_of([&] {
    while (length == 0) run_loop();
  });

  sender.join();
  EXPECT_EQ(0x800000u, length);
}

TEST_F(NotifyClient, StaysInStepWithoutMemory) {
  connect();
  ORP_NOTIFYCLT_RegAsyncMsgProc(kType, take_notification);

  EXPECT_EQ("malloc msg header failed.\nrealloc failed in NotifyMsgRecv.\n", output_of([&] {
              server_.send(notification("kept"));
              msgapi::fail_allocation(1);  // of the head, which stays in the socket
              run_loop();
              server_.send(notification(std::string(5000, 'x')));
              server_.send(notification("next"));
              msgapi::fail_allocation(2);  // of the data
              run_loop();
            }));
  EXPECT_THAT(g_calls, ElementsAre("async \"kept\" null", "async \"next\" null"));
}

// A dead server is reported once and costs no time.
TEST_F(NotifyClient, StopsReadingWhenTheServerIsGone) {
  const std::string bytes = notification("data").bytes();
  const std::pair<size_t, const char *> cases[] = {
      {0, "error: notifyclient peer dead when read head, my pid="},
      {20, "ooo: notifyclient no match head len, my pid="},
      {48, "error: notifyclient peer dead when read body, my pid="},
      {51, "ooo: notifyclient no match body len, my pid="},
  };

  for (const auto &[size, line] : cases) {
    connect();
    server_.send(bytes.substr(0, size));
    server_.close();

    const std::string output = output_of(run_loop);

    EXPECT_THAT(output, StartsWith(line)) << size;
    EXPECT_GE(2, std::count(output.begin(), output.end(), '\n')) << output;
    EXPECT_GE(10u, OrpUvLoopGetCurIdx(nullptr));
    ORP_NOTIFYCLT_Destroy();
  }
}

// ---- Synchronous requests ----

TEST_F(NotifyClient, GetsTheReplyToItsRequest) {
  connect();
  const uint32_t argument = 99;
  void *data = nullptr;
  uint32_t length = 0;
  server_.send(reply(2, "the reply"));
  server_.send(reply(3, "unwanted"));
  server_.send(reply(4, ""));

  EXPECT_EQ(ORP_NOTIFYCLT_OK,
            ORP_NOTIFYCLT_SendSynNotify(kOther, kType, "question", 8, &data, &length, &argument));
  EXPECT_EQ(9u, length);
  EXPECT_STREQ("the reply", static_cast<char *>(data));
  std::free(data);
  expect_message({{kType, 2, kOwnId, kOther, 1, 1, 8, 0, 0, 99, 0, 0}, "question"},
                 server_.receive());

  EXPECT_EQ(ORP_NOTIFYCLT_OK, ask()) << "nobody wants the data";
  EXPECT_EQ(ORP_NOTIFYCLT_OK, ask(&data, &length));
  EXPECT_EQ(nullptr, data);
}

// Another callback asks in the pass in which the connection is ready, too: what it leaves there is
// not waited for, and comes behind what it put aside.
TEST_F(NotifyClient, KeepsTheOrderAfterARequestOfAnotherCallback) {
  ORP_NOTIFYCLT_RegAsyncMsgProc(kType, take_notification);
  const msgapi::os::UniqueFd ready(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  static ORP_UTIL_SOCKBASE_ST *other;
  const auto ask_once = [](ORP_UTIL_SOCKBASE_ST *self, uint32_t) {
    EXPECT_EQ(ORP_NOTIFYCLT_OK, ask());
    ORP_UTIL_SocketBaseListen(self, ORP_UTIL_SOCKBASE_NONE);
  };
  ASSERT_EQ(0u, ORP_UTIL_SockBaseReg(ready.get(), 0, ask_once, ORP_UTIL_SOCKBASE_READ, 0, &other));
  connect();
  server_.send(reply(2, ""));
  EXPECT_EQ("", output_of(run_loop));

  ORP_NOTIFYCLT_RegSyncMsgProc(kType, take_request);
  ORP_UTIL_SocketBaseListen(other, ORP_UTIL_SOCKBASE_READ);
  for (const NotifyMessage &message :
       {notification("1"), request("2"), reply(1, "late"), reply(3, ""), notification("4")}) {
    server_.send(message);
  }
  run_loop();

  EXPECT_THAT(g_calls,
              ElementsAre("async \"1\" null", "sync \"2\"", "stray \"late\"", "async \"4\" null"));
}

TEST_F(NotifyClient, MayDoAnythingInsideAProcedure) {
  connect();
  ORP_NOTIFYCLT_RegAsyncMsgProc(kType, take_notification);
  server_.send(notification("asks"));
  server_.send(notification("put aside"));
  server_.send(reply(2, ""));
  g_during_call = [&] {
    EXPECT_EQ(ORP_NOTIFYCLT_OK, ask());
    // The next one, when it is delivered, ends it all.
    g_during_call = [&] {
      server_.send(notification("never"));
      server_.send(reply(3, ""));
      EXPECT_EQ(ORP_NOTIFYCLT_OK, ask());
      ORP_NOTIFYCLT_Destroy();
    };
  };

  run_loop();

  EXPECT_THAT(g_calls, ElementsAre("async \"asks\" null", "async \"put aside\" null"));
}

TEST_F(NotifyClient, ReportsWhyThereIsNoReply) {
  connect();
  g_wait_divisor = 1000;

  const std::string output = output_of([&] {
    EXPECT_EQ(ORP_NOTIFYCLT_ERR_TIMEOUT, ask());
    NotifyMessage too_long = reply(3, "");
    too_long.head.data_len = 0x800001;
    server_.send(std::string(reinterpret_cast<const char *>(&too_long.head), sizeof too_long.head));
    EXPECT_EQ(ORP_NOTIFYCLT_ERR_MEMORY, ask());
    server_.send(std::string("short"));
    EXPECT_EQ(ORP_NOTIFYCLT_ERR_IO, ask());
    server_.stop_sending();
    EXPECT_EQ(ORP_NOTIFYCLT_ERR_PEER_GONE, ask());
  });

  const std::string pid = std::to_string(::getpid());
  EXPECT_THAT(
      output,
      StartsWith("notifyclient: timeout to wait data when recv, timeout=20000, pid=" + pid +
                 "ooo notifyclient data Length too long: 800001, msg 1234 from 26 to 8.\n"));
  EXPECT_THAT(
      output,
      EndsWith("error: notify server dead when recv, destory client, my pid=" + pid + "!\n"));
}

}  // namespace
