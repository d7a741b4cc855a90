// Sending.
//
// A message is written straight from the caller's block: its header gets the board number and the
// connection's byte order in place, and is restored afterwards.
//
// On the process's connection within this machine, a write without blocking comes first; that is
// enough when the socket has room. When it fails with an error that the wait deals with or reports
// (a full socket, a signal, a bad descriptor), the sender waits and writes again. Such a socket
// takes a message whole or not at all. On any other descriptor the wait comes first: TCP takes a
// part of a message even while poll() does not call it writable, and the rest might never go.

#include "msg/send.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstring>

#include "log/client.h"
#include "msg/context.h"
#include "msg/hand_over.h"
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
    log::print("msg", MLOG_LEVEL_FATAL,
               "Send msg type:[0x%x] app:[%s] data:[%u] len:[%u] dst:[%.12s] src:[%.12s] with fd "
               "[%d] select with errno [%d].\n",
               message.ulMsgType, g_stMsgCtx.aucAppName, message.ulMsgData, message.ulDataLen,
               message.aucRecvApp, message.aucSendApp, fd, error);
    return false;
  }
}

// Whether the wait deals with this error of the first try, or reports it.
bool wait_could_explain(int error) {
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
  log::print("msg", MLOG_LEVEL_FATAL,
             "Send msg type:[0x%x] app:[%s] data:[%u] len:[%u] dst:[%.12s] src:[%.12s] on board "
             "[%u] return err:[%d].\n",
             message.ulMsgType, g_stMsgCtx.aucAppName, message.ulMsgData, message.ulDataLen,
             message.aucRecvApp, message.aucSendApp, send_board(), error);
}

