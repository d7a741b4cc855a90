// Socket bases, and waits for one response: who points to whom.
//
// The record of a wait points to a socket base and a timer, and their data words point back. The
// record is the caller's until it ends the wait. Socket base and timer belong to the loop, which
// may free either first.
#pragma once

#include "msgapi/sockbase.h"

namespace msgapi::uv {

// ORP_UTIL_SockBaseReg on the default loop; null without memory.
ORP_UTIL_SOCKBASE_ST *register_socket(int fd, ORP_UTIL_SOCKBASE_PROC proc, uint32_t mode,
                                      ORP_WORD data);

// Waits for what `mode` (ORP_UTIL_SOCKBASE_NONE, _READ or _WRITE) says, and for nothing else.
void listen(ORP_UTIL_SOCKBASE_ST *sock_base, uint32_t mode);

// Closes the descriptor.
void delete_socket_base(ORP_UTIL_SOCKBASE_ST *sock_base);

// The watcher is about to be freed: the wait that has it, if any, goes on without it.
void leave_response(OrpUvIo *sock_base);
void leave_response(OrpUvTimer *timer);

}  // namespace msgapi::uv
