#include <gmock/gmock.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <list>
#include <string>

#include "servers/notify_server.h"

namespace {

using test::kCms;
using test::kWeb;
using test::Module;
using test::notice;
using test::NotifyMessage;
using test::NotifyPeer;
using test::NotifyServer;
using test::registration;
using test::request;
using testing::ContainsRegex;
using testing::HasSubstr;

TEST(NotifyServer, PassesMessagesAsTheyAreToTheOldestClientOfAModule) {
  NotifyServer server;
  Module cms(&server, kCms);
  Module first(&server, kWeb);
  Module second(&server, kWeb);

  const NotifyMessage question = request(kCms, kWeb, "question");
  cms.send(question);
  EXPECT_EQ(question.bytes(), first.receive().bytes());
  NotifyMessage answer = request(kWeb, kCms, std::string(6000000, 'x'));
  answer.head.ack_tag = ORP_NOTIFYCLT_REPLY;
  first.send(answer);
  EXPECT_TRUE(answer.bytes() == cms.receive().bytes());
  first.close();
  EXPECT_TRUE(server.wait_for(") left"));
  cms.send(notice(kCms, kWeb, "still there"));
  EXPECT_EQ("still there", second.receive().data);

  EXPECT_THAT(server.statistics_at_end(),
              HasSubstr("received 6 delivered 3 registered 3 answered 0 unserved 0 no_module 0 "
                        "overflows 0 died_with 0"));
}

TEST(NotifyServer, SaysWhatItCannotDeliverAndAnswersWhatItDoesNotServe) {
  NotifyServer server;
  NotifyPeer stranger;

  for (const uint32_t module : {99u, 99u, 0u, 110u, UINT32_MAX}) stranger.send(notice(0, module));
  EXPECT_TRUE(server.wait_for("there is no module 99"));
  stranger.send(request(0, ORP_NOTIFYCLT_SERVER, "what"));
  const NotifyMessage answer = stranger.receive();
  EXPECT_EQ(uint32_t{ORP_NOTIFYCLT_REPLY}, answer.head.ack_tag);
  EXPECT_EQ("", answer.data);

  NotifyMessage abc = notice(0, ORP_NOTIFYCLT_SERVER, "abc");
  abc.head.msg_type = ORP_NOTIFYCLT_REGISTER;
  stranger.send(abc);
  stranger.send(notice(0, ORP_NOTIFYCLT_SERVER, "news that nobody takes"));
  NotifyMessage reply = request(0, ORP_NOTIFYCLT_SERVER, "to nobody's question");
  reply.head.ack_tag = ORP_NOTIFYCLT_REPLY;
  stranger.send(reply);
  for (const uint32_t module : {0u, 30u, 110u, UINT32_MAX}) stranger.send(registration(module));
  EXPECT_TRUE(server.wait_for("may not be registered as module 4294967295"));
  EXPECT_THAT(server.statistics_at_end(),
              HasSubstr("registered 0 answered 1 unserved 7 no_module 5"));
}

TEST(NotifyServer, PutsPiecesTogetherAndEndsOnlyTheClientThatSendsNonsense) {
  NotifyServer server;
  Module web(&server, kWeb);
  NotifyPeer cms;
  for (const char byte : notice(0, kWeb, "data").bytes()) cms.send(std::string(1, byte));
  EXPECT_EQ("data", web.receive().data);

  web.send(notice(0, kWeb, "whole").bytes().substr(0, 50));
  NotifyMessage too_long = notice(0, kWeb, "");
  too_long.head.data_len = ORP_NOTIFYCLT_MAX_DATA + 1;
  cms.send(registration(kCms));
  cms.send(notice(0, kCms, "ok"));
  cms.send(std::string(reinterpret_cast<const char *>(&too_long.head), sizeof too_long.head));
  EXPECT_EQ("ok", cms.receive().data);
  EXPECT_EQ(UINT32_MAX, cms.receive().head.msg_type);
  EXPECT_TRUE(server.wait_for("is disconnected: it announced more data"));
  web.stop_sending();
  EXPECT_TRUE(server.wait_for("left in the middle of a message"));
  EXPECT_THAT(server.statistics_at_end(), HasSubstr("malformed 1"));
}

TEST(NotifyServer, StopsCleanlyAndGivesWayToNobodyWhileItRuns) {
  NotifyServer server;
  test::Process second("notifyserver");
  EXPECT_EQ(1, second.wait());
  EXPECT_THAT(second.output(), HasSubstr("a server is running there"));

  EXPECT_EQ(0, server.stop(SIGTERM));
  EXPECT_NE(0, ::access("/var/run/notify/notifyserver", F_OK));
  NotifyServer third;
  // The socket that a killed server has left is replaced.
  third.stop(SIGKILL);
  NotifyServer fourth;
  Module cms(&fourth, kCms);
  EXPECT_THAT(fourth.output(), HasSubstr("module 8 (cms, process"));
}

TEST(NotifyServer, LosesAndCountsWhatAClientDoesNotRead) {
  NotifyServer server({"--queue", "100000"});
  constexpr uint32_t kMessages = 2000;
  Module web(&server, kWeb);
  Module led(&server, 35);
  NotifyPeer cms;
  const auto numbered = [](uint32_t number) {
    return std::string(reinterpret_cast<const char *>(&number), sizeof number) +
           std::string(1000, 'x');
  };

  for (uint32_t i = 0; i < kMessages; ++i) cms.send(notice(0, kWeb, numbered(i)));
  cms.send(notice(0, 35, "others are served"));
  EXPECT_EQ("others are served", led.receive().data);
  EXPECT_TRUE(server.wait_for("does not read: its queue of 100000 bytes is full"));
  ::kill(server.pid(), SIGUSR1);
  EXPECT_TRUE(server.wait_for(" died_with 0 "));
  const std::string output = server.output();
  uint32_t lost = 0;
  std::sscanf(output.c_str() + output.rfind("overflows"), "overflows %u", &lost);
  EXPECT_LT(0u, lost);

  // Messages that were not lost come whole and in order.
  for (uint32_t i = 0; i < kMessages - lost; ++i) ASSERT_EQ(numbered(i), web.receive().data);
  EXPECT_TRUE(server.wait_for("reads again; " + std::to_string(lost) + " messages for it"));
}

TEST(NotifyServer, CountsWhatAModuleIsSentThatReceivesNoMore) {
  NotifyServer server;
  NotifyPeer cms;
  Module web(&server, kWeb);
  cms.send(notice(0, kWeb, "delivered, but never read"));
  web.wait_for_data();
  web.stop_receiving();
  for (int i = 0; i < 2; ++i) cms.send(notice(0, kWeb, "too late"));
  cms.send(request(0, ORP_NOTIFYCLT_SERVER, ""));
  EXPECT_EQ(1u, cms.receive().head.sync_tag);

  web.close();
  EXPECT_TRUE(server.wait_for(") left; 2 messages for it were lost"));
  EXPECT_THAT(server.statistics_at_end(), HasSubstr("overflows 0 died_with 2"));
}

TEST(NotifyServer, LeavesOtherUsersConnections) {
  NotifyServer server({"--user-connections", "2"});
  const auto is_served = [](NotifyPeer &peer) {
    peer.send(request(0, ORP_NOTIFYCLT_SERVER, ""));
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
  const std::string told = "has 2 connections; more are closed";
  EXPECT_EQ(server.output().find(told), server.output().rfind(told));
}

struct Memory {
  size_t in_all = 0, resident = 0;  // bytes
};

Memory memory_of(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/statm");
  const auto page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
  Memory pages;
  file >> pages.in_all >> pages.resident;
  return {pages.in_all * page, pages.resident * page};
}

// Sends a message without its last byte, as much of it as the server takes at once.
void send_unfinished(NotifyPeer &peer, size_t size) {
  NotifyMessage begun = notice(0, kWeb, std::string(size, 'x'));
  std::string bytes = begun.bytes();
  bytes.pop_back();
  peer.send(bytes);
}

TEST(NotifyServer, BoundsWhatUnfinishedMessagesTakeForEachUserAndInAll) {
  NotifyServer server({"--unfinished", "4000000"});
  Module web(&server, kWeb);
  [[maybe_unused]] const size_t before = memory_of(server.pid()).resident;

  {
    std::list<NotifyPeer> hostile(40);
    for (NotifyPeer &peer : hostile) send_unfinished(peer, 3000000);
    EXPECT_TRUE(server.wait_for("there is no room for it until it is whole"));
#ifndef __SANITIZE_ADDRESS__  // keeps what was freed
    EXPECT_LT(memory_of(server.pid()).resident, before + 30000000);
#endif

    // Short messages still pass, also in pieces, and so do long ones of another user.
    NotifyPeer cms;
    for (const char byte : notice(0, kWeb, "pieces").bytes()) cms.send(std::string(1, byte));
    EXPECT_EQ("pieces", web.receive().data);
    if (::seteuid(65534) == 0) {
      NotifyPeer other;
      other.send(notice(0, kWeb, std::string(3000000, 'o')));
      EXPECT_TRUE(std::string(3000000, 'o') == web.receive().data);
      EXPECT_EQ(0, ::seteuid(0));
    }

    // A refused message is read to its end; the next message is whole again.
    cms.send(notice(0, kWeb, std::string(3000000, 'c')));
    cms.send(notice(0, kWeb, std::string(3000000, 'd')));
    cms.send(notice(0, kWeb, "in step"));
    EXPECT_EQ("in step", web.receive().data);
  }
  for (int i = 0; i < 40; ++i) EXPECT_TRUE(server.wait_for("left"));
  NotifyPeer cms;
  cms.send(notice(0, kWeb, std::string(3000000, 'x')));
  EXPECT_TRUE(std::string(3000000, 'x') == web.receive().data);
  EXPECT_THAT(server.statistics_at_end(), ContainsRegex("no_module 0 overflows 0 died_with 0 "
                                                        "refused (40|41) malformed 0"));
}

#if !defined(MSGAPI_EMULATED) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// From now on the kernel has no place in epoll for descriptors from `first` on of this process and
// its children.
void refuse_in_epoll(uint32_t first) {
  constexpr uint32_t kDescriptor = offsetof(seccomp_data, args) + 2 * sizeof(uint64_t);
  sock_filter rules[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_epoll_ctl, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kDescriptor),
      BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, first, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSPC),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog program{std::size(rules), rules};
  ASSERT_EQ(0, ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0));
  ASSERT_EQ(0, ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program));
}

TEST(NotifyServer, GoesOnWithoutAPlaceInEpollOrMemory) {
  // Its own descriptors and those of the first clients are below this.
  constexpr uint32_t kFirstRefused = 20;
  refuse_in_epoll(kFirstRefused);
  NotifyServer server;
  Module web(&server, kWeb);
  NotifyPeer cms;

  {
    std::list<NotifyPeer> many(kFirstRefused);
    EXPECT_TRUE(server.wait_for("a connection is refused: epoll_ctl: No space left on device"));
    EXPECT_EQ(UINT32_MAX, many.back().receive().head.msg_type);
  }
  // No memory for the whole message.
  const rlimit memory{memory_of(server.pid()).in_all + 4000000, RLIM_INFINITY};
  ASSERT_EQ(0, ::prlimit(server.pid(), RLIMIT_AS, &memory, nullptr));
  cms.send(notice(0, kWeb, std::string(8000000, 'x')));
  cms.send(notice(0, kWeb, "still there"));
  EXPECT_EQ("still there", web.receive().data);
  EXPECT_THAT(server.statistics_at_end(), HasSubstr("refused 1"));
}
#endif

}  // namespace
