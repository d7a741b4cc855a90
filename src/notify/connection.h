// Whole messages over the stream connection to the notify server.
#pragma once

#include <cstdint>
#include <span>

#include "base/memory.h"
#include "msgapi/notify.h"
#include "notify/status.h"

namespace msgapi::notify {

// A received message, its data right after it and then the zero tail. The link chains it while it
// is put aside.
struct Received {
  Received *link;
  NOTIFY_MSG message;
};
static_assert(sizeof(Received) == sizeof(void *) + sizeof(NOTIFY_MSG));

using Bytes = std::span<const char>;

// A message with two items as its data; data_len is filled in. Null without memory.
Owned<NOTIFY_MSG> build_message(const NOTIFY_MSG &head, Bytes first, Bytes second = {});

// Sends head and data. May be called on any thread: messages never mix.
Status send_message(int fd, const NOTIFY_MSG *message);

// Receives one message, waiting up to `timeout_ms` for its head and again before each read of its
// data. What fails is printed.
Result<Owned<Received>> receive_message(int fd, uint32_t timeout_ms);

}  // namespace msgapi::notify
