// The notify client: the process's one connection, the procedures that take its messages, and
// synchronous requests.
//
// A synchronous request reads the connection itself. What arrives before its reply is put aside in
// the block it was read into, which costs no memory and cannot fail, and an idle procedure of the
// loop delivers it.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "base/list.h"
#include "base/text.h"
#include "msgapi/loop.h"
#include "msgapi/notify.h"
#include "msgapi/sockbase.h"
#include "msgapi/trace.h"
#include "notify/connection.h"
#include "notify/modules.h"
#include "orputil.h"
#include "os/wait.h"

namespace msgapi::notify {
namespace {

constexpr uint32_t kReceiveWait_ms = 20000;
constexpr uint32_t kTraceLevel = 8;
constexpr const char *kSocketMode = "775";

// The procedures of one message type.
struct TypeEntry {
  TypeEntry *link;
  uint32_t msg_type;
  ORP_NOTIFYCLT_SYNC_PROC sync;
  ORP_NOTIFYCLT_ASYNC_PROC async;
};
static_assert(sizeof(void *) != 4 || sizeof(TypeEntry) == 16);
static_assert(sizeof(NOTIFY_MSG) == 48);

struct Client {
  uint32_t module_id = 0;
  int fd = -1;
  TypeEntry *entries = nullptr; /* in order of first registration */
  ORP_NOTIFYCLT_SYNC_ANY_PROC any_sync = nullptr;
  ORP_NOTIFYCLT_ASYNC_ANY_PROC any_async = nullptr;
  Received *put_aside = nullptr;
  // What Init gave to the loop. The loop may free them without a word: they are compared and
  // looked up, never followed.
  ORP_UTIL_SOCKBASE_ST *sock_base = nullptr;
  int watched_fd = -1;
  OrpUvIdle *idle = nullptr;
};

constinit Client g_client;
// The process that bound a client socket; its path is removed by no other, such as a child of it.
constinit pid_t g_bound_by = 0;
constinit std::atomic<uint32_t> g_sequence{0};

uint32_t next_sequence() {
  return g_sequence.fetch_add(1) + 1;
}

// ---- Delivery ----

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

uint32_t deliver_request(NOTIFY_MSG *message) {
  uint32_t length = 0;
  void *reply = nullptr;
  call_sync_procedure(message, &length, &reply);
  const Owned<char> owner(static_cast<char *>(reply));
  if (message->source_id == ORP_NOTIFYCLT_SERVER) return ORP_NOTIFYCLT_OK;
  if (length != 0 && reply == nullptr) {
    std::printf("file %s, line %d: memcpy_s failed, err = %d\n", __FILE__, __LINE__, EINVAL);
    return EINVAL;
  }

  NOTIFY_MSG head{};
  head.msg_type = message->msg_type;
  head.seq_num = message->seq_num;
  head.source_id = g_client.module_id;
  head.des_id = message->source_id;
  head.sync_tag = 1;
  head.ack_tag = ORP_NOTIFYCLT_REPLY;
  const Owned<NOTIFY_MSG> answer = build_message(head, {owner.get(), length});
  if (!answer) return ORP_NOTIFYCLT_ERR_MEMORY;
  return send_message(g_client.fd, answer.get());
}

uint32_t deliver(NOTIFY_MSG *message) {
  if (message->sync_tag == 0) {
    deliver_notification(message);
    return ORP_NOTIFYCLT_OK;
  }
  if (message->ack_tag == ORP_NOTIFYCLT_REQUEST) return deliver_request(message);
  call_sync_procedure(message, nullptr, nullptr);
  return ORP_NOTIFYCLT_OK;
}

// ---- The loop's calls ----

void receive_ready(ORP_UTIL_SOCKBASE_ST *sock_base, uint32_t /*event*/) {
  const int fd = g_client.fd;
  if (sock_base != g_client.sock_base || fd < 0) {
    // Left over from a former connection.
    ORP_UTIL_SocketBaseListen(sock_base, ORP_UTIL_SOCKBASE_NONE);
    return;
  }
  // A synchronous request of another callback in this pass may have put messages aside; they come
  // first, in the next iteration. It may also have read what was there, and waiting for more would
  // hold the loop.
  if (g_client.put_aside != nullptr) return;
  if (fd == sock_base->io.fd && os::wait_readable(fd, 0) == os::Readiness::kTimeout) return;

  const Receipt receipt = receive_message(fd, kReceiveWait_ms);
  if (receipt.status == ORP_NOTIFYCLT_ERR_PEER_GONE) {
    // Nothing can come any more, but the descriptor would be ready for ever.
    ORP_UTIL_SocketBaseListen(sock_base, ORP_UTIL_SOCKBASE_NONE);
  }
  if (receipt.message) (void)deliver(&receipt.message->message);
}

void deliver_put_aside(OrpUvIdle *idle) {
  if (idle != g_client.idle) {
    (void)OrpUvIdleStop(idle);
    return;
  }
  // Only what is there now: a procedure may put further messages aside in every call.
  for (uint32_t count = ORP_ListGetCount(g_client.put_aside); count > 0; --count) {
    const Owned<Received> received(g_client.put_aside);
    if (!received) return;  // a procedure destroyed the client
    list_unlink(g_client.put_aside, received.get());
    (void)deliver(&received->message);
  }
}

// ---- The connection ----

// False when the path does not fit, which is then empty.
bool make_client_path(pid_t pid, char (&path)[sizeof(sockaddr_un::sun_path)]) {
  return format_exact(path, ORP_NOTIFYCLT_CLIENT_PATH, static_cast<int>(pid));
}

void remove_client_path() {
  const int saved_errno = errno;
  char path[sizeof(sockaddr_un::sun_path)];
  if (g_bound_by == ::getpid() && make_client_path(g_bound_by, path)) ::unlink(path);
  g_bound_by = 0;
  errno = saved_errno;
}

void close_connection() {
  const int fd = std::exchange(g_client.fd, -1);
  auto *watcher = reinterpret_cast<OrpUvIo *>(g_client.sock_base);
  if (watcher != nullptr &&
      OrpUvIoFindByFd(OrpUvLoopGetDefault(), g_client.watched_fd) == watcher) {
    ORP_UTIL_SocketBaseDelete(g_client.sock_base);  // closes the descriptor
    g_client.sock_base = nullptr;
    if (fd == g_client.watched_fd) return;
  }
  if (fd > 0) ::close(fd);
}

void destroy_client() {
  close_connection();
  remove_client_path();
  list_delete_all(g_client.entries);
  list_delete_all(g_client.put_aside);
  g_client = Client{};  // the idle watcher notices and stops
  g_sequence.store(0);
}

uint32_t post(const NOTIFY_MSG &fields, Bytes first, Bytes second) {
  NOTIFY_MSG head = fields;
  head.seq_num = next_sequence();
  head.source_id = g_client.module_id;
  head.ack_tag = ORP_NOTIFYCLT_REQUEST;
  const Owned<NOTIFY_MSG> message = build_message(head, first, second);
  return message ? send_message(g_client.fd, message.get()) : ORP_NOTIFYCLT_ERR_MEMORY;
}

uint32_t post_values(uint32_t des_id, uint32_t msg_type, uint32_t value1, uint32_t value2) {
  const uint32_t values[] = {value1, value2};
  NOTIFY_MSG head{};
  head.msg_type = msg_type;
  head.des_id = des_id;
  head.sub_data_len1 = sizeof value1;
  head.sub_data_len2 = sizeof value2;
  return post(head, {reinterpret_cast<const char *>(values), sizeof values}, {});
}

// 0, or the code of what went wrong.
uint32_t bind_client_socket(int fd) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (!make_client_path(::getpid(), address.sun_path)) {
    std::printf("file %s, line %d: snprintf_s failed, err = %d\n", "ORP_NOTIFYCLT_Init", __LINE__,
                -1);
    return UINT32_MAX;
  }

