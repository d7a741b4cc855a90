// Waits for one response: who points to whom.
//
// The record of a wait has a socket base and a timer, and both lead back to it by their data words.
// The record is the caller's until it ends the wait; the two belong to the loop, which may free
// either first.
#pragma once

#include "msgapi/sockbase.h"

namespace msgapi::uv {

// The watcher is about to be freed: the wait that has it, if any, goes on without it.
void leave_response(OrpUvIo *sock_base);
void leave_response(OrpUvTimer *timer);

}  // namespace msgapi::uv
