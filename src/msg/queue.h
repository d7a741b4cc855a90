// Queues of messages that were put aside.
#pragma once

#include "base/status.h"
#include "msg/header.h"
#include "msgapi/loop.h"

namespace msgapi::msg {

using QueueNode = ORP_MSG_QUEUE_NODE_ST;

// Appends the message, which belongs to the queue only after kOk.
Status append_to_queue(QueueNode **head, Header *message, ORP_WORD extra);

// Frees the nodes with their messages, and counts these as dropped.
void destroy_queue(QueueNode **head);

// Takes out of the queue of messages put aside the one that answers `entry`, a pending request of
// the connection's watcher; null when there is none.
Header *take_answer_from_queue(const OrpUvMsgPending *entry);

// Dispatches the messages put aside, and those that are added meanwhile. An answer to a pending
// request goes to that request.
void dispatch_put_aside();

}  // namespace msgapi::msg
