// I/O watchers.
//
// A watcher's record holds its events; the loop's sets hold the descriptor's bits, and each wait
// takes a copy of them.

#include "uv/io.h"

#include "base/list.h"
#include "base/memory.h"
#include "util/net/socket_close.h"
#include "uv/console.h"
#include "uv/default_loop.h"
#include "uv/descriptor_set.h"
#include "uv/watcher.h"

namespace msgapi::uv {
namespace {

static_assert(sizeof(void *) != 4 || sizeof(OrpUvIo) == 28);

bool is_usable(const OrpUvIo *watcher) {
  return watcher != nullptr && watcher->head.loop != nullptr;
}

}  // namespace

Status init_io(OrpUvLoop *loop, OrpUvIo *watcher, int fd, ORP_UV_IO_PROC callback) {
  if (watcher == nullptr) return Status::kBadArgument;
  const Status status = init_watcher(loop, &watcher->head, ORP_UV_IO);
  if (status != Status::kOk) return status;

  watcher->fd = fd;
  watcher->armed = 0;
  watcher->callback = callback;
  loop = watcher->head.loop;
  if (fits_set(fd) && fd > loop->maxFd) loop->maxFd = fd;
  return Status::kOk;
}

Status start_io(OrpUvIo *watcher, uint32_t events) {
  if (!is_usable(watcher)) return Status::kBadArgument;
  events &= kAllEvents;
  if ((events & ~watcher->armed) == 0) return Status::kOk;

  (void)start_watcher(&watcher->head);
  watcher->armed |= events;
  OrpUvLoop *loop = watcher->head.loop;
  if ((events & ORP_UV_READABLE) != 0) {
    set_add(loop->readSet, watcher->fd);
    watcher->head.status &= ~kEndOfStream;
  }
  if ((events & ORP_UV_WRITABLE) != 0) set_add(loop->writeSet, watcher->fd);
  if ((events & ORP_UV_EXCEPTION) != 0) set_add(loop->errorSet, watcher->fd);
  return Status::kOk;
}

Status stop_io(OrpUvIo *watcher, uint32_t events) {
  if (!is_usable(watcher)) return Status::kBadArgument;
  events &= kAllEvents;
  if ((events & watcher->armed) == 0) return Status::kOk;

  watcher->armed &= ~events;
  OrpUvLoop *loop = watcher->head.loop;
  const int fd = watcher->fd;
  if ((events & ORP_UV_READABLE) != 0 && !set_remove(loop->readSet, fd)) {
    print_debug(1446, "Clear read fd set failed on [%d]", fd);
  }
  if ((events & ORP_UV_WRITABLE) != 0 && !set_remove(loop->writeSet, fd)) {
    print_debug(1453, "Clear write fd set failed on [%d]", fd);
  }
  if ((events & ORP_UV_EXCEPTION) != 0 && !set_remove(loop->errorSet, fd)) {
    print_debug(1460, "Clear error fd set failed on [%d]", fd);
  }
  return Status::kOk;
}

Status delete_io(OrpUvIo *watcher) {
  const Status status = stop_io(watcher, kAllEvents);
  if (status != Status::kOk) return status;

  net::close_socket(watcher->fd);
  watcher->fd = -1;
  return delete_watcher(&watcher->head);
}

Status force_io(OrpUvIo *watcher, uint32_t events) {
  if (!is_usable(watcher)) return Status::kBadArgument;
  Owned<OrpUvForced> entry = make<OrpUvForced>();
  if (!entry) return Status::kNoMemory;

  entry->watcher = watcher;
  entry->events = events;
  list_append(watcher->head.loop->forced, entry.release());
  return Status::kOk;
}

void skip_pass(OrpUvLoop *loop, bool on) {
  if (on) {
    loop->flags |= ORP_UV_LOOP_SKIP;
  } else {
    loop->flags &= ~ORP_UV_LOOP_SKIP;
  }
}

OrpUvIo *find_io(OrpUvLoop *loop, int fd) {
  for (OrpUvWatcher *watcher = loop->watchers; watcher != nullptr; watcher = watcher->link) {
    if (has_type(watcher, ORP_UV_IO) && as<OrpUvIo>(watcher)->fd == fd) return as<OrpUvIo>(watcher);
  }
  return nullptr;
}

void take_descriptor_away(OrpUvIo *watcher) {
  OrpUvLoop *loop = watcher->head.loop;
  // The write and error sets keep their bits; the loop's filter keeps them away from select().
  set_remove(loop->readSet, watcher->fd);
  watcher->fd = -1;
  loop->flags |= kLoopFilterSets;
}

}  // namespace msgapi::uv

using namespace msgapi;
using namespace msgapi::uv;

extern "C" uint32_t OrpUvIoInit(OrpUvLoop *loop, OrpUvIo *watcher, int32_t fd,
                                ORP_UV_IO_PROC callback) {
  return code(init_io(loop, watcher, fd, callback));
}

extern "C" uint32_t OrpUvIoStart(OrpUvIo *watcher, uint32_t events) {
  return code(start_io(watcher, events));
}

extern "C" uint32_t OrpUvIoStop(OrpUvIo *watcher, uint32_t events) {
  return code(stop_io(watcher, events));
}

extern "C" uint32_t OrpUvIoDelete(OrpUvIo *watcher) {
  return code(delete_io(watcher));
}

extern "C" uint32_t OrpUvIoForcedLoop(OrpUvIo *watcher, uint32_t events) {
  return code(force_io(watcher, events));
}

extern "C" uint32_t OrpUvIoSkipLoop(OrpUvIo *watcher, uint32_t on) {
  if (!is_usable(watcher)) return code(Status::kBadArgument);

  skip_pass(watcher->head.loop, on != 0);
  return code(Status::kOk);
}

extern "C" OrpUvIo *OrpUvIoFindByFd(OrpUvLoop *loop, int32_t fd) {
  return find_io(loop_or_default(loop), fd);
}
