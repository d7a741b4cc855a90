// Pending requests, the entries of message watchers: who can reach one, and when it is freed.
//
// An entry is reached from its watcher's list and from its timer. Both let go of it before its
// procedure is called, so nothing that the procedure does (run the loop, start the next request,
// delete the watcher) can find it a second time. It is freed when the procedure has returned.
#pragma once

#include "msgapi/loop.h"

namespace msgapi::uv {

// Ends the first of the watcher's entries that `message` answers; false when there is none.
bool answer_pending(OrpUvMsg *watcher, ORP_MSG_HEADER_ST *message);

// Set by code that reads messages past their watcher and delivers them later. It is asked before an
// entry times out. It hands over the message that answers the entry, or null; the message is freed
// after the entry's procedure.
using TakeAnswer = ORP_MSG_HEADER_ST *(*)(const OrpUvMsgPending *entry);
void set_take_answer(TakeAnswer procedure);

// The watcher is about to be freed: its entries are left to their timers, and those without a
// time-out (no timer, or one that sleeps) are freed without a call.
void orphan_pending(OrpUvMsg *watcher);

// The timer is about to be freed: the entry that waits for it goes on without a time-out or, with
// its watcher or its loop gone, is freed without a call.
void forget_pending_timer(OrpUvTimer *timer, bool loop_gone);

}  // namespace msgapi::uv
