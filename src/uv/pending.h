// Pending requests, the entries of message watchers: who may still reach one, and when it goes.
//
// An entry is reached from its watcher's list and from its timer. It is taken away from both before
// its procedure is called, so that nothing the procedure does (run the loop, start the next
// request, delete the watcher) can find it a second time, and it is freed when the procedure has
// returned.
#pragma once

#include "msgapi/loop.h"

namespace msgapi::uv {

// Ends the first of the watcher's entries that `message` answers; false when there is none.
bool answer_pending(OrpUvMsg *watcher, ORP_MSG_HEADER_ST *message);

// Whoever reads messages past their watcher, and keeps them to deliver them later, sets this: an
// entry whose time is over is asked about first. The procedure hands over the message that answers
// the entry, which is freed after its procedure, or null.
using TakeAnswer = ORP_MSG_HEADER_ST *(*)(const OrpUvMsgPending *entry);
void set_take_answer(TakeAnswer procedure);

// The watcher is about to be freed: its entries are left to their timers, and those without a
// time-out (no timer, or one that sleeps) are freed without a call.
void orphan_pending(OrpUvMsg *watcher);

// The timer is about to be freed: the entry that waits for it goes on without a time-out or, with
// its watcher or its loop gone, is freed without a call.
void forget_pending_timer(OrpUvTimer *timer, bool loop_gone);

}  // namespace msgapi::uv
