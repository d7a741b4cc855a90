// Sending.
//
// A message is written straight from the caller's block: its header is stamped with the board
// number and put into the connection's byte order in place, and restored afterwards.
//
// On the process's connection within this machine a write is first tried without blocking, which is
// all it takes when the socket has room. Only where that leaves open what a wait would have said is
// the wait done and the write begun anew. Such a socket takes a message whole or not at all. TCP
// would take the part for which there is room, although it does not count as writable then, and the
// rest might never go: on any other descriptor the wait comes first.

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "msg/context.h"
#include "msg/hand_over.h"
#include "msg/header.h"
#include "msgapi/log.h"
#include "os/wait.h"
#include "uv/trace_point.h"

namespace msgapi::msg {
namespace {

constexpr uint32_t kWritableWait_ms = 10000;
constexpr uint32_t kMaxBody = 0xffffffd6;  // 40 + body stays below 2^32

struct Target {
  int fd;
  const sockaddr *address;
  socklen_t address_size;
};

bool await_writable(int fd, const Header &message) {
  for (;;) {
    const os::Readiness readiness = os::wait_writable(fd, kWritableWait_ms);
    if (readiness == os::Readiness::kReady) return true;

    const int error = readiness == os::Readiness::kTimeout ? 0 : errno;
    if (error == EINTR || error == EAGAIN) continue;
    mlog_print("msg", MLOG_LEVEL_FATAL,
               "Send msg type:[0x%x] app:[%s] data:[%u] len:[%u] dst:[%.12s] src:[%.12s] with fd "
               "[%d] select with errno [%d].\n",
               message.ulMsgType, g_stMsgCtx.aucAppName, message.ulMsgData, message.ulDataLen,
               message.aucRecvApp, message.aucSendApp, fd, error);
    return false;
  }
}

// After a failed first try: true when the rules want to hear what a wait says.
bool leaves_the_wait_open(int error) {
  return error == EAGAIN || error == EINTR || error == EBADF || error == ENOTSOCK;
}

void stamp(Header *message) {
  message->ulMsgType =
      (message->ulMsgType & ~ORP_MSG_TYPE_BOARD_MASK) | send_board() << ORP_MSG_TYPE_BOARD_SHIFT;
  if (headers_swapped()) swap_header(message);
}

void restore(Header *message, uint32_t type) {
  if (headers_swapped()) swap_header(message);
  message->ulMsgType = type;
}

void log_write_failure(const Header &message, int error) {
  mlog_print("msg", MLOG_LEVEL_FATAL,
             "Send msg type:[0x%x] app:[%s] data:[%u] len:[%u] dst:[%.12s] src:[%.12s] on board "
             "[%u] return err:[%d].\n",
             message.ulMsgType, g_stMsgCtx.aucAppName, message.ulMsgData, message.ulDataLen,
             message.aucRecvApp, message.aucSendApp, send_board(), error);
}

// Leaves the header as the result demands: its type proper after kOk and kPeerGone, untouched after
// kNotWritable, as it was sent after kSystem.
Status write_message(const Target &target, Header *message, bool waited) {
  const uint64_t total = block_size(*message);
  const uint32_t type = message->ulMsgType;
  ORP_TRACE_PrintInfo(__func__, __LINE__, 0, "msg", uv::kTraceLevel,
                      "Send msg type:[0x%x] app:[%s] data:[%u] len:[%u] dst:[%.12s] src:[%.12s] on "
                      "board [%u] ...",
                      type, g_stMsgCtx.aucAppName, message->ulMsgData, message->ulDataLen,
                      message->aucRecvApp, message->aucSendApp, send_board());
  stamp(message);

  const char *bytes = reinterpret_cast<const char *>(message);
  int flags = waited ? 0 : MSG_DONTWAIT;
  for (uint64_t done = 0; done < total;) {
    const ssize_t written = ::sendto(target.fd, bytes + done, static_cast<size_t>(total - done),
                                     flags | MSG_NOSIGNAL, target.address, target.address_size);
    if (written >= 0) {
      done += static_cast<uint64_t>(written);
      flags = 0;
      continue;
    }

    const int error = errno;
    if (flags != 0 && leaves_the_wait_open(error)) {
      restore(message, type);
      if (!await_writable(target.fd, *message)) return Status::kNotWritable;
      stamp(message);
      flags = 0;
      continue;
    }
    if (error == EPIPE) {
      restore(message, type_proper(type));
      return Status::kPeerGone;
    }
    log_write_failure(*message, error);
    if (error != EINTR && error != EAGAIN) return Status::kSystem;
  }
  restore(message, type_proper(type));
  return Status::kOk;
}

Status hand_over_and_write(const Target &target, const Header &message) {
  if (!await_writable(target.fd, message)) return Status::kNotWritable;

  const Result<HandOverPath> path = store_body(message);
  if (!path) return path.status();

  Status status = Status::kNotWritable;
  if (const Owned<HandOverMessage> replacement = make<HandOverMessage>(message, *path)) {
    replacement->header.ulDataLen = sizeof replacement->path;
    replacement->header.ulMsgType |= ORP_MSG_TYPE_BODY_IN_FILE;
    status = write_message(target, &replacement->header, true);
  }
  if (status != Status::kOk) ::unlink(path->text);
  return status;
}

Status wait_and_write(const Target &target, Header *message) {
  return await_writable(target.fd, *message) ? write_message(target, message, /*waited=*/true)
                                             : Status::kNotWritable;
}

Status send_to(const Target &target, Header *message) {
  if (message->ulDataLen > ORP_MSG_MAX_INLINE_BODY) return hand_over_and_write(target, *message);
  return is_local_connection(target.fd) ? write_message(target, message, /*waited=*/false)
                                        : wait_and_write(target, message);
}

uint32_t send_built(Header header) {
  return ORP_MSG_Send(&header);
}

uint32_t send_copy(const char *destination, uint32_t type, const void *content, uint32_t size,
                   uint32_t data, uint32_t sequence) {
  if (size > kMaxBody) return ORP_ERR_MEMORY;
  const Owned<Header> message = allocate_message(size);
  if (!message) return ORP_ERR_MEMORY;

  copy_cut(message->aucRecvApp, text_or_empty(destination));
  message->ulMsgType = type;
  message->ulSeqNum = sequence;
  message->ulMsgData = data;
  std::memcpy(body(message.get()), content, size);
  return ORP_MSG_Send(message.get());
}

uint32_t send_subscription(uint32_t type, uint32_t event, const char *application) {
  if (application == nullptr) return ORP_OK;
  NameMessage message = build_name_message(type, event, application);
  return ORP_MSG_Send(&message.header);
}

}  // namespace
}  // namespace msgapi::msg

