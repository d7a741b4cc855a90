// Messages put aside: they arrived while a synchronous wait looked for another one.
//
// The wait reads them past the message watcher. Answers to pending requests among them still reach
// their requests: when the queue is dispatched, or earlier, when a request's time is over.

#include "msg/queue.h"

#include "base/drop_count.h"
#include "base/list.h"
#include "msg/context.h"
#include "msg/dispatch.h"
#include "uv/pending.h"
#include "uv/trace_point.h"

namespace msgapi::msg {
namespace {

void release_node(void *record) {
  ++g_dropped.queue;
  std::free(static_cast<QueueNode *>(record)->pstMsg);
}

}  // namespace

Status append_to_queue(QueueNode **head, Header *message, ORP_WORD extra) {
  if (head == nullptr || message == nullptr) return Status::kBadArgument;
  QueueNode *node = make<QueueNode>(nullptr, message, extra).release();
  if (node == nullptr) return Status::kNoMemory;
  list_append(*head, node);
  return Status::kOk;
}

void destroy_queue(QueueNode **head) {
  list_delete_all(*head, release_node);
}

Header *take_answer_from_queue(const OrpUvMsgPending *entry) {
  const OrpUvMsg *watcher = running_watcher();
  if (watcher == nullptr || entry->watcher != watcher || watcher->matchProc == nullptr) {
    return nullptr;
  }
  QueueNode *node = g_stMsgCtx.pstQueue;
  while (node != nullptr && watcher->matchProc(node->pstMsg, entry->key1, entry->key2) == 0) {
    node = node->pstNext;
  }
  if (node == nullptr) return nullptr;

  list_unlink(g_stMsgCtx.pstQueue, node);
  const Owned<QueueNode> owner(node);
  return node->pstMsg;
}

void dispatch_put_aside() {
  if (g_stMsgCtx.pstQueue == nullptr) return;
  ORP_TRACE_PrintInfo("MsgQueueClearIdleProc", __LINE__, 0, "msg", uv::kTraceLevel,
                      "Clear %u messages in queue now ...", ORP_ListGetCount(g_stMsgCtx.pstQueue));

  // The head is looked up anew each time: a procedure may wait synchronously and add to the queue,
  // drain it itself, or destroy the context.
  uint32_t count = 0;
  while (QueueNode *node = g_stMsgCtx.pstQueue) {
    list_unlink(g_stMsgCtx.pstQueue, node);
    const Owned<QueueNode> node_owner(node);
    const Owned<Header> message(node->pstMsg);
    OrpUvMsg *watcher = running_watcher();
    if (watcher == nullptr || !uv::answer_pending(watcher, message.get())) {
      take_in(message.get());
    }
    ++count;
  }
  ORP_TRACE_PrintInfo("MsgQueueClearIdleProc", __LINE__, 0, "msg", uv::kTraceLevel,
                      "Clear %u messages in queue finished.", count);
}

}  // namespace msgapi::msg

using namespace msgapi;
using namespace msgapi::msg;

extern "C" uint32_t ORP_MSG_AppendQueue(ORP_MSG_QUEUE_NODE_ST **head, ORP_MSG_HEADER_ST *message) {
  return code(append_to_queue(head, message, 0));
}

extern "C" uint32_t ORP_MSG_AppendQueueEx(ORP_MSG_QUEUE_NODE_ST **head, ORP_MSG_HEADER_ST *message,
                                          ORP_WORD extra) {
  return code(append_to_queue(head, message, extra));
}

extern "C" void ORP_MSG_DestroyQueue(ORP_MSG_QUEUE_NODE_ST **head) {
  if (head != nullptr) destroy_queue(head);
}

extern "C" void ORP_MSG_QueueClear(void) {
  dispatch_put_aside();
}
