// A message watcher reads whatever a stream holds, framed and raw.

#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "msgapi/loop.h"
#include "msgapi/msg.h"
#include "uv/watcher.h"

namespace {

constexpr size_t kMaxStream = 1 << 16;  // fits the socket's buffer

void require(bool holds) {
  if (!holds) std::abort();
}

uint32_t length_of(ORP_MSG_HEADER_ST *header, uint32_t *flag) {
  *flag = header->ulMsgType & ORP_MSG_TYPE_BODY_IN_FILE;
  return header->ulDataLen;
}

// Replaces, takes or refuses the message, as its first word says.
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0 || size > kMaxStream) return -1;
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
