// Receiving, without the event loop: one message from a descriptor into a new block.
//
// After a wait the header is read with one read. A part of a header means that the stream is out of
// step, because writers write it whole. The body has usually arrived by then, so it is read before
// any further wait.

#include "msg/receive.h"

#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdio>
#include <span>

#include "base/drop_count.h"
#include "base/memory.h"
#include "log/client.h"
#include "msg/context.h"
#include "msg/dm_message.h"
#include "msg/hand_over.h"
#include "os/stream_reader.h"
#include "os/wait.h"
#include "uv/trace_point.h"

namespace msgapi::msg {
namespace {

constexpr uint32_t kReceiveWait_ms = 20000;

Status read_header(int fd, Header *header) {
  os::StreamReader reader(fd, {.patience_ms = os::ReadPolicy::kBlock});
  const os::Piece piece = reader.read_some({reinterpret_cast<char *>(header), sizeof *header});
  if (piece.count == sizeof *header || piece.end != os::ReadEnd::kData)
    return os::status_of(piece.end);

  ++g_dropped.read;
  // A short read sets no errno, so 0 is shown.
  std::printf("msgapi fail to read for not a head length, ret=%d, errno=%d, fd=%d, pid=%d\n",
              static_cast<int>(piece.count), 0, fd, static_cast<int>(::getpid()));
  return Status::kSystem;
}

Status read_body(int fd, std::span<char> out, uint32_t timeout_ms) {
  constexpr uint32_t kLongest_ms = INT32_MAX;
  const uint32_t patience_ms =
      timeout_ms == 0 ? os::ReadPolicy::kBlock : std::min(timeout_ms, kLongest_ms);
  os::StreamReader reader(fd, {.patience_ms = patience_ms});
  const os::ReadEnd end = reader.fill(out).end;
  if (end == os::ReadEnd::kData) return Status::kOk;

  ++g_dropped.read;
  // A descriptor that is not open will not be ready in time.
  const bool closed = end == os::ReadEnd::kFailed && errno == EBADF && timeout_ms != 0;
  return closed ? Status::kTimeout : os::status_of(end);
}

// Appends the body to a message that is only a header so far.
Status receive_body(int fd, Owned<Header> *message, uint32_t timeout_ms) {
  const uint32_t size = (*message)->ulDataLen;
  if (size > ORP_MSG_MAX_BODY) {
    std::printf("msgapi too large body len, type=0x%x, data_len=%u\n", (*message)->ulMsgType, size);
    log::print("msg", MLOG_LEVEL_FATAL, "Too long msg:[0x%x] len:[%u].\n", (*message)->ulMsgType,
               size);
    ++g_dropped.too_long;
    return Status::kNoMemory;
  }
  if (!grow_tailed(message, ORP_MSG_HEADER_SIZE, block_size(**message), __func__, __LINE__)) {
    ++g_dropped.no_memory;
    return Status::kNoMemory;
  }
  return read_body(fd, {body(message->get()), size}, timeout_ms);
}

Status complete(Owned<Header> *message) {
  Header *block = message->release();
  const Status status = complete_hand_over(&block);
  assert((block == nullptr) == (status == Status::kNoMemory));  // who owns the block now
  message->reset(block);
  if (status != Status::kOk) ++g_dropped.completion;
  return status;
}

}  // namespace

Result<Owned<Header>> receive_message(int fd, uint32_t timeout_ms, bool convert) {
  if (!await_readable(fd, timeout_ms)) return Status::kTimeout;

  Owned<Header> message = make_tailed<Header>(ORP_MSG_HEADER_SIZE);
  if (!message) return Status::kNoMemory;
  if (const Status status = read_header(fd, message.get()); status != Status::kOk) return status;

  const bool body_in_file = convert && prepare_header(message.get());
  uv::MessageTrace(*message).received(receive_board(), g_stMsgCtx.ulFlags, body_in_file);
  if (message->ulDataLen == 0) return message;

  if (const Status status = receive_body(fd, &message, timeout_ms); status != Status::kOk) {
    return status;
  }
  if (body_in_file) {
    if (const Status status = complete(&message); status != Status::kOk) return status;
  }
  if (convert && may_carry_dm(message->ulMsgType)) hold_to_length(message.get());
  return message;
}

bool await_readable(int fd, uint32_t timeout_ms) {
  const uint32_t wait_ms = timeout_ms == 0 ? kReceiveWait_ms : timeout_ms;
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

namespace {

// Receives as the exported functions were asked to.
Status receive_given(int fd, Header **out, uint32_t timeout_ms, bool convert) {
  if (out == nullptr) return Status::kBadArgument;
  *out = nullptr;
  if (fd < 0) return Status::kBadArgument;

  Result<Owned<Header>> message = receive_message(fd, timeout_ms, convert);
  if (message) *out = message->release();
  return message.status();
}

}  // namespace
}  // namespace msgapi::msg

using namespace msgapi;
using namespace msgapi::msg;

extern "C" uint32_t ORP_MSG_ReceiveWithEndian(int32_t descriptor, ORP_MSG_HEADER_ST **messageOut,
                                              uint32_t timeoutMs, uint32_t convert) {
  return code(receive_given(descriptor, messageOut, timeoutMs, convert != 0));
}

extern "C" uint32_t ORP_MSG_Recv(int32_t descriptor, ORP_MSG_HEADER_ST **messageOut,
                                 uint32_t timeoutMs) {
  return code(receive_given(descriptor, messageOut, timeoutMs, /*convert=*/true));
}

extern "C" uint32_t ORP_MSG_ReceiveManual(ORP_MSG_HEADER_ST **messageOut, uint32_t timeoutMs) {
  return code(receive_given(g_stMsgCtx.slSocket, messageOut, timeoutMs, /*convert=*/true));
}