using namespace msgapi;
using namespace msgapi::msg;

ORP_MSG_SEND_HOOK g_pfMsgSendHook = nullptr;

extern "C" uint32_t ORP_MSG_Send(ORP_MSG_HEADER_ST *message) {
  if (message == nullptr) return ORP_ERR_ARGUMENT;
  if (g_stMsgCtx.slSocket < 0) {
    ORP_TRACE_PrintInfo(__func__, __LINE__, 0, "msg", uv::kTraceLevel,
                        "msgapi fail to send, fd=%d not init, pid=%d\n", g_stMsgCtx.slSocket,
                        static_cast<int>(::getpid()));
    return ORP_ERR_NOT_CONNECTED;
  }

  copy_cut(message->aucSendApp, own_name());
  return ORP_MSG_SendEx(g_stMsgCtx.slSocket, message);
}

extern "C" uint32_t ORP_MSG_SendEx(int32_t descriptor, ORP_MSG_HEADER_ST *message) {
  if (g_pfMsgSendHook != nullptr) {
    uint32_t handled = 0;
    const uint32_t status = g_pfMsgSendHook(message, &handled, &descriptor);
    if (handled != 0) return status;
  }
  return ORP_MSG_SendTo(descriptor, message, nullptr, 0);
}

extern "C" uint32_t ORP_MSG_SendTo(int32_t descriptor, ORP_MSG_HEADER_ST *message,
                                   const struct sockaddr *address, uint32_t addressLength) {
  if (message == nullptr || descriptor < 0) return ORP_ERR_ARGUMENT;
  return code(send_to({descriptor, address, addressLength}, message));
}

extern "C" uint32_t ORP_MSG_SendSimpleMsg(const char *dstApp, uint32_t type, uint32_t data) {
  return send_built(build_header(text_or_empty(dstApp), type, data));
}

extern "C" uint32_t ORP_MSG_SendSimpleMsgWithSeqNum(const char *dstApp, uint32_t type,
                                                    uint32_t data, uint32_t seq) {
  Header header = build_header(text_or_empty(dstApp), type, data);
  header.ulSeqNum = seq;
  return send_built(header);
}

extern "C" uint32_t ORP_MSG_SendMsgData(const char *dstApp, uint32_t type, const void *body,
                                        uint32_t bodyLen) {
  return ORP_MSG_SendMsgDataWithData(dstApp, type, body, bodyLen, 0);
}

extern "C" uint32_t ORP_MSG_SendMsgDataWithData(const char *dstApp, uint32_t type, const void *body,
                                                uint32_t bodyLen, uint32_t data) {
  // With a body the number stays 0, without one it is a fresh one: receivers know the difference.
  return body == nullptr ? ORP_MSG_SendSimpleMsg(dstApp, type, data)
                         : send_copy(dstApp, type, body, bodyLen, data, 0);
}

extern "C" uint32_t ORP_MSG_SendMsgDataWithDataSeq(const char *dstApp, uint32_t type,
                                                   const void *body, uint32_t bodyLen,
                                                   uint32_t data, uint32_t seq) {
  return body == nullptr ? ORP_MSG_SendSimpleMsgWithSeqNum(dstApp, type, data, seq)
                         : send_copy(dstApp, type, body, bodyLen, data, seq);
}

extern "C" uint32_t ORP_MSG_SendRealTimeMsg(ORP_MSG_HEADER_ST * /*message*/) {
  return ORP_OK;
}

extern "C" uint32_t ORP_MSG_SubscribeEventForOtherApp(uint32_t event, const char *appName) {
  return send_subscription(ORP_MSG_SUBSCRIBE, event, appName);
}

extern "C" uint32_t ORP_MSG_UnSubscribeEventForOtherApp(uint32_t event, const char *appName) {
  return send_subscription(ORP_MSG_UNSUBSCRIBE, event, appName);
}
