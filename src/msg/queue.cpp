// The pending queue: messages that arrived while a synchronous wait looked for another one.

#include "msg/queue.h"

#include "base/list.h"
#include "msg/context.h"
#include "msg/drop_count.h"
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

void drain_pending_queue() {
  if (g_stMsgCtx.pstQueue == nullptr) return;
  ORP_TRACE_PrintInfo("MsgQueueClearIdleProc", __LINE__, 0, "msg", uv::kTraceLevel,
                      "Clear %u messages in queue now ...", ORP_ListGetCount(g_stMsgCtx.pstQueue));

  // The head is looked up anew each time: a procedure may wait synchronously and add to the queue,
  // drain it itself, or destroy the context.
  uint32_t count = 0;
  while (QueueNode *node = g_stMsgCtx.pstQueue) {
    list_unlink(g_stMsgCtx.pstQueue, node);
    ORP_MSG_FilterProc(node->pstMsg);
    std::free(node->pstMsg);
    std::free(node);
    ++count;
  }
  ORP_TRACE_PrintInfo("MsgQueueClearIdleProc", __LINE__, 0, "msg", uv::kTraceLevel,
                      "Clear %u messages in queue finished.", count);
}

}  // namespace msgapi::msg

using namespace msgapi;
using namespace msgapi::msg;

extern "C" uint32_t ORP_MSG_AppendQueue(ORP_MSG_QUEUE_NODE_ST **head, ORP_MSG_HEADER_ST *message) {
  return ORP_MSG_AppendQueueEx(head, message, 0);
}

extern "C" uint32_t ORP_MSG_AppendQueueEx(ORP_MSG_QUEUE_NODE_ST **head, ORP_MSG_HEADER_ST *message,
                                          ORP_WORD extra) {
  return code(append_to_queue(head, message, extra));
}

extern "C" void ORP_MSG_DestroyQueue(ORP_MSG_QUEUE_NODE_ST **head) {
  if (head != nullptr) destroy_queue(head);
}

extern "C" void ORP_MSG_QueueClear(void) {
  drain_pending_queue();
}
