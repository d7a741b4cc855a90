// Message watchers: whole messages from a stream socket.
//
// A message is read after select() has announced data, so it costs one call for its header and one
// for its body. Only when a piece is missing does the reader wait, and the loop waits with it.

#include "uv/message_watcher.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <span>

#include "base/drop_count.h"
#include "base/memory.h"
#include "os/stream_reader.h"
#include "uv/io.h"
#include "uv/pending.h"
#include "uv/watcher.h"

namespace msgapi::uv {
namespace {

static_assert(sizeof(void *) != 4 || sizeof(OrpUvMsg) == 52);

constexpr uint32_t kMaxBody = 0x8000000;
constexpr uint32_t kRawSize = 1024;
constexpr uint32_t kPatience_ms = 1000;  // for each missing piece of a message
constexpr int kRawAttempts = 10;

// Reads the body that follows the header in `message`, which may move.
Status read_body(os::StreamReader *reader, uint64_t header_size, uint32_t body_size,
                 Owned<ORP_MSG_HEADER_ST> *message) {
  if (!grow_tailed(message, header_size, header_size + body_size, "UVMsgRecv", 1729)) {
    ++g_dropped.no_memory;
    return Status::kNoMemory;
  }

  char *body = reinterpret_cast<char *>(message->get()) + header_size;
  const os::ReadEnd end = reader->fill({body, body_size}).end;
  if (end != os::ReadEnd::kData) ++g_dropped.read;
  return os::status_of(end);
}

Status complete(const OrpUvMsg *watcher, Owned<ORP_MSG_HEADER_ST> *message) {
  if (watcher->completeProc == nullptr) return Status::kOk;

  ORP_MSG_HEADER_ST *raw = message->release();
  const uint32_t result = watcher->completeProc(&raw);
  message->reset(raw);
  if (result == ORP_OK && raw != nullptr) return Status::kOk;
  ++g_dropped.completion;
  return result == ORP_OK ? Status::kSystem : static_cast<Status>(result);
}

Status read_framed(const OrpUvMsg *watcher, Owned<ORP_MSG_HEADER_ST> *message) {
  const uint64_t header_size = watcher->headerSize;
  if (header_size == 0 || watcher->lengthProc == nullptr) return Status::kBadArgument;
  *message = make_tailed<ORP_MSG_HEADER_ST>(header_size);
  if (!*message) return Status::kNoMemory;

  const std::span<char> header(reinterpret_cast<char *>(message->get()), watcher->headerSize);
  // Another callback may have read what select() has announced. Then nothing is missing.
  const os::Piece begun = os::StreamReader(watcher->io.fd, {.patience_ms = 0}).read_some(header);
  if (begun.end == os::ReadEnd::kSilence) return Status::kTimeout;

  os::StreamReader reader(watcher->io.fd, {.patience_ms = kPatience_ms});
  os::ReadEnd end = begun.end;
  if (end == os::ReadEnd::kData) {
    end = reader.fill(header.subspan(static_cast<size_t>(begun.count))).end;
  }
  if (end != os::ReadEnd::kData) {
    // The end of the stream between two messages loses nothing.
    if (begun.end == os::ReadEnd::kData || end != os::ReadEnd::kPeerGone) ++g_dropped.read;
    return os::status_of(end);
  }

  uint32_t wants_completion = 0;
  const uint32_t body_size = watcher->lengthProc(message->get(), &wants_completion);
  if (body_size == 0) return Status::kOk;
  if (body_size > kMaxBody) {
    ++g_dropped.too_long;
    return Status::kTooLong;
  }
  const Status read = read_body(&reader, header_size, body_size, message);
  if (read != Status::kOk || wants_completion == 0) return read;
  return complete(watcher, message);
}

Status read_raw(const OrpUvMsg *watcher, Owned<ORP_MSG_HEADER_ST> *message) {
  *message = make_tailed<ORP_MSG_HEADER_ST>(kRawSize);
  if (!*message) return Status::kNoMemory;
  const int fd = watcher->io.fd;
  if (fd < 0) return Status::kPeerGone;

  const timeval patience = {.tv_sec = 1, .tv_usec = 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  for (int attempt = 0; attempt < kRawAttempts; ++attempt) {
    const ssize_t count = ::read(fd, message->get(), kRawSize);
    if (count > 0) return Status::kOk;
    if (count == 0 || errno == ENOTRECOVERABLE) return Status::kPeerGone;
    if (errno != EINTR && errno != EAGAIN) return Status::kSystem;
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

}  // namespace

void receive_message(OrpUvIo *io, uint32_t /*event*/) {
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
  const Status status = init_io(loop, &watcher->io, fd, receive_message);
  watcher->msgProc = msg_proc;
  watcher->pending = nullptr;
  watcher->io.head.status |= ORP_UV_MSG;
  return status;
}

Status start_message_watcher(OrpUvMsg *watcher) {
  return start_io(watcher == nullptr ? nullptr : &watcher->io, ORP_UV_READABLE);
}

}  // namespace msgapi::uv

using namespace msgapi;
using namespace msgapi::uv;

extern "C" uint32_t OrpUvMsgInit(OrpUvLoop *loop, OrpUvMsg *watcher, int32_t fd,
                                 ORP_UV_MSG_PROC msgProc) {
  if (watcher == nullptr) return code(Status::kBadArgument);

  return code(init_message_watcher(loop, watcher, fd, msgProc));
}

extern "C" uint32_t OrpUvMsgStart(OrpUvMsg *watcher) {
  return code(start_message_watcher(watcher));
}

extern "C" uint32_t OrpUvMsgDelete(OrpUvMsg *watcher) {
  return code(delete_io(watcher == nullptr ? nullptr : &watcher->io));
}
