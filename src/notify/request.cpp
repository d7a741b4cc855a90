// Synchronous notify requests.
//
// A request reads the connection itself. A message that arrives before the reply is put aside in
// the block into which it was read; that needs no memory and cannot fail. An idle procedure of the
// loop delivers it.

#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "base/list.h"
#include "base/memory.h"
#include "notify/client.h"
#include "notify/connection.h"
#include "uv/default_loop.h"
#include "uv/trace_point.h"
#include "uv/watcher.h"

namespace msgapi::notify {
namespace {

Result<Owned<Received>> wait_for_reply(const NOTIFY_MSG &request) {
  for (;;) {
    Result<Owned<Received>> received = receive_message(g_client.fd, kReceiveWait_ms);
    if (received.status() == Status::kPeerGone) {
      std::printf("error: notify server dead when recv, destory client, my pid=%d!\n",
                  static_cast<int>(::getpid()));
    }
    if (!received) return received.status();

    const NOTIFY_MSG &message = (*received)->message;
    ORP_TRACE_PrintInfo(
        "ORP_NOTIFYCLT_SendSynNotify", __LINE__, 0, "notify", uv::kTraceLevel,
        "recv msg_type = %x, seq_num = %x data_len=%x ack_tag=%x, wait for msg_type = %x, "
        "seq_num = %x \n",
        message.msg_type, message.seq_num, message.data_len, message.ack_tag, request.msg_type,
        request.seq_num);
    if (message.msg_type == request.msg_type && message.seq_num == request.seq_num) return received;
    list_append(g_client.put_aside, received->release());
    uv::skip_wait(uv::own_default_loop());
  }
}

// The data in a block of its own.
Status hand_over_data(const Received &reply, void **data_out, uint32_t *length_out) {
  const NOTIFY_MSG &head = reply.message;
  if (data_out != nullptr && head.data_len != 0) {
    // The zero tail comes along.
    const uint32_t size = head.data_len + kZeroTail;
    void *copy = plain_alloc(size);
    if (copy == nullptr) return Status::kNoMemory;
    *data_out = std::memcpy(copy, &reply + 1, size);
  }
  if (length_out != nullptr) *length_out = head.data_len;
  return Status::kOk;
}

Status request_reply(const NOTIFY_MSG &head, Bytes data, void **data_out, uint32_t *length_out) {
  const Owned<NOTIFY_MSG> request = build_message(head, data);
  if (!request) return Status::kNoMemory;
  const Status status = send_message(g_client.fd, request.get());
  if (status != Status::kOk) return status;

  const Result<Owned<Received>> reply = wait_for_reply(*request);
  return reply ? hand_over_data(**reply, data_out, length_out) : reply.status();
}

}  // namespace
}  // namespace msgapi::notify

using namespace msgapi;
using namespace msgapi::notify;

extern "C" uint32_t ORP_NOTIFYCLT_SendSynNotify(uint32_t desId, uint32_t msgType, const void *data,
                                                uint32_t dataLen, void **respData,
                                                uint32_t *respLen, const uint32_t *syncArg) {
  if (respData != nullptr) *respData = nullptr;
  if (respLen != nullptr) *respLen = 0;
  if (data == nullptr && dataLen != 0) return ORP_NOTIFYCLT_ERR_ARGUMENT;

  NOTIFY_MSG head{};
  head.msg_type = msgType;
  head.seq_num = next_sequence();
  head.source_id = g_client.module_id;
  head.des_id = desId;
  head.sync_tag = 1;
  head.ack_tag = ORP_NOTIFYCLT_REQUEST;
  head.sync_arg = syncArg == nullptr ? 0 : *syncArg;
  return code(request_reply(head, item(data, dataLen), respData, respLen));
}