  ::unlink(address.sun_path);
  if (::bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
    return ORP_NOTIFYCLT_ERR_SOCKET;
  }
  // Also for a process that ends without ORP_NOTIFYCLT_Destroy.
  static constinit bool removed_at_exit = false;
  if (!removed_at_exit) removed_at_exit = std::atexit(remove_client_path) == 0;
  g_bound_by = ::getpid();
  (void)ORP_UTIL_RemoveAndroidWPerm(address.sun_path, kSocketMode, kSocketMode);
  return ORP_NOTIFYCLT_OK;
}

uint32_t connect_to_server(int fd) {
  sockaddr_un address{.sun_family = AF_UNIX,
                      .sun_path = ORP_NOTIFYCLT_DIRECTORY "/" ORP_NOTIFYCLT_SERVER_NAME};
  int result;
  do {
    result = ::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
  } while (result != 0 && errno == EINTR);
  if (result == 0) return ORP_NOTIFYCLT_OK;

  ORP_TRACE_PrintInfo("ORP_NOTIFYCLT_Init", __LINE__, 0, "notify", kTraceLevel,
                      "connect failed, errno=%d\n", errno);
  return ORP_NOTIFYCLT_ERR_SOCKET;
}

uint32_t register_with_server() {
  const uint32_t status =
      post_values(ORP_NOTIFYCLT_SERVER, ORP_NOTIFYCLT_REGISTER, g_client.module_id, 0);
  if (status == ORP_NOTIFYCLT_OK) return status;

  std::printf("notifyclient: Register to notify server failed %x, pid=%d.\n", status,
              static_cast<int>(::getpid()));
  return ORP_NOTIFYCLT_ERR_PEER_GONE;
}

uint32_t join_loop() {
  const auto data = reinterpret_cast<ORP_WORD>(&g_client);
  if (ORP_UTIL_SockBaseReg(g_client.fd, 0, receive_ready, ORP_UTIL_SOCKBASE_READ, data,
                           &g_client.sock_base) != 0) {
    return ORP_NOTIFYCLT_ERR_MEMORY;
  }
  g_client.watched_fd = g_client.fd;
  g_client.idle = ORP_UV_IdleStart(OrpUvLoopGetDefault(), deliver_put_aside);
  return g_client.idle != nullptr ? ORP_NOTIFYCLT_OK : ORP_NOTIFYCLT_ERR_MEMORY;
}

uint32_t start_client(uint32_t module_id) {
  if (!is_module_id(module_id)) return ORP_NOTIFYCLT_ERR_MODULE;
  if (g_client.fd >= 0) return ORP_NOTIFYCLT_OK;

  close_connection();  // the loop may still watch one that SwitchSock took the descriptor from
  g_client.module_id = module_id;
  g_client.fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (g_client.fd < 0) return ORP_NOTIFYCLT_ERR_SOCKET;
  const int on = 1;
  (void)::setsockopt(g_client.fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);

  uint32_t status = bind_client_socket(g_client.fd);
  if (status == ORP_NOTIFYCLT_OK) status = connect_to_server(g_client.fd);
  if (status == ORP_NOTIFYCLT_OK) status = register_with_server();
  if (status == ORP_NOTIFYCLT_OK) status = join_loop();
  if (status != ORP_NOTIFYCLT_OK) destroy_client();
  return status;
}

// ---- Synchronous requests ----

Receipt wait_for_reply(const NOTIFY_MSG &request) {
  for (;;) {
    Receipt receipt = receive_message(g_client.fd, kReceiveWait_ms);
    if (receipt.status == ORP_NOTIFYCLT_ERR_PEER_GONE) {
      std::printf("error: notify server dead when recv, destory client, my pid=%d!\n",
                  static_cast<int>(::getpid()));
    }
    if (!receipt.message) return receipt;

    const NOTIFY_MSG &message = receipt.message->message;
    ORP_TRACE_PrintInfo(
        "ORP_NOTIFYCLT_SendSynNotify", __LINE__, 0, "notify", kTraceLevel,
        "recv msg_type = %x, seq_num = %x data_len=%x ack_tag=%x, wait for msg_type = %x, "
        "seq_num = %x \n",
        message.msg_type, message.seq_num, message.data_len, message.ack_tag, request.msg_type,
        request.seq_num);
    if (message.msg_type == request.msg_type && message.seq_num == request.seq_num) return receipt;
    list_append(g_client.put_aside, receipt.message.release());
  }
}

// The data in a block of its own.
uint32_t hand_over_data(const Received &reply, void **data_out, uint32_t *length_out) {
  const NOTIFY_MSG &head = reply.message;
  if (data_out != nullptr && head.data_len != 0) {
    // The zero tail comes along.
    const uint32_t size = head.data_len + kZeroTail;
    void *copy = plain_alloc(size);
    if (copy == nullptr) return ORP_NOTIFYCLT_ERR_MEMORY;
    *data_out = std::memcpy(copy, &reply + 1, size);
  }
  if (length_out != nullptr) *length_out = head.data_len;
  return ORP_NOTIFYCLT_OK;
}

uint32_t request_reply(const NOTIFY_MSG &head, Bytes data, void **data_out, uint32_t *length_out) {
  const Owned<NOTIFY_MSG> request = build_message(head, data);
  if (!request) return ORP_NOTIFYCLT_ERR_MEMORY;
  const uint32_t status = send_message(g_client.fd, request.get());
  if (status != ORP_NOTIFYCLT_OK) return status;

  const Receipt reply = wait_for_reply(*request);
  return reply.message ? hand_over_data(*reply.message, data_out, length_out) : reply.status;
}

Bytes item(const void *data, uint32_t length) {
  return data == nullptr ? Bytes() : Bytes(static_cast<const char *>(data), length);
}

}  // namespace
}  // namespace msgapi::notify

