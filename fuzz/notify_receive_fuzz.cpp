// Streams from a notify server, received message by message and delivered.
//
// Input: the bytes of the stream up to its end.

#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "base/bytes.h"
#include "notify/connection.h"

namespace {

uint32_t g_sum;

// Reads every byte that a procedure may read: the item ends with zero bytes behind its data.
void read_item(const void *item) {
  for (const auto *at = static_cast<const char *>(item); at != nullptr && *at != 0; ++at) {
    g_sum += static_cast<uint8_t>(*at);
  }
}

void prepare() {
  // Without the diagnostics of refused messages.
  if (std::freopen("/dev/null", "w", stdout) == nullptr) std::abort();
  ORP_NOTIYCLT_RegMsgProc(
      [](uint32_t, void *data, void **reply, uint32_t *length) {
        read_item(data);
        if (reply == nullptr) return;
        *reply = std::malloc(3);
        *length = 3;
      },
      [](uint32_t, void *first, void *second) {
        read_item(first);
        read_item(second);
      });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool prepared = (prepare(), true);
  int fds[2];
  if (!prepared || size > 65536 || ::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) return 0;
  if (::send(fds[0], data, size, 0) != static_cast<ssize_t>(size)) std::abort();
  ::shutdown(fds[0], SHUT_WR);

  size_t taken = 0;
  for (;;) {
    const auto received = msgapi::notify::receive_message(fds[1], 1000);
    if (received.status() == msgapi::notify::Status::kPeerGone) break;
    if (!received) {
      taken += sizeof(NOTIFY_MSG);
      continue;
    }
    NOTIFY_MSG &message = (*received)->message;
    if (msgapi::load<uint32_t>(data + taken) != message.msg_type) std::abort();
    taken += sizeof message + message.data_len;
    (void)ORP_NOTIFYCLT_MsgFilterProc(&message);
  }
  ::close(fds[0]);
  ::close(fds[1]);
  return 0;
}
