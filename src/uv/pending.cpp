#include "uv/pending.h"

#include "base/list.h"
#include "base/memory.h"
#include "msgapi/msg.h"
#include "uv/default_loop.h"
#include "uv/timer.h"
#include "uv/trace_point.h"

namespace msgapi::uv {
namespace {

static_assert(sizeof(void *) != 4 || sizeof(OrpUvMsgPending) == 28);

// Calls the entry's procedure. `traced`: the message has the header of msgapi/msg.h.
void call_traced(const OrpUvMsgPending *entry, ORP_MSG_HEADER_ST *message, bool traced) {
  if (entry->answerProc == nullptr) return;
  if (message == nullptr || !traced) {
    entry->answerProc(message, message == nullptr ? 1 : 0, entry->data);
    return;
  }

  const HandledMessage handled("MsgWatcherTracedProc", *message);
  handled.trace_start(default_loop()->iteration);
  entry->answerProc(message, 0, entry->data);
  handled.trace_end(default_loop()->iteration);
}

TakeAnswer g_take_answer;

// Requesters chain the entries themselves, so an entry that is not in the list is not our fault: it
// is passed over.
void unchain(OrpUvMsg *watcher, OrpUvMsgPending *entry) {
  ORP_ListDeleteItemEx(&watcher->pending, entry);
}

// Ends the entry with `message`, or by time-out with null.
void finish(OrpUvMsgPending *entry, OrpUvMsg *watcher, ORP_MSG_HEADER_ST *message) {
  end_timer(entry->timer);
  entry->timer = nullptr;
  if (watcher != nullptr) unchain(watcher, entry);

  const bool traced = watcher != nullptr && (watcher->io.head.status & ORP_UV_MSG_RAW) == 0 &&
                      watcher->headerSize >= sizeof(ORP_MSG_HEADER_ST);
  const Owned<OrpUvMsgPending> owner(entry);
  call_traced(entry, message, traced);
}

}  // namespace

bool answer_pending(OrpUvMsg *watcher, ORP_MSG_HEADER_ST *message) {
  if (watcher->matchProc == nullptr) return false;
  OrpUvMsgPending *entry = watcher->pending;
  while (entry != nullptr && watcher->matchProc(message, entry->key1, entry->key2) == 0) {
    entry = entry->link;
  }
  if (entry != nullptr) finish(entry, watcher, message);
  return entry != nullptr;
}

void set_take_answer(TakeAnswer procedure) {
  g_take_answer = procedure;
}

void orphan_pending(OrpUvMsg *watcher) {
  while (watcher->pending != nullptr) {
    OrpUvMsgPending *entry = list_unlink_at(&watcher->pending);
    entry->watcher = nullptr;
    if (entry->timer != nullptr && entry->timer->interval != 0) continue;
    end_timer(entry->timer);
    std::free(entry);
  }
}

void forget_pending_timer(OrpUvTimer *timer, bool loop_gone) {
  if (timer->callback != UvMsgWatcherTimeout || timer->head.data == 0) return;

  auto *entry = reinterpret_cast<OrpUvMsgPending *>(timer->head.data);
  entry->timer = nullptr;
  if (!loop_gone && entry->watcher != nullptr) return;
  if (entry->watcher != nullptr) unchain(entry->watcher, entry);
  std::free(entry);
}

}  // namespace msgapi::uv

using namespace msgapi::uv;

extern "C" void UvMsgWatcherTimeout(ORP_WORD entry) {
  if (entry == 0) return;

  auto *expired = reinterpret_cast<OrpUvMsgPending *>(entry);
  const msgapi::Owned<ORP_MSG_HEADER_ST> answer(g_take_answer == nullptr ? nullptr
                                                                         : g_take_answer(expired));
  finish(expired, expired->watcher, answer.get());
}
