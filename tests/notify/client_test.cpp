// The client's connection: its beginning, its end, and messages that are posted on it.

#include "notify/client_fixture.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <set>
#include <thread>

namespace msgapi::notify {
namespace {

using testing::EndsWith;
using testing::MatchesRegex;

TEST_F(NotifyClient, RegistersItsModuleAndPostsItems) {
  ASSERT_EQ(ORP_NOTIFYCLT_OK, ORP_NOTIFYCLT_Init(kOwnId));
  server_.accept();
  EXPECT_EQ(ORP_NOTIFYCLT_OK, ORP_NOTIFYCLT_PostAsynNotify(kOther, kType, "first", 5, "2nd", 3));
  EXPECT_EQ(ORP_NOTIFYCLT_OK, ORP_NOTIFYCLT_PostAsynNotify(kOther, kType, nullptr, 9, "x", 1));
  const uint32_t values[2] = {kOwnId, 0};
  expect_message({{ORP_NOTIFYCLT_REGISTER, 1, kOwnId, ORP_NOTIFYCLT_SERVER, 0,
                   ORP_NOTIFYCLT_REQUEST, 8, 4, 4, 0, 0, 0},
                  {reinterpret_cast<const char *>(values), 8}},
                 server_.receive());
  expect_message(
      {{kType, 2, kOwnId, kOther, 0, ORP_NOTIFYCLT_REQUEST, 8, 5, 3, 0, 0, 1}, "first2nd"},
      server_.receive());
  expect_message({{kType, 3, kOwnId, kOther, 0, ORP_NOTIFYCLT_REQUEST, 1, 0, 1, 0, 0, 1}, "x"},
                 server_.receive());

  struct stat info {};
  ASSERT_EQ(0, ::stat(path_of(::getpid()).c_str(), &info));
  EXPECT_EQ(mode_t{S_IFSOCK | 0775}, info.st_mode);

  EXPECT_EQ(ORP_NOTIFYCLT_OK, ORP_NOTIFYCLT_Init(9));
  EXPECT_FALSE(server_.somebody_connects());
}

TEST_F(NotifyClient, RemovesItsSocketWhenItDisconnectsOrExits) {
  connect();
  // A child inherits the parent's connection, but must not remove its socket's name.
  for (const bool destroys : {true, false}) {
    const pid_t child = ::fork();
    if (child == 0) {
      if (destroys) ORP_NOTIFYCLT_Destroy();
      if (destroys) ORP_NOTIFYCLT_Init(kOwnId);
      std::exit(std::filesystem::exists(path_of(::getpid())) == destroys ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_FALSE(std::filesystem::exists(path_of(child)));
    EXPECT_TRUE(std::filesystem::exists(path_of(::getpid())));
  }

  ORP_NOTIFYCLT_Destroy();
  EXPECT_FALSE(std::filesystem::exists(path_of(::getpid())));
}

TEST_F(NotifyClient, ConnectsOnlyForModulesThatThereAre) {
  EXPECT_EQ(108u, ORP_NOTIFYCLT_GetMIDByName("cloudeng"));
  EXPECT_EQ(nullptr, ORP_NOTIFYCLT_GetNameByMID(UINT32_MAX));
  for (const uint32_t id : {0u, 110u}) EXPECT_EQ(ORP_NOTIFYCLT_ERR_MODULE, ORP_NOTIFYCLT_Init(id));
  for (const char *name : {"sms", "CMS", static_cast<const char *>(nullptr)}) {
    EXPECT_EQ(ORP_NOTIFYCLT_OK, ORP_NOTIFYCLT_InitByName(name));
  }
  EXPECT_FALSE(server_.somebody_connects());

  EXPECT_EQ(ORP_NOTIFYCLT_OK, ORP_NOTIFYCLT_InitByName("web"));
  server_.accept();
  EXPECT_EQ(kOther, server_.receive().head.source_id);
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

}  // namespace
}  // namespace msgapi::notify
