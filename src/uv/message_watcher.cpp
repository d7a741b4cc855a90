// Message watchers: whole messages from a stream socket.
//
// select() has announced data when a message is read, so every read is tried first without waiting:
// a message costs one call for its header and one for its body. Only where that finds nothing does
// the reader wait, and the loop with it.

#include "uv/message_watcher.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/memory.h"
#include "os/wait.h"
#include "uv/io.h"
#include "uv/pending.h"
#include "uv/watcher.h"

namespace msgapi::uv {

MessageDrops g_message_drops;

namespace {

static_assert(sizeof(void *) != 4 || sizeof(OrpUvMsg) == 52);

constexpr uint32_t kMaxBody = 0x8000000;
constexpr uint32_t kRawSize = 1024;
constexpr uint32_t kPatience_ms = 1000;  // for each missing piece of a message
constexpr int kRawAttempts = 10;

// ENOTRECOVERABLE counts as a peer that closed, on purpose.
bool is_peer_gone(ssize_t count) {
  return count == 0 || (count < 0 && errno == ENOTRECOVERABLE);
}

bool is_temporary() {
  return errno == EINTR || errno == EAGAIN;
}

Status wait_for_more(int fd) {
  for (;;) {
    switch (os::wait_readable(fd, kPatience_ms)) {
      case os::Readiness::kReady:
        return Status::kOk;
      case os::Readiness::kTimeout:
        return Status::kTimeout;
      case os::Readiness::kFailed:
        if (errno == EBADF) return Status::kSystem;  // no further wait could end otherwise
    }
  }
}

// Fills the buffer. *done is the number of bytes that were read, also after a failure.
Status read_exactly(int fd, char *buffer, size_t size, size_t *done) {
  bool is_socket = true;
  *done = 0;
  while (*done < size) {
    ssize_t count;
    if (is_socket) {
      count = ::recv(fd, buffer + *done, size - *done, MSG_DONTWAIT);
      if (count < 0 && errno == ENOTSOCK) {
        is_socket = false;
        continue;
      }
    } else {
      const Status ready = wait_for_more(fd);
      if (ready != Status::kOk) return ready;
      count = ::read(fd, buffer + *done, size - *done);
    }

    if (count > 0) {
      *done += static_cast<size_t>(count);
    } else if (is_peer_gone(count)) {
      return Status::kPeerGone;
    } else if (!is_temporary()) {
      return Status::kSystem;
    } else if (is_socket && errno == EAGAIN) {
      const Status ready = wait_for_more(fd);
      if (ready != Status::kOk) return ready;
    }
  }
  return Status::kOk;
}

void clear_tail(void *message, uint64_t size) {
  std::memset(static_cast<char *>(message) + size, 0, kZeroTail);
}

// Reads the body behind the header in `message`, which may move.
Status read_body(const OrpUvMsg *watcher, Owned<ORP_MSG_HEADER_ST> *message, uint32_t body_size) {
  const uint64_t header_size = watcher->headerSize;
  const uint64_t size = header_size + body_size;
  void *grown = grow(message->get(), header_size, size + kZeroTail, "UVMsgRecv", 1729);
  if (grown == nullptr) {
    ++g_message_drops.no_memory;
    return Status::kNoMemory;
  }
  (void)message->release();
  message->reset(static_cast<ORP_MSG_HEADER_ST *>(grown));
  clear_tail(grown, size);

  size_t done;
  const Status status =
      read_exactly(watcher->io.fd, static_cast<char *>(grown) + header_size, body_size, &done);
  if (status != Status::kOk) ++g_message_drops.read_failed;
  return status;
}

// Lets the completion procedure work on the message, which it may replace or take.
Status complete(const OrpUvMsg *watcher, Owned<ORP_MSG_HEADER_ST> *message) {
  if (watcher->completeProc == nullptr) return Status::kOk;

  ORP_MSG_HEADER_ST *raw = message->release();
  const uint32_t result = watcher->completeProc(&raw);
  message->reset(raw);
  if (result == ORP_OK && raw != nullptr) return Status::kOk;
  ++g_message_drops.incomplete;
  return result == ORP_OK ? Status::kSystem : static_cast<Status>(result);
}

Status read_framed(const OrpUvMsg *watcher, Owned<ORP_MSG_HEADER_ST> *message) {
  const uint64_t header_size = watcher->headerSize;
  if (header_size == 0 || watcher->lengthProc == nullptr) return Status::kBadArgument;
  message->reset(static_cast<ORP_MSG_HEADER_ST *>(guarded_alloc(header_size + kZeroTail)));
  if (!*message) return Status::kNoMemory;
  clear_tail(message->get(), header_size);

  size_t done;
  const Status status = read_exactly(watcher->io.fd, reinterpret_cast<char *>(message->get()),
                                     watcher->headerSize, &done);
  if (status != Status::kOk) {
    if (done > 0 || status != Status::kPeerGone) ++g_message_drops.read_failed;
    return status;
  }

  uint32_t wants_completion = 0;
  const uint32_t body_size = watcher->lengthProc(message->get(), &wants_completion);
  if (body_size == 0) return Status::kOk;
  if (body_size > kMaxBody) {
    ++g_message_drops.too_long;
    return Status::kTooLong;
  }
  const Status read = read_body(watcher, message, body_size);
  if (read != Status::kOk || wants_completion == 0) return read;
  return complete(watcher, message);
}

Status read_raw(const OrpUvMsg *watcher, Owned<ORP_MSG_HEADER_ST> *message) {
  message->reset(static_cast<ORP_MSG_HEADER_ST *>(guarded_zalloc(kRawSize + kZeroTail)));
  if (!*message) return Status::kNoMemory;
  const int fd = watcher->io.fd;
  if (fd < 0) return Status::kPeerGone;

  const timeval patience = {.tv_sec = 1, .tv_usec = 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  for (int attempt = 0; attempt < kRawAttempts; ++attempt) {
    const ssize_t count = ::read(fd, message->get(), kRawSize);
    if (count > 0) return Status::kOk;
    if (is_peer_gone(count)) return Status::kPeerGone;
    if (!is_temporary()) return Status::kSystem;
  }
  return Status::kTimeout;
}

// A stream socket that has ended would be readable for ever. Other descriptors (datagram sockets,
// FIFOs) may go on after an empty read.
void note_end_of_stream(OrpUvIo *io) {
  int type;
  socklen_t size = sizeof type;
  if (::getsockopt(io->fd, SOL_SOCKET, SO_TYPE, &type, &size) != 0 || type != SOCK_STREAM) return;

  io->head.status |= kEndOfStream;
  io->head.loop->flags |= kLoopFilterSets;
}

// The I/O callback: one message, or none and nobody is told.
void receive(OrpUvIo *io, uint32_t /*event*/) {
  auto *watcher = reinterpret_cast<OrpUvMsg *>(io);
  const bool raw = (io->head.status & ORP_UV_MSG_RAW) != 0;
  Owned<ORP_MSG_HEADER_ST> message;
  const Status status = raw ? read_raw(watcher, &message) : read_framed(watcher, &message);
  if (status == Status::kPeerGone) note_end_of_stream(io);
  if (status != Status::kOk) return;

  if (!answer_pending(watcher, message.get()) && watcher->msgProc != nullptr) {
    watcher->msgProc(message.get());
  }
}

Status init_message_watcher(OrpUvLoop *loop, OrpUvMsg *watcher, int fd, ORP_UV_MSG_PROC msg_proc) {
  const Status status = init_io(loop, &watcher->io, fd, receive);
  watcher->msgProc = msg_proc;
  watcher->pending = nullptr;
  watcher->io.head.status |= ORP_UV_MSG;
  return status;
}

}  // namespace
}  // namespace msgapi::uv

using namespace msgapi;
using namespace msgapi::uv;

extern "C" uint32_t OrpUvMsgInit(OrpUvLoop *loop, OrpUvMsg *watcher, int32_t fd,
                                 ORP_UV_MSG_PROC msgProc) {
  if (watcher == nullptr) return code(Status::kBadArgument);

  return code(init_message_watcher(loop, watcher, fd, msgProc));
}

extern "C" uint32_t OrpUvMsgStart(OrpUvMsg *watcher) {
  return code(start_io(watcher == nullptr ? nullptr : &watcher->io, ORP_UV_READABLE));
}

extern "C" uint32_t OrpUvMsgDelete(OrpUvMsg *watcher) {
  return code(delete_io(watcher == nullptr ? nullptr : &watcher->io));
}
