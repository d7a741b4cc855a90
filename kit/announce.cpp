#include "announce.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "msgapi/kit.h"
#include "msgapi/log.h"

namespace msgkit {
namespace {

constexpr char kServer[] = "";
constexpr size_t kListSize = 4096;  // the longest list that the library announces, and a NUL
constexpr size_t kEntrySize = 128;

// Lists in the order in which entries were made; nothing is removed.
struct Subscription {
  Subscription *link;
  uint32_t event;
};
struct Path {
  Path *link;
  const char *path;
  const ORP_MSG_RESTFUL_ROW_ST *table;
  uint32_t expand;
  bool in_process;  // the library has the table already, and must not get it twice
};
struct Notification {
  Notification *link;
  uint32_t type;
  ORP_NOTIFYCLT_ASYNC_PROC procedure;
  ORP_NOTIFYCLT_SYNC_PROC request_procedure;
};
Subscription *g_subscriptions;
Path *g_paths;
Notification *g_notifications;

template <typename T>
T *append(T **head) {
  auto *record = static_cast<T *>(std::calloc(1, sizeof(T)));
  if (record == nullptr) return nullptr;
  while (*head != nullptr) head = &(*head)->link;
  *head = record;
  return record;
}

template <typename T, typename Matches>
T *find(T *record, Matches matches) {
  while (record != nullptr && !matches(*record)) record = record->link;
  return record;
}

void subscribe(const Subscription &subscription) {
  // A failure means that the connection has ended, which is noticed elsewhere.
  if (subscription.event == ORP_MSG_ALL_EVENTS) {
    (void)ORP_EVT_SubscribeAllEvent();
  } else {
    (void)ORP_MSG_SubscribeEventForOtherApp(subscription.event, g_stMsgCtx.aucAppName);
  }
}

// "path/row|path/row...", as far as it fits: the text that the library announced the first time.
void expand_rows(const Path &path, char (&list)[kListSize]) {
  size_t length = 0;
  list[0] = '\0';
  for (const ORP_MSG_RESTFUL_ROW_ST *row = path.table; row->pcName != nullptr; ++row) {
    char entry[kEntrySize + 1];
    const int size = std::snprintf(entry, sizeof entry, "%s%s/%s", length == 0 ? "" : "|",
                                   path.path, row->pcName);
    if (size < 0 || length + static_cast<size_t>(size) >= kListSize) return;
    std::memcpy(list + length, entry, static_cast<size_t>(size) + 1);
    length += static_cast<size_t>(size);
  }
}

uint32_t serve(Path *path) {
  if (!path->in_process) {
    const uint32_t status = ORP_MSG_RegRestfulProcEx(path->path, path->table, path->expand);
    path->in_process = status == ORP_OK;
    return status;
  }
  char list[kListSize];
  const char *text = path->path;
  if (path->expand != 0) {
    expand_rows(*path, list);
    text = list;
  }
  return ORP_MSG_SendMsgData(kServer, ORP_MSG_RESTFUL_REGISTER, text,
                             static_cast<uint32_t>(std::strlen(text) + 1));
}

void announce(const char *name, Path *path) {
  const uint32_t status = serve(path);
  if (status == ORP_OK) return;
  mlog_print(name, MLOG_LEVEL_ERROR, "The path %s is not served: %s (0x%x): %s.", path->path,
             msgkit_status_name(MSGKIT_STATUS_MESSAGES, status), status,
             msgkit_status_sentence(MSGKIT_STATUS_MESSAGES, status));
}

}  // namespace

void announce_all(const char *name) {
  for (Subscription *each = g_subscriptions; each != nullptr; each = each->link) subscribe(*each);
  for (Path *each = g_paths; each != nullptr; each = each->link) announce(name, each);
}

void register_notifications() {
  for (const Notification *each = g_notifications; each != nullptr; each = each->link) {
    (void)ORP_NOTIFYCLT_RegAsyncMsgProc(each->type, each->procedure);
    (void)ORP_NOTIFYCLT_RegSyncMsgProc(each->type, each->request_procedure);
  }
}

}  // namespace msgkit

using namespace msgkit;

extern "C" uint32_t msgkit_subscribe(uint32_t event, ORP_EVT_CALLBACK callback) {
  if (callback == nullptr || event >> 8 != ORP_MSG_ALL_EVENTS >> 8) return ORP_ERR_ARGUMENT;
  const Subscription *known =
      find(g_subscriptions, [event](const Subscription &each) { return each.event == event; });
  if (known == nullptr) {
    Subscription *subscription = append(&g_subscriptions);
    if (subscription == nullptr) return ORP_ERR_MEMORY;
    subscription->event = event;
    if (msgkit_is_connected(MSGKIT_MESSAGE_SERVER) == 1) subscribe(*subscription);
  }
  if (event == ORP_MSG_ALL_EVENTS) {
    ORP_EVT_SubscribeAllEventCallBack(callback);
  } else {
    ORP_EVT_SubscribeSingelEventCallBack(event, callback);
  }
  return ORP_OK;
}

extern "C" uint32_t msgkit_serve_path(const char *path, const ORP_MSG_RESTFUL_ROW_ST *table,
                                      uint32_t expand) {
  if (path == nullptr || table == nullptr) return ORP_ERR_ARGUMENT;
  Path *record = append(&g_paths);
  if (record == nullptr) return ORP_ERR_MEMORY;
  *record = {nullptr, path, table, expand, false};
  if (msgkit_is_connected(MSGKIT_MESSAGE_SERVER) == 1) announce(g_stMsgCtx.aucAppName, record);
  return ORP_OK;
}

extern "C" uint32_t msgkit_on_notification(uint32_t type, ORP_NOTIFYCLT_ASYNC_PROC procedure,
                                           ORP_NOTIFYCLT_SYNC_PROC requestProcedure) {
  Notification *record =
      find(g_notifications, [type](const Notification &each) { return each.type == type; });
  if (record == nullptr) record = append(&g_notifications);
  if (record == nullptr) return ORP_ERR_MEMORY;
  record->type = type;
  record->procedure = procedure;
  record->request_procedure = requestProcedure;
  register_notifications();
  return ORP_OK;
}
