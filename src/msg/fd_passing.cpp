// Passing descriptors as ancillary data of the message connection (SCM_RIGHTS, unix(7)).

#include "msgapi/fdpass.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <cstring>

#include "base/bytes.h"
#include "base/memory.h"
#include "base/result.h"
#include "msg/context.h"
#include "msg/receive.h"
#include "os/fd.h"

namespace msgapi::msg {
namespace {

// The bytes that carry the descriptor.
constexpr size_t kMarkSize = 2;

// Room for exactly one descriptor: 16 bytes on a 32-bit target.
constexpr size_t kControlSize = CMSG_SPACE(sizeof(int));
static_assert(sizeof(void *) != 4 || kControlSize == 16);

// One buffer for each direction, made at its first use and kept for the life of the process.
char *control_buffer(char *&buffer) {
  if (buffer == nullptr) buffer = static_cast<char *>(guarded_alloc(kControlSize));
  if (buffer != nullptr) std::memset(buffer, 0, kControlSize);
  return buffer;
}

msghdr one_part(iovec *part, char *control) {
  msghdr message{};
  message.msg_iov = part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = kControlSize;
  return message;
}

Status send_descriptor(int socket, int descriptor) {
  static char *g_buffer;
  char *control = control_buffer(g_buffer);
  if (control == nullptr) return Status::kNoMemory;

  char mark[kMarkSize] = {};
  iovec part = {mark, sizeof mark};
  msghdr message = one_part(&part, control);
  cmsghdr *record = CMSG_FIRSTHDR(&message);
  record->cmsg_level = SOL_SOCKET;
  record->cmsg_type = SCM_RIGHTS;
  record->cmsg_len = CMSG_LEN(sizeof descriptor);
  store(CMSG_DATA(record), descriptor);
  return ::sendmsg(socket, &message, MSG_NOSIGNAL) == static_cast<ssize_t>(sizeof mark)
             ? Status::kOk
             : Status::kSystem;
}

// The descriptors that came with a message.
struct Arrived {
  os::UniqueFd first;
  size_t count = 0;
};

// Takes over every descriptor that arrived; all but the first are closed.
Arrived take_descriptors(msghdr *message) {
  Arrived taken;
  for (cmsghdr *record = CMSG_FIRSTHDR(message); record != nullptr;
       record = CMSG_NXTHDR(message, record)) {
    if (record->cmsg_level != SOL_SOCKET || record->cmsg_type != SCM_RIGHTS) continue;
    const size_t bytes = record->cmsg_len - CMSG_LEN(0);
    for (size_t at = 0; at + sizeof(int) <= bytes; at += sizeof(int)) {
      os::UniqueFd arrived(load<int>(CMSG_DATA(record) + at));
      if (++taken.count == 1) taken.first = std::move(arrived);
    }
  }
  return taken;
}

Result<os::UniqueFd> receive_descriptor(int socket, uint32_t timeout_ms) {
  if (!await_readable(socket, timeout_ms)) return Status::kTimeout;
  static char *g_buffer;
  char *control = control_buffer(g_buffer);
  if (control == nullptr) return Status::kNoMemory;

  char data[4096];
  iovec part = {data, sizeof data};
  msghdr message = one_part(&part, control);
  const ssize_t received = ::recvmsg(socket, &message, MSG_CMSG_CLOEXEC);
  if (received < 0) return Status::kSystem;

  // Taken before anything is refused: descriptors that arrived are open, and would stay open.
  Arrived arrived = take_descriptors(&message);
  if (received == 0) return Status::kPeerGone;
  const bool is_mark = received == kMarkSize && data[0] == 0 && data[1] == 0;
  if (!is_mark || arrived.count != 1 || message.msg_controllen != kControlSize ||
      (message.msg_flags & MSG_CTRUNC) != 0) {
    return Status::kSystem;
  }
  return Result<os::UniqueFd>(std::move(arrived.first));
}

}  // namespace
}  // namespace msgapi::msg

using namespace msgapi;
using namespace msgapi::msg;

extern "C" uint32_t ORP_MSG_SendFd(int32_t descriptor) {
  if (g_stMsgCtx.slSocket < 0) return code(Status::kNotConnected);
  return code(send_descriptor(g_stMsgCtx.slSocket, descriptor));
}

extern "C" uint32_t ORP_MSG_RecvFd(int32_t *descriptorOut, uint32_t timeoutMs) {
  if (descriptorOut == nullptr) return code(Status::kBadArgument);
  *descriptorOut = 0;
  if (g_stMsgCtx.slSocket < 0) return code(Status::kNotConnected);
  Result<os::UniqueFd> descriptor = receive_descriptor(g_stMsgCtx.slSocket, timeoutMs);
  if (!descriptor) return code(descriptor.status());
  *descriptorOut = descriptor->release();
  return ORP_OK;
}
