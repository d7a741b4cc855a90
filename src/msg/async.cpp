// Asynchronous requests: sent at once, answered through the message watcher's pending entries.

#include "base/list.h"
#include "base/memory.h"
#include "base/status.h"
#include "msg/context.h"
#include "msg/send.h"
#include "uv/timer.h"

namespace msgapi::msg {
namespace {

// Makes the watcher call `callback` with the answer to `request`, which has been sent.
Status await_answer(OrpUvMsg *watcher, const Header &request, uint32_t timeout_ms,
                    ORP_WORD user_data, ORP_MSG_ANSWER_PROC callback) {
  Owned<OrpUvMsgPending> entry = make<OrpUvMsgPending>(nullptr, request.ulMsgType, request.ulSeqNum,
                                                       user_data, callback, watcher, nullptr);
  if (!entry) return Status::kNoMemory;
  entry->timer =
      uv::add_timer(timeout_ms, 1, UvMsgWatcherTimeout, reinterpret_cast<ORP_WORD>(entry.get()));
  if (entry->timer == nullptr) return Status::kNoMemory;

  list_append(watcher->pending, entry.release());
  return Status::kOk;
}

}  // namespace
}  // namespace msgapi::msg

using namespace msgapi;
using namespace msgapi::msg;

extern "C" uint32_t ORP_MSG_AsyncSendAndReceive(ORP_MSG_HEADER_ST *request, uint32_t timeoutMs,
                                                ORP_WORD userData, ORP_MSG_ANSWER_PROC callback) {
  OrpUvMsg *watcher = running_watcher();
  if (request == nullptr || callback == nullptr || watcher == nullptr) return ORP_ERR_ARGUMENT;

  request->ulSeqNum = next_sequence_number();
  const Status sent = send(request);
  return code(sent != Status::kOk ? sent
                                  : await_answer(watcher, *request, timeoutMs, userData, callback));
}
