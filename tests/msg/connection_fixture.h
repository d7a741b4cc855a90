// A connection to a scripted server, and the loop that reads it.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <vector>

#include "msg/header.h"
#include "msgapi/loop.h"
#include "msgapi/msg.h"
#include "support/message_peer.h"

namespace msgapi::msg {

using Types = std::vector<uint32_t>;

constexpr uint32_t kIdle_ms = 5000;  // ends a run of the loop that waits in vain

// Runs the loop until a callback stops it.
inline void run_loop() {
  EXPECT_EQ(ORP_OK, ORP_UV_LoopRun(nullptr, kIdle_ms)) << "nothing happened";
}

// Runs the loop until nothing is left to do.
inline void run_loop_dry() {
  EXPECT_EQ(ORP_ERR_TIMEOUT, ORP_UV_LoopRun(nullptr, 1));
}

inline void stop_loop() {
  OrpUvLoopStop(OrpUvLoopGetDefault());
}

// The types of the messages that were dispatched. A message of type 0xEEE stops the loop.
inline Types g_heard;
inline void hear(Header *message) {
  if (message->ulMsgType == 0xeee) {
    stop_loop();
  } else {
    g_heard.push_back(message->ulMsgType);
  }
}

class Connect : public testing::Test {
 protected:
  ~Connect() override {
    ORP_MSG_Destroy();
    server_.reset();
    ORP_UV_LoopDestroy(OrpUvLoopGetDefault());
  }

  // Connects to a server that goes on with `script` after the registration, and then closes.
  void connect(const std::function<void(test::MessagePeer &)> &script) {
    server_.emplace([script](test::MessagePeer &peer) {
      peer.accept_registration("self");
      script(peer);
    });
    EXPECT_EQ(ORP_OK, ORP_MSG_Init("self"));
    ORP_MSG_RegisterMsgProc(hear);
  }
  // Waits for the end of the script: everything it sends has arrived then.
  void await_script() { server_.reset(); }

 private:
  std::optional<test::FakeServer> server_;
};

}  // namespace msgapi::msg
