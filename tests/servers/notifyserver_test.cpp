#include <gmock/gmock.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <list>
#include <string>
#include <utility>
#include <vector>

#include "msgapi/loop.h"
#include "msgapi/notify.h"
#include "support/notify_peer.h"
#include "support/process.h"

namespace {

using test::NotifyMessage;
using test::NotifyPeer;
using testing::ContainsRegex;
using testing::HasSubstr;

constexpr uint32_t kCms = 8;
constexpr uint32_t kWeb = 26;
constexpr uint32_t kNoticeType = 0x77;

// A client process of its own: registers as a module and exits with what `body` returns.
class Module {
 public:
  Module(test::Process *server, uint32_t id, const std::function<int()> &body) : pid_(::fork()) {
    if (pid_ == 0) {
      ::alarm(30);
      ::_exit(ORP_NOTIFYCLT_Init(id) == ORP_NOTIFYCLT_OK ? body() : 99);
    }
    EXPECT_TRUE(server->wait_for("process " + std::to_string(pid_) + ") is registered"));
  }
  Module(const Module &) = delete;
  Module &operator=(const Module &) = delete;
  ~Module() {
    if (pid_ > 0) ::kill(pid_, SIGKILL), wait();
  }

  int wait() {
    int status = 0;
    ::waitpid(std::exchange(pid_, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

 private:
  pid_t pid_;
};

NotifyMessage message(uint32_t type, uint32_t destination, const std::string &data) {
  NotifyMessage message{{}, data};
  message.head.msg_type = type;
  message.head.des_id = destination;
  message.head.ack_tag = ORP_NOTIFYCLT_REQUEST;
  return message;
}

NotifyMessage registration(uint32_t module) {
  const uint32_t values[] = {module, 0};
  return message(0, ORP_NOTIFYCLT_SERVER, {reinterpret_cast<const char *>(values), sizeof values});
}

// A module that echoes requests until it gets a notification of two items.
int echo() {
  ORP_NOTIFYCLT_RegSyncMsgProc(kNoticeType, [](void *data, uint32_t *reply_length, void **reply) {
    *reply = ::strdup(static_cast<char *>(data));
    *reply_length = static_cast<uint32_t>(std::strlen(static_cast<char *>(data)));
  });
  ORP_NOTIFYCLT_RegAsyncMsgProc(kNoticeType, [](void *first, void *second) {
    const std::string items[] = {static_cast<char *>(first), static_cast<char *>(second)};
    if (items[0] == "stopplease" && items[1] == "please") OrpUvLoopStop(OrpUvLoopGetDefault());
  });
  return OrpUvLoopRun(nullptr, 20000) == 0 ? 0 : 1;
}

// The module's answer; "-" and the status when it does not answer.
std::string ask(uint32_t module, const std::string &data) {
  void *reply = nullptr;
  uint32_t length = 0;
  const uint32_t status =
      ORP_NOTIFYCLT_SendSynNotify(module, kNoticeType, data.data(),
                                  static_cast<uint32_t>(data.size()), &reply, &length, nullptr);
  std::string text = status == ORP_NOTIFYCLT_OK ? std::string(static_cast<char *>(reply), length)
                                                : "-" + std::to_string(status);
  std::free(reply);
  return text;
}

struct Server : test::Process {
  explicit Server(const std::vector<std::string> &arguments = {})
      : test::Process("notifyserver", arguments) {
    EXPECT_TRUE(wait_for("ready"));
    ::alarm(60);
  }

  std::string statistics_at_end() {
    EXPECT_EQ(0, stop(SIGTERM));
    return output().substr(output().rfind("received "));
  }
};

TEST(NotifyServer, PassesRequestsAndNotificationsToTheOldestProcessOfAModule) {
  Server server;
  Module first(&server, kWeb, echo);
  Module second(&server, kWeb, echo);
  ASSERT_EQ(ORP_NOTIFYCLT_OK, ORP_NOTIFYCLT_Init(kCms));

  EXPECT_EQ("question", ask(kWeb, "question"));
  const std::string large(6000000, 'x');
  EXPECT_EQ(large, ask(kWeb, large));
  EXPECT_EQ(ORP_NOTIFYCLT_OK,
            ORP_NOTIFYCLT_PostAsynNotify(kWeb, kNoticeType, "stop", 4, "please", 6));
  EXPECT_EQ(0, first.wait());
  EXPECT_TRUE(server.wait_for(") left"));
  EXPECT_EQ("still there", ask(kWeb, "still there"));

  EXPECT_THAT(server.statistics_at_end(),
              HasSubstr("received 10 delivered 7 registered 3 answered 0 unserved 0 no_module 0 "
                        "overflows 0 died_with 0"));
}

TEST(NotifyServer, SaysWhatItCannotDeliverAndAnswersWhatItDoesNotServe) {
  Server server;
  ASSERT_EQ(ORP_NOTIFYCLT_OK, ORP_NOTIFYCLT_Init(kCms));
  NotifyPeer stranger;

  for (const uint32_t module : {99u, 99u, 0u, 110u, UINT32_MAX}) {
    EXPECT_EQ(ORP_NOTIFYCLT_OK, ORP_NOTIFYCLT_PostSimpleAsynNotify(module, kNoticeType, 1, 2));
  }
  EXPECT_EQ("", ask(ORP_NOTIFYCLT_SERVER, "what"));
  EXPECT_TRUE(server.wait_for("there is no module 99"));

  stranger.send(message(0, ORP_NOTIFYCLT_SERVER, "abc"));
  stranger.send(message(kNoticeType, ORP_NOTIFYCLT_SERVER, "news that nobody takes"));
  NotifyMessage reply = message(kNoticeType, ORP_NOTIFYCLT_SERVER, "to nobody's question");
  reply.head.sync_tag = 1;
  reply.head.ack_tag = ORP_NOTIFYCLT_REPLY;
  stranger.send(reply);
  for (const uint32_t module : {0u, 30u, 110u, UINT32_MAX}) stranger.send(registration(module));
  EXPECT_TRUE(server.wait_for("may not be registered as module 4294967295"));
  EXPECT_THAT(server.statistics_at_end(),
              HasSubstr("registered 1 answered 1 unserved 7 no_module 5"));
}

TEST(NotifyServer, PutsPiecesTogetherAndEndsOnlyTheClientThatSendsNonsense) {
  Server server;
  NotifyPeer web;
  NotifyPeer cms;
  web.send(registration(kWeb));
  EXPECT_TRUE(server.wait_for("module 26"));
  for (const char byte : message(kNoticeType, kWeb, "data").bytes()) cms.send(std::string(1, byte));
  EXPECT_EQ("data", web.receive().data);

  web.send(message(kNoticeType, kWeb, "whole").bytes().substr(0, 50));
  NotifyMessage too_long = message(kNoticeType, kWeb, "");
  too_long.head.data_len = ORP_NOTIFYCLT_MAX_DATA + 1;
  cms.send(registration(kCms));
  cms.send(message(kNoticeType, kCms, "ok"));
  cms.send(std::string(reinterpret_cast<const char *>(&too_long.head), sizeof too_long.head));
  EXPECT_EQ("ok", cms.receive().data);
  EXPECT_EQ(UINT32_MAX, cms.receive().head.msg_type);
  EXPECT_TRUE(server.wait_for("is disconnected: it announced more data"));
  web.stop_sending();
  EXPECT_TRUE(server.wait_for("left in the middle of a message"));
  EXPECT_THAT(server.statistics_at_end(), HasSubstr("malformed 1"));
}

TEST(NotifyServer, StopsCleanlyAndGivesWayToNobodyWhileItRuns) {
  Server server;
  test::Process second("notifyserver");
  EXPECT_EQ(1, second.wait());
  EXPECT_THAT(second.output(), HasSubstr("a server is running there"));
  ASSERT_EQ(ORP_NOTIFYCLT_OK, ORP_NOTIFYCLT_Init(kCms));
  EXPECT_TRUE(server.wait_for("module 8 (cms, process"));
  ::kill(server.pid(), SIGHUP);  // ends no server
  EXPECT_TRUE(server.wait_for("no file to read anew"));
  ::kill(server.pid(), SIGUSR1);
  EXPECT_TRUE(server.wait_for("clients 1"));

  EXPECT_EQ(0, server.stop(SIGTERM));
  EXPECT_NE(0, ::access("/var/run/notify/notifyserver", F_OK));
  ORP_NOTIFYCLT_Destroy();
  Server third;
  // The socket that a killed server has left is replaced.
  third.stop(SIGKILL);
  Server fourth;
  EXPECT_EQ(ORP_NOTIFYCLT_OK, ORP_NOTIFYCLT_Init(kCms));
}

TEST(NotifyServer, LosesAndCountsWhatAClientDoesNotRead) {
  Server server({"--queue", "100000"});
  constexpr uint32_t kMessages = 2000;
  NotifyPeer web;
  web.send(registration(kWeb));
  EXPECT_TRUE(server.wait_for("module 26"));
  Module led(&server, 35, echo);
  ASSERT_EQ(ORP_NOTIFYCLT_OK, ORP_NOTIFYCLT_Init(kCms));

  const std::string data(1000, 'x');
  for (uint32_t i = 0; i < kMessages; ++i) {
    EXPECT_EQ(ORP_NOTIFYCLT_OK,
              ORP_NOTIFYCLT_PostAsynNotify(kWeb, kNoticeType, &i, sizeof i, data.data(), 1000));
  }
  EXPECT_EQ("others are served", ask(35, "others are served"));
  EXPECT_TRUE(server.wait_for("does not read: its queue of 100000 bytes is full"));
  ::kill(server.pid(), SIGUSR1);
  EXPECT_TRUE(server.wait_for(" died_with 0 "));
  const std::string output = server.output();
  uint32_t lost = 0;
  std::sscanf(output.c_str() + output.rfind("overflows"), "overflows %u", &lost);
  EXPECT_LT(0u, lost);

  // Messages that were not lost come whole and in order.
  for (uint32_t i = 0; i < kMessages - lost; ++i) {
    const std::string got = web.receive().data;
    ASSERT_EQ(std::string(reinterpret_cast<const char *>(&i), sizeof i) + data, got);
  }
  EXPECT_TRUE(server.wait_for("reads again; " + std::to_string(lost) + " messages for it"));
}

TEST(NotifyServer, CountsWhatAModuleIsSentThatReceivesNoMore) {
  Server server;
  NotifyPeer cms;
  NotifyPeer web;
  web.send(registration(kWeb));
  EXPECT_TRUE(server.wait_for("module 26"));
  cms.send(message(kNoticeType, kWeb, "delivered, but never read"));
  web.wait_for_data();
  web.stop_receiving();
  for (int i = 0; i < 2; ++i) cms.send(message(kNoticeType, kWeb, "too late"));
  NotifyMessage question = message(kNoticeType, ORP_NOTIFYCLT_SERVER, "");
  question.head.sync_tag = 1;
  cms.send(question);
  EXPECT_EQ(1u, cms.receive().head.sync_tag);

  web.close();
  EXPECT_TRUE(server.wait_for(") left; 2 messages for it were lost"));
  EXPECT_THAT(server.statistics_at_end(), HasSubstr("overflows 0 died_with 2"));
}

TEST(NotifyServer, LeavesOtherUsersConnections) {
  Server server({"--user-connections", "2"});
  const auto is_served = [](NotifyPeer &peer) {
    NotifyMessage question = message(kNoticeType, ORP_NOTIFYCLT_SERVER, "");
    question.head.sync_tag = 1;
    peer.send(question);
    return peer.receive().head.sync_tag == 1;
  };
  NotifyPeer first;
  {
    NotifyPeer second;
    EXPECT_TRUE(is_served(second));
    for (int i = 0; i < 2; ++i) EXPECT_EQ(UINT32_MAX, NotifyPeer().receive().head.msg_type);
    EXPECT_TRUE(is_served(first));
  }
  EXPECT_TRUE(server.wait_for(" left"));
  NotifyPeer next;
  EXPECT_TRUE(is_served(next));
  EXPECT_EQ(server.output().find("has 2 connections; more are closed"),
            server.output().rfind("has 2 connections; more are closed"));
}

size_t resident_bytes(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/statm");
  size_t size = 0, resident = 0;
  file >> size >> resident;
  return resident * static_cast<size_t>(::sysconf(_SC_PAGESIZE));
}

// Sends a message without its last byte, as much of it as the server takes at once.
void send_unfinished(NotifyPeer &peer, size_t size) {
  NotifyMessage begun = message(kNoticeType, kWeb, std::string(size, 'x'));
  std::string bytes = begun.bytes();
  bytes.pop_back();
  peer.send(bytes);
}

TEST(NotifyServer, BoundsWhatUnfinishedMessagesTakeForEachUserAndInAll) {
  Server server({"--unfinished", "4000000"});
  NotifyPeer web;
  web.send(registration(kWeb));
  EXPECT_TRUE(server.wait_for("module 26"));
  [[maybe_unused]] const size_t before = resident_bytes(server.pid());

  {
    std::list<NotifyPeer> hostile(40);
    for (NotifyPeer &peer : hostile) send_unfinished(peer, 3000000);
    EXPECT_TRUE(server.wait_for("there is no room for it until it is whole"));
#ifndef __SANITIZE_ADDRESS__  // keeps what was freed
    EXPECT_LT(resident_bytes(server.pid()), before + 30000000);
#endif

    // Short messages still pass, also in pieces, and so do long ones of another user.
    NotifyPeer cms;
    for (const char byte : message(kNoticeType, kWeb, "pieces").bytes())
      cms.send(std::string(1, byte));
    EXPECT_EQ("pieces", web.receive().data);
    if (::seteuid(65534) == 0) {
      NotifyPeer other;
      other.send(message(kNoticeType, kWeb, std::string(3000000, 'o')));
      EXPECT_TRUE(std::string(3000000, 'o') == web.receive().data);
      EXPECT_EQ(0, ::seteuid(0));
    }

    // A refused message is read to its end; the next message is whole again.
    cms.send(message(kNoticeType, kWeb, std::string(3000000, 'c')));
    cms.send(message(kNoticeType, kWeb, std::string(3000000, 'd')));
    cms.send(message(kNoticeType, kWeb, "in step"));
    EXPECT_EQ("in step", web.receive().data);
  }
  for (int i = 0; i < 40; ++i) EXPECT_TRUE(server.wait_for("left"));
  NotifyPeer cms;
  cms.send(message(kNoticeType, kWeb, std::string(3000000, 'x')));
  EXPECT_TRUE(std::string(3000000, 'x') == web.receive().data);
  EXPECT_THAT(server.statistics_at_end(), ContainsRegex("no_module 0 overflows 0 died_with 0 "
                                                        "refused (40|41) malformed 0"));
}

#if !defined(MSGAPI_EMULATED) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// From now on the kernel refuses `call` to this process and its children when the lower half of
// argument number `argument` is `value` or more.
void refuse_system_call(uint32_t call, uint32_t argument, uint32_t value, uint32_t error) {
  sock_filter rules[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS,
               static_cast<uint32_t>(offsetof(seccomp_data, args)) + argument * 8),
      BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, value, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog program{std::size(rules), rules};
  ASSERT_EQ(0, ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0));
  ASSERT_EQ(0, ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program));
}

TEST(NotifyServer, GoesOnWithoutAPlaceInEpollOrMemory) {
  // Its own descriptors and those of the first clients are below this.
  constexpr uint32_t kFirstRefused = 20;
  constexpr uint32_t kTooLarge = 4000000;  // the largest library is smaller
  const std::string large = message(kNoticeType, kWeb, std::string(8000000, 'x')).bytes();
  refuse_system_call(SYS_epoll_ctl, 2, kFirstRefused, ENOSPC);
#ifdef SYS_mmap2
  refuse_system_call(SYS_mmap2, 1, kTooLarge, ENOMEM);
#else
  refuse_system_call(SYS_mmap, 1, kTooLarge, ENOMEM);
#endif
  refuse_system_call(SYS_mremap, 2, kTooLarge, ENOMEM);
  refuse_system_call(SYS_brk, 0, 1, 0);  // brk's return value says that it has failed
  Server server;
  NotifyPeer web;
  NotifyPeer cms;
  web.send(registration(kWeb));
  EXPECT_TRUE(server.wait_for("module 26"));

  {
    std::list<NotifyPeer> many(kFirstRefused);
    EXPECT_TRUE(server.wait_for("a connection is refused: epoll_ctl: No space left on device"));
    EXPECT_EQ(UINT32_MAX, many.back().receive().head.msg_type);
  }
  // No memory for the whole message.
  cms.send(large);
  cms.send(message(kNoticeType, kWeb, "still there"));
  EXPECT_EQ("still there", web.receive().data);
  EXPECT_THAT(server.statistics_at_end(), HasSubstr("refused 1"));
}
#endif

}  // namespace
