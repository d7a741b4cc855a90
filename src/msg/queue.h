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

// Takes the message that answers the entry of the connection's watcher out of the context's pending
// queue; null when there is none.
Header *take_answer_from_queue(const OrpUvMsgPending *entry);

// Empties the context's pending queue, of what is added meanwhile, too: what answers an
// asynchronous request goes to it, all else is dispatched.
void drain_pending_queue();

}  // namespace msgapi::msg