// Leaves the header as the interface says for each status: with the type proper after kOk and
// kPeerGone, untouched after kNotWritable, as it was sent after kSystem.
Status write_message(const Target &target, Header *message, bool waited) {
  const uint64_t total = block_size(*message);
  const uint32_t type = message->ulMsgType;
  uv::MessageTrace(*message).sending(send_board());
  stamp(message);

  const char *bytes = reinterpret_cast<const char *>(message);
  int flags = waited ? 0 : MSG_DONTWAIT;
  for (uint64_t done = 0; done < total;) {
    const ssize_t written = ::sendto(target.fd, bytes + done, static_cast<size_t>(total - done),
                                     flags | MSG_NOSIGNAL, target.address, target.address_size);
    if (written >= 0) {
      done += static_cast<uint64_t>(written);
      assert(done <= total);
      flags = 0;
      continue;
    }

    const int error = errno;
    if (flags != 0 && wait_could_explain(error)) {
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

// Sends what an exported function was given.
Status send_given(int fd, const sockaddr *address, socklen_t address_size, Header *message) {
  if (message == nullptr || fd < 0) return Status::kBadArgument;
  return send_to({fd, address, address_size}, message);
}

// Asks the hook, which may direct the message to another descriptor or take it.
Status send_unless_taken(int fd, Header *message) {
  int32_t descriptor = fd;
  if (g_pfMsgSendHook != nullptr) {
    uint32_t handled = 0;
    const uint32_t status = g_pfMsgSendHook(message, &handled, &descriptor);
    if (handled != 0) return static_cast<Status>(status);
  }
  return send_given(descriptor, nullptr, 0, message);
}

Status send_subscription(uint32_t type, uint32_t event, const char *application) {
  if (application == nullptr) return Status::kOk;
  NameMessage message = build_name_message(type, event, application);
  return send(&message.header);
}

}  // namespace

Status send(Header *message, Hook hook) {
  const int fd = g_stMsgCtx.slSocket;
  if (fd < 0) {
    ORP_TRACE_PrintInfo("ORP_MSG_Send", __LINE__, 0, "msg", uv::kTraceLevel,
                        "msgapi fail to send, fd=%d not init, pid=%d\n", fd,
                        static_cast<int>(::getpid()));
    return Status::kNotConnected;
  }

  copy_cut(message->aucSendApp, own_name());
  return hook == Hook::kAsked ? send_unless_taken(fd, message)
                              : send_given(fd, nullptr, 0, message);
}

Status send_header(std::string_view destination, uint32_t type, uint32_t data) {
  Header header = build_header(destination, type, data);
  return send(&header);
}

Status send_header_under(uint32_t sequence, std::string_view destination, uint32_t type,
                         uint32_t data) {
  // Takes a number from the counter, although another replaces it.
  Header header = build_header(destination, type, data);
  header.ulSeqNum = sequence;
  return send(&header);
}

Status send_content(std::string_view destination, uint32_t type, std::span<const char> content,
                    uint32_t data, uint32_t sequence) {
  if (content.size() > kMaxBody) return Status::kNoMemory;
  const Owned<Header> message = allocate_message(static_cast<uint32_t>(content.size()));
  if (!message) return Status::kNoMemory;

  copy_cut(message->aucRecvApp, destination);
  message->ulMsgType = type;
  message->ulSeqNum = sequence;
  message->ulMsgData = data;
  if (!content.empty()) std::memcpy(body(message.get()), content.data(), content.size());
  return send(message.get());
}

}  // namespace msgapi::msg

using namespace msgapi;
using namespace msgapi::msg;

ORP_MSG_SEND_HOOK g_pfMsgSendHook = nullptr;

extern "C" uint32_t ORP_MSG_Send(ORP_MSG_HEADER_ST *message) {
  return code(message == nullptr ? Status::kBadArgument : send(message));
}

extern "C" uint32_t ORP_MSG_SendEx(int32_t descriptor, ORP_MSG_HEADER_ST *message) {
  return code(send_unless_taken(descriptor, message));
}

extern "C" uint32_t ORP_MSG_SendTo(int32_t descriptor, ORP_MSG_HEADER_ST *message,
                                   const struct sockaddr *address, uint32_t addressLength) {
  return code(send_given(descriptor, address, addressLength, message));
}

extern "C" uint32_t ORP_MSG_SendSimpleMsg(const char *dstApp, uint32_t type, uint32_t data) {
  return code(send_header(text_or_empty(dstApp), type, data));
}

extern "C" uint32_t ORP_MSG_SendSimpleMsgWithSeqNum(const char *dstApp, uint32_t type,
                                                    uint32_t data, uint32_t seq) {
  return code(send_header_under(seq, text_or_empty(dstApp), type, data));
}

// In the following functions the number is 0 with a body, and fresh without one. Receivers rely on
// the difference.

extern "C" uint32_t ORP_MSG_SendMsgData(const char *dstApp, uint32_t type, const void *body,
                                        uint32_t bodyLen) {
  const std::string_view to = text_or_empty(dstApp);
  return code(body == nullptr ? send_header(to, type, 0)
                              : send_content(to, type, content_of(body, bodyLen)));
}

extern "C" uint32_t ORP_MSG_SendMsgDataWithData(const char *dstApp, uint32_t type, const void *body,
                                                uint32_t bodyLen, uint32_t data) {
  const std::string_view to = text_or_empty(dstApp);
  return code(body == nullptr ? send_header(to, type, data)
                              : send_content(to, type, content_of(body, bodyLen), data));
}

extern "C" uint32_t ORP_MSG_SendMsgDataWithDataSeq(const char *dstApp, uint32_t type,
                                                   const void *body, uint32_t bodyLen,
                                                   uint32_t data, uint32_t seq) {
  const std::string_view to = text_or_empty(dstApp);
  return code(body == nullptr ? send_header_under(seq, to, type, data)
                              : send_content(to, type, content_of(body, bodyLen), data, seq));
}

extern "C" uint32_t ORP_MSG_SendRealTimeMsg(ORP_MSG_HEADER_ST * /*message*/) {
  return ORP_OK;
}

extern "C" uint32_t ORP_MSG_SubscribeEventForOtherApp(uint32_t event, const char *appName) {
  return code(send_subscription(ORP_MSG_SUBSCRIBE, event, appName));
}

extern "C" uint32_t ORP_MSG_UnSubscribeEventForOtherApp(uint32_t event, const char *appName) {
  return code(send_subscription(ORP_MSG_UNSUBSCRIBE, event, appName));
}
