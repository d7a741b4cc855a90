// Queues of messages that were put aside.
#pragma once

#include "base/status.h"
#include "msg/header.h"

namespace msgapi::msg {

using QueueNode = ORP_MSG_QUEUE_NODE_ST;

// Appends the message, which belongs to the queue only after kOk.
Status append_to_queue(QueueNode **head, Header *message, ORP_WORD extra);

// Frees the nodes with their messages, and counts these as dropped.
void destroy_queue(QueueNode **head);

// Dispatches what is in the context's pending queue, and what is added meanwhile.
void drain_pending_queue();

}  // namespace msgapi::msg
