// Message watchers.
#pragma once

#include "base/status.h"
#include "msgapi/loop.h"

namespace msgapi::uv {

// OrpUvMsgInit and OrpUvMsgStart.
Status init_message_watcher(OrpUvLoop *loop, OrpUvMsg *watcher, int fd, ORP_UV_MSG_PROC msg_proc);
Status start_message_watcher(OrpUvMsg *watcher);

// Their I/O callback: takes one message, if it can be read.
void receive_message(OrpUvIo *watcher, uint32_t event);

}  // namespace msgapi::uv
