// A notify client with a scripted server, and procedures that note what they were called with.
#pragma once

#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "msgapi/loop.h"
#include "msgapi/notify.h"
#include "support/fd_check.h"
#include "support/notify_peer.h"

namespace msgapi::notify {

// Tests of time-outs divide the client's waits by this.
inline int g_wait_divisor = 1;
// Called once, when the client is about to wait.
inline std::function<void()> g_before_waiting;

using test::NotifyMessage;

constexpr uint32_t kOwnId = 8;
constexpr uint32_t kOther = 26;
constexpr uint32_t kType = 0x1234;

// What the procedures, which are plain functions, were called with, in words.
inline std::vector<std::string> g_calls;
inline std::function<void()> g_during_call;

inline std::string text_of(void *data) {
  return data == nullptr ? "null" : "\"" + std::string(static_cast<char *>(data)) + "\"";
}

inline void note(std::string call) {
  g_calls.push_back(std::move(call));
  if (g_during_call) std::exchange(g_during_call, nullptr)();
}

inline void take_notification(void *first, void *second) {
  note("async " + text_of(first) + " " + text_of(second));
}

inline void take_any_notification(uint32_t type, void *first, void *second) {
  note("any async " + std::to_string(type) + " " + text_of(first) + " " + text_of(second));
}

// Answers if there is room for an answer.
inline void take_request(void *data, uint32_t *reply_length, void **reply) {
  const bool answerable = reply_length != nullptr && reply != nullptr;
  note((answerable ? "sync " : "stray ") + text_of(data));
  if (!answerable) return;
  *reply = ::strdup("answer");
  *reply_length = 6;
}

inline void take_any_request(uint32_t type, void *data, void **reply, uint32_t *reply_length) {
  note("any " + std::to_string(type));
  take_request(data, reply_length, reply);
}

inline void promise_a_reply(void *, uint32_t *reply_length, void **) {
  *reply_length = 5;
}

// From kOther to this client.
inline NotifyMessage incoming(uint32_t sequence, uint32_t sync_tag, uint32_t ack_tag,
                              const std::string &data, uint32_t length1 = 0, uint32_t length2 = 0) {
  return {{kType, sequence, kOther, kOwnId, sync_tag, ack_tag, 0, length1, length2, 0, 0, 0}, data};
}

inline NotifyMessage notification(const std::string &data) {
  return incoming(77, 0, ORP_NOTIFYCLT_REQUEST, data, static_cast<uint32_t>(data.size()));
}

inline NotifyMessage request(const std::string &data) {
  return incoming(77, 1, ORP_NOTIFYCLT_REQUEST, data);
}

inline NotifyMessage reply(uint32_t sequence, const std::string &data) {
  return incoming(sequence, 1, ORP_NOTIFYCLT_REPLY, data);
}

inline void expect_message(const NotifyMessage &expected, const NotifyMessage &got) {
  EXPECT_EQ(expected.bytes(), got.bytes());
}

// Serves everything that is ready, and then runs the idle procedures.
inline void run_loop() {
  EXPECT_EQ(ORP_ERR_TIMEOUT, OrpUvLoopRun(nullptr, 1));
}

// The descriptor of the connection, which the loop watches.
inline int client_fd() {
  for (const int fd : test::open_descriptors()) {
    if (OrpUvIoFindByFd(nullptr, fd) != nullptr) return fd;
  }
  return -1;
}

inline uint32_t ask(void **data = nullptr, uint32_t *length = nullptr) {
  return ORP_NOTIFYCLT_SendSynNotify(kOther, kType, nullptr, 0, data, length, nullptr);
}

inline uint32_t post() {
  return ORP_NOTIFYCLT_PostSimpleAsynNotify(kOther, kType, 1, 2);
}

// The output of `call`.
template <typename Call>
inline std::string output_of(Call call) {
  testing::internal::CaptureStdout();
  call();
  ::fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

inline std::string path_of(pid_t process) {
  char path[40];
  std::snprintf(path, sizeof path, "/var/run/notify/client%05d", process);
  return path;
}

class NotifyClient : public testing::Test {
 protected:
  void connect() {
    ASSERT_EQ(ORP_NOTIFYCLT_OK, ORP_NOTIFYCLT_Init(kOwnId));
    server_.accept();
    EXPECT_EQ(ORP_NOTIFYCLT_SERVER, server_.receive().head.des_id);
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

}  // namespace msgapi::notify
