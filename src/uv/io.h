// I/O watchers: what the loop's dispatch and the watchers built on them share.
#pragma once

#include "base/status.h"
#include "msgapi/loop.h"

namespace msgapi::uv {

inline constexpr uint32_t kAllEvents = ORP_UV_READABLE | ORP_UV_WRITABLE | ORP_UV_EXCEPTION;

Status init_io(OrpUvLoop *loop, OrpUvIo *watcher, int fd, ORP_UV_IO_PROC callback);
Status start_io(OrpUvIo *watcher, uint32_t events);
Status stop_io(OrpUvIo *watcher, uint32_t events);
// Closes the descriptor and deletes the watcher.
Status delete_io(OrpUvIo *watcher);
Status force_io(OrpUvIo *watcher, uint32_t events);
void skip_pass(OrpUvLoop *loop, bool on);
OrpUvIo *find_io(OrpUvLoop *loop, int fd);

// Takes away a descriptor that is closed or no longer the watcher's: fd becomes -1, what is armed
// stays armed, and nothing waits for the descriptor until another start arms it.
void take_descriptor_away(OrpUvIo *watcher);

}  // namespace msgapi::uv
