// Readers of messages on a stream that may hold anything: a message watcher, framed and raw, and
// the reader below it and below every other reception, with each of its policies.
//
// Input: one byte of choices (1: raw, 2: an answer is waited for, 4: the reader alone, 8: from a
// pipe, 16: it blocks, 32: signals do not start a wait anew), then the stream up to its end.

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <span>

#include "msgapi/loop.h"
#include "msgapi/msg.h"
#include "os/stream_reader.h"
#include "uv/watcher.h"

namespace {

constexpr size_t kMaxStream = 1 << 16;  // fits the buffer of a socket and of a pipe

void require(bool holds) {
  if (!holds) std::abort();
}

uint32_t length_of(ORP_MSG_HEADER_ST *header, uint32_t *flag) {
  *flag = header->ulMsgType & ORP_MSG_TYPE_BODY_IN_FILE;
  return header->ulDataLen;
}

// Replaces, takes or refuses the message by its first word.
uint32_t complete(ORP_MSG_HEADER_ST **message) {
  const uint32_t what = (*message)->ulMsgType % 4;
  if (what == 0) return ORP_OK;
  if (what == 1) return ORP_ERR_ARGUMENT;
  std::free(*message);
  *message = nullptr;
  if (what == 2) return ORP_OK;
  *message = static_cast<ORP_MSG_HEADER_ST *>(std::calloc(1, sizeof(ORP_MSG_HEADER_ST) + 16));
  return ORP_OK;
}

void take_framed(ORP_MSG_HEADER_ST *message) {
  const char *end = reinterpret_cast<const char *>(message + 1) + message->ulDataLen;
  for (int i = 0; i < 16; ++i) require(end[i] == '\0');
}

void take_raw(ORP_MSG_HEADER_ST *message) {
  require(std::strlen(reinterpret_cast<const char *>(message)) <= 1024);
}

void answer(ORP_MSG_HEADER_ST *message, uint32_t /*timed_out*/, ORP_WORD /*data*/) {
  take_framed(message);
}

// Stops the loop when the watcher, in the data word, has come to the end.
void stop_at_end(OrpUvIdle *idle) {
  const auto *watcher = reinterpret_cast<const OrpUvMsg *>(idle->head.data);
  const ORP_TIME_ST none = {0, 0};
  OrpUvLoopUpdateSelectTimeout(idle->head.loop, &none);
  if ((watcher->io.head.status & msgapi::uv::kEndOfStream) != 0) OrpUvLoopStop(idle->head.loop);
}

// Takes the stream in pieces, each as long as the byte before it says. Everything that was written
// is read, in order and nothing else, and the end comes after the last byte.
void read_pieces(int fd, uint8_t choices, std::span<const uint8_t> stream) {
  using namespace msgapi::os;
  const bool blocks = (choices & 16) != 0;
  const bool goes_on = (choices & 32) != 0;
  StreamReader reader(fd,
                      {.patience_ms = blocks ? ReadPolicy::kBlock : 1,
                       .interrupted = goes_on ? Interrupted::kGoesOn : Interrupted::kStartsAgain});
  size_t at = 0;
  for (;;) {
    char piece[256];
    const size_t wanted = at == 0 ? 1 : size_t{stream[at - 1]} + 1;
    const auto [end, done] = reader.fill({piece, wanted});
    require(done <= stream.size() - at);
    require(std::memcmp(piece, stream.data() + at, done) == 0);
    at += done;
    require(end == (done == wanted ? ReadEnd::kData : ReadEnd::kPeerGone));
    if (end == ReadEnd::kPeerGone) break;
  }
  require(at == stream.size());
}

void fuzz_reader(uint8_t choices, std::span<const uint8_t> stream) {
  int pair[2];
  if ((choices & 8) != 0) {
    require(::pipe2(pair, O_CLOEXEC) == 0);
  } else {
    require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) == 0);
  }
  require(::write(pair[1], stream.data(), stream.size()) == static_cast<ssize_t>(stream.size()));
  ::close(pair[1]);
  read_pieces(pair[0], choices, stream);
  ::close(pair[0]);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0 || size > kMaxStream) return -1;
  if ((data[0] & 4) != 0) {
    fuzz_reader(data[0], {data + 1, size - 1});
    return 0;
  }

  int pair[2];
  require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) == 0);
  require(::write(pair[1], data + 1, size - 1) == static_cast<ssize_t>(size - 1));
  ::shutdown(pair[1], SHUT_WR);

  OrpUvLoop loop;
  OrpUvLoopInit(&loop);
  auto *watcher = static_cast<OrpUvMsg *>(std::calloc(1, sizeof(OrpUvMsg)));
  const bool raw = (data[0] & 1) != 0;
  OrpUvMsgInit(&loop, watcher, pair[0], raw ? take_raw : take_framed);
  if (raw) watcher->io.head.status |= ORP_UV_MSG_RAW;
  watcher->headerSize = sizeof(ORP_MSG_HEADER_ST);
  watcher->lengthProc = length_of;
  watcher->completeProc = complete;
  if ((data[0] & 2) != 0 && !raw) {
    watcher->matchProc = [](const ORP_MSG_HEADER_ST *message, uint32_t key1, uint32_t /*key2*/) {
      return static_cast<uint32_t>(message->ulMsgType % 8 == key1);
    };
    auto *entry = static_cast<OrpUvMsgPending *>(std::calloc(1, sizeof(OrpUvMsgPending)));
    entry->key1 = 4;
    entry->answerProc = answer;
    entry->watcher = watcher;
    watcher->pending = entry;
  }
  OrpUvMsgStart(watcher);
  ORP_UV_IdleStart(&loop, stop_at_end)->head.data = reinterpret_cast<ORP_WORD>(watcher);
  require(ORP_UV_LoopRun(&loop, 0) == ORP_OK);

  if (watcher->pending != nullptr) {
    std::free(watcher->pending);
    watcher->pending = nullptr;
  }
  ::close(pair[0]);
  ::close(pair[1]);
  ORP_UV_LoopDestroy(&loop);
  return 0;
}
