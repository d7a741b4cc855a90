// Delivery of notify messages: which procedure takes what.

#include <cerrno>
#include <cstdio>

#include "base/list.h"
#include "base/memory.h"
#include "notify/client.h"
#include "notify/connection.h"

namespace msgapi::notify {
namespace {

TypeEntry *find_entry(uint32_t msg_type) {
  TypeEntry *entry = g_client.entries;
  while (entry != nullptr && entry->msg_type != msg_type) entry = entry->link;
  return entry;
}

TypeEntry *find_or_add_entry(uint32_t msg_type) {
  TypeEntry *entry = find_entry(msg_type);
  if (entry != nullptr) return entry;

  entry = make<TypeEntry>(nullptr, msg_type, nullptr, nullptr).release();
  if (entry != nullptr) list_append(g_client.entries, entry);
  return entry;
}

char *data_of(NOTIFY_MSG *message) {
  return reinterpret_cast<char *>(message + 1);
}

void deliver_notification(NOTIFY_MSG *message) {
  char *const data = data_of(message);
  const uint64_t first_end = message->sub_data_len1;
  const uint64_t second_end = first_end + message->sub_data_len2;
  char *const first = message->data_len != 0 && first_end <= message->data_len ? data : nullptr;
  char *const second =
      message->sub_data_len2 != 0 && second_end <= message->data_len ? data + first_end : nullptr;

  const TypeEntry *entry = find_entry(message->msg_type);
  if (entry != nullptr && entry->async != nullptr) {
    entry->async(first, second);
  } else if (g_client.any_async != nullptr) {
    g_client.any_async(message->msg_type, first, second);
  }
}

// A request, or with null `length` and `reply` a reply that nobody waits for.
void call_sync_procedure(NOTIFY_MSG *message, uint32_t *length, void **reply) {
  const TypeEntry *entry = find_entry(message->msg_type);
  if (entry != nullptr && entry->sync != nullptr) {
    entry->sync(data_of(message), length, reply);
  } else if (g_client.any_sync != nullptr) {
    g_client.any_sync(message->msg_type, data_of(message), reply, length);
  }
}

Status deliver_request(NOTIFY_MSG *message) {
  uint32_t length = 0;
  void *reply = nullptr;
  call_sync_procedure(message, &length, &reply);
  const Owned<char> owner(static_cast<char *>(reply));
  if (message->source_id == ORP_NOTIFYCLT_SERVER) return Status::kOk;
  if (length != 0 && reply == nullptr) {
    std::printf("file %s, line %d: memcpy_s failed, err = %d\n", __FILE__, __LINE__, EINVAL);
    return Status::kNoReplyData;
  }

  NOTIFY_MSG head{};
  head.msg_type = message->msg_type;
  head.seq_num = message->seq_num;
  head.source_id = g_client.module_id;
  head.des_id = message->source_id;
  head.sync_tag = 1;
  head.ack_tag = ORP_NOTIFYCLT_REPLY;
  const Owned<NOTIFY_MSG> answer = build_message(head, {owner.get(), length});
  if (!answer) return Status::kNoMemory;
  return send_message(g_client.fd, answer.get());
}

template <typename Procedure>
Status set_procedure(uint32_t msg_type, Procedure TypeEntry::*place, Procedure procedure) {
  TypeEntry *entry = find_or_add_entry(msg_type);
  if (entry == nullptr) return Status::kNoMemory;
  entry->*place = procedure;
  return Status::kOk;
}

}  // namespace

Status deliver(NOTIFY_MSG *message) {
  if (message->sync_tag == 0) {
    deliver_notification(message);
    return Status::kOk;
  }
  if (message->ack_tag == ORP_NOTIFYCLT_REQUEST) return deliver_request(message);
  call_sync_procedure(message, nullptr, nullptr);
  return Status::kOk;
}

}  // namespace msgapi::notify

using namespace msgapi;
using namespace msgapi::notify;

extern "C" uint32_t ORP_NOTIFYCLT_RegSyncMsgProc(uint32_t msgType, ORP_NOTIFYCLT_SYNC_PROC proc) {
  return code(set_procedure(msgType, &TypeEntry::sync, proc));
}

extern "C" uint32_t ORP_NOTIFYCLT_RegAsyncMsgProc(uint32_t msgType, ORP_NOTIFYCLT_ASYNC_PROC proc) {
  return code(set_procedure(msgType, &TypeEntry::async, proc));
}

extern "C" void ORP_NOTIYCLT_RegMsgProc(ORP_NOTIFYCLT_SYNC_ANY_PROC syncProc,
                                        ORP_NOTIFYCLT_ASYNC_ANY_PROC asyncProc) {
  g_client.any_sync = syncProc;
  g_client.any_async = asyncProc;
}

extern "C" uint32_t ORP_NOTIFYCLT_MsgFilterProc(NOTIFY_MSG *message) {
  return message == nullptr ? ORP_NOTIFYCLT_ERR_ARGUMENT : code(deliver(message));
}