using namespace msgapi;
using namespace msgapi::notify;

extern "C" uint32_t ORP_NOTIFYCLT_Init(uint32_t moduleId) {
  return start_client(moduleId);
}

extern "C" uint32_t ORP_NOTIFYCLT_InitByName(const char *name) {
  const uint32_t id = client_id(name);
  return id == 0 ? ORP_NOTIFYCLT_OK : start_client(id);
}

extern "C" void ORP_NOTIFYCLT_Destroy(void) {
  destroy_client();
}

extern "C" void ORP_NOTIFYCLT_SwitchSock(int32_t fd) {
  g_client.fd = fd;
}

extern "C" uint32_t ORP_NOTIFYCLT_RegSyncMsgProc(uint32_t msgType, ORP_NOTIFYCLT_SYNC_PROC proc) {
  TypeEntry *entry = find_or_add_entry(msgType);
  if (entry == nullptr) return ORP_NOTIFYCLT_ERR_MEMORY;
  entry->sync = proc;
  return ORP_NOTIFYCLT_OK;
}

extern "C" uint32_t ORP_NOTIFYCLT_RegAsyncMsgProc(uint32_t msgType, ORP_NOTIFYCLT_ASYNC_PROC proc) {
  TypeEntry *entry = find_or_add_entry(msgType);
  if (entry == nullptr) return ORP_NOTIFYCLT_ERR_MEMORY;
  entry->async = proc;
  return ORP_NOTIFYCLT_OK;
}

