// Receiving, without the event loop: one message from a descriptor into a new block.
//
// The header is waited for and then read with one read, which takes it whole or fails: the writer
// writes it whole, so a part of one means that the stream is out of step. The body usually stands
// behind it already and is read before any further wait.

#include "msg/receive.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "msg/context.h"
#include "msg/dm_message.h"
#include "msg/drop_count.h"
#include "msg/hand_over.h"
#include "msgapi/log.h"
#include "os/wait.h"
#include "uv/trace_point.h"

namespace msgapi::msg {
namespace {

constexpr uint32_t kDefaultWait_ms = 20000;

bool again(int error) {
  return error == EINTR || error == EAGAIN;
}

// What a read that brought nothing means. ENOTRECOVERABLE counts as the end of the stream.
Status end_of_read(ssize_t count, int error) {
  return count == 0 || error == ENOTRECOVERABLE ? Status::kPeerGone : Status::kSystem;
}

Status read_header(int fd, Header *header) {
  ssize_t count;
  do {
    errno = 0;
    count = ::read(fd, header, sizeof *header);
  } while (count < 0 && again(errno));

  if (count == sizeof *header) return Status::kOk;
  if (count <= 0) return end_of_read(count, errno);

  ++g_dropped.read;
  std::printf("msgapi fail to read for not a head length, ret=%d, errno=%d, fd=%d, pid=%d\n",
              static_cast<int>(count), errno, fd, static_cast<int>(::getpid()));
  return Status::kSystem;
}

Status read_body(int fd, char *out, size_t size, uint32_t timeout_ms) {
  while (size > 0) {
    ssize_t count = ::recv(fd, out, size, MSG_DONTWAIT);
    if (count < 0 && (errno == EAGAIN || errno == ENOTSOCK || errno == EBADF)) {
      if (timeout_ms != 0 && !await_readable(fd, timeout_ms)) return Status::kTimeout;
      count = ::read(fd, out, size);
    }
    if (count < 0 && again(errno)) continue;
    if (count <= 0) return end_of_read(count, errno);
    out += count;
    size -= static_cast<size_t>(count);
  }
  return Status::kOk;
}

// Appends the body to a message that is only a header so far.
Status receive_body(int fd, Owned<Header> *message, uint32_t timeout_ms) {
  const uint32_t size = (*message)->ulDataLen;
  if (size > ORP_MSG_MAX_BODY) {
    std::printf("msgapi too large body len, type=0x%x, data_len=%u\n", (*message)->ulMsgType, size);
    mlog_print("msg", MLOG_LEVEL_FATAL, "Too long msg:[0x%x] len:[%u].\n", (*message)->ulMsgType,
               size);
    return Status::kNoMemory;
  }

  void *grown = grow(message->get(), ORP_MSG_HEADER_SIZE + kZeroTail,
                     uint64_t{ORP_MSG_HEADER_SIZE} + size + kZeroTail, __func__, __LINE__);
  if (grown == nullptr) return Status::kNoMemory;
  (void)message->release();
  message->reset(static_cast<Header *>(grown));

  char *const start = body(message->get());
  std::memset(start + size, 0, kZeroTail);
  return read_body(fd, start, size, timeout_ms);
}

Status complete(Owned<Header> *message) {
  Header *block = message->release();
  const Status status = complete_hand_over(&block);
  message->reset(block);
  if (status != Status::kOk) ++g_dropped.completion;
  return status;
}

}  // namespace

Result<Owned<Header>> receive_message(int fd, uint32_t timeout_ms, bool convert) {
  if (!await_readable(fd, timeout_ms)) return Status::kTimeout;

  Owned<Header> message(static_cast<Header *>(guarded_zalloc(ORP_MSG_HEADER_SIZE + kZeroTail)));
  if (!message) return Status::kNoMemory;
  if (const Status status = read_header(fd, message.get()); status != Status::kOk) return status;

  const bool body_in_file = convert && prepare_header(message.get());
  ORP_TRACE_PrintInfo(__func__, __LINE__, 0, "msg", uv::kTraceLevel,
                      "recvd msg type:[0x%x] app:[%s] data:[%u] len:[%u] dst:[%.12s] src:[%.12s] "
                      "on board %u with flags [0x%x]:%u ...",
                      message->ulMsgType, g_stMsgCtx.aucAppName, message->ulMsgData,
                      message->ulDataLen, message->aucRecvApp, message->aucSendApp,
                      g_stMsgCtx.ulFlags >> ORP_MSG_CTX_RECV_BOARD_SHIFT, g_stMsgCtx.ulFlags,
                      body_in_file ? 1u : 0u);
  if (message->ulDataLen == 0) return message;

  if (const Status status = receive_body(fd, &message, timeout_ms); status != Status::kOk) {
    ++g_dropped.read;
    return status;
  }
  if (body_in_file) {
    if (const Status status = complete(&message); status != Status::kOk) return status;
  }
  if (convert && may_carry_dm(message->ulMsgType)) hold_to_length(message.get());
  return message;
}

bool await_readable(int fd, uint32_t timeout_ms) {
  const uint32_t wait_ms = timeout_ms == 0 ? kDefaultWait_ms : timeout_ms;
  for (;;) {
    switch (os::wait_readable(fd, wait_ms)) {
      case os::Readiness::kReady:
        return true;
      case os::Readiness::kTimeout:
        return false;
      case os::Readiness::kFailed:
        if (errno == EBADF) return false;
        break;
    }
  }
}

bool prepare_header(Header *header) {
  if (headers_swapped()) swap_header(header);

  g_stMsgCtx.ulFlags = (g_stMsgCtx.ulFlags & ~(7u << ORP_MSG_CTX_RECV_BOARD_SHIFT)) |
                       (header->ulMsgType & ORP_MSG_TYPE_BOARD_MASK);
  const bool body_in_file = (header->ulMsgType & ORP_MSG_TYPE_BODY_IN_FILE) != 0;
  header->ulMsgType = type_proper(header->ulMsgType);
  return body_in_file;
}

}  // namespace msgapi::msg

using namespace msgapi;
using namespace msgapi::msg;

extern "C" uint32_t ORP_MSG_ReceiveWithEndian(int32_t descriptor, ORP_MSG_HEADER_ST **messageOut,
                                              uint32_t timeoutMs, uint32_t convert) {
  if (messageOut == nullptr) return ORP_ERR_ARGUMENT;
  *messageOut = nullptr;
  if (descriptor < 0) return ORP_ERR_ARGUMENT;

  Result<Owned<Header>> message = receive_message(descriptor, timeoutMs, convert != 0);
  if (!message) return code(message.status());

  *messageOut = message->release();
  return ORP_OK;
}

extern "C" uint32_t ORP_MSG_Recv(int32_t descriptor, ORP_MSG_HEADER_ST **messageOut,
                                 uint32_t timeoutMs) {
  return ORP_MSG_ReceiveWithEndian(descriptor, messageOut, timeoutMs, 1);
}

extern "C" uint32_t ORP_MSG_ReceiveManual(ORP_MSG_HEADER_ST **messageOut, uint32_t timeoutMs) {
  return ORP_MSG_Recv(g_stMsgCtx.slSocket, messageOut, timeoutMs);
}