extern "C" void ORP_NOTIYCLT_RegMsgProc(ORP_NOTIFYCLT_SYNC_ANY_PROC syncProc,
                                        ORP_NOTIFYCLT_ASYNC_ANY_PROC asyncProc) {
  g_client.any_sync = syncProc;
  g_client.any_async = asyncProc;
}

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
  return request_reply(head, item(data, dataLen), respData, respLen);
}

extern "C" uint32_t ORP_NOTIFYCLT_PostAsynNotify(uint32_t desId, uint32_t msgType,
                                                 const void *data1, uint32_t len1,
                                                 const void *data2, uint32_t len2) {
  const Bytes first = item(data1, len1);
  const Bytes second = item(data2, len2);
  NOTIFY_MSG head{};
  head.msg_type = msgType;
  head.des_id = desId;
  head.sub_data_len1 = static_cast<uint32_t>(first.size());
  head.sub_data_len2 = static_cast<uint32_t>(second.size());
  head.async_flag = 1;
  return post(head, first, second);
}

extern "C" uint32_t ORP_NOTIFYCLT_PostSimpleAsynNotify(uint32_t desId, uint32_t msgType,
                                                       uint32_t value1, uint32_t value2) {
  return post_values(desId, msgType, value1, value2);
}

extern "C" uint32_t ORP_NOTIFYCLT_MsgFilterProc(NOTIFY_MSG *message) {
  return message == nullptr ? ORP_NOTIFYCLT_ERR_ARGUMENT : deliver(message);
}
