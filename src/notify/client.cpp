// The notify client's one connection: made by Init, watched by the loop, closed by Destroy; and
// what is posted on it without an answer.

#include "notify/client.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "base/list.h"
#include "base/memory.h"
#include "base/text.h"
#include "notify/modules.h"
#include "orputil.h"
#include "os/wait.h"
#include "uv/default_loop.h"
#include "uv/idle.h"
#include "uv/io.h"
#include "uv/socket_base.h"
#include "uv/trace_point.h"
#include "uv/watcher.h"

namespace msgapi::notify {

constinit Client g_client;

namespace {

constexpr const char *kSocketMode = "775";

static_assert(sizeof(NOTIFY_MSG) == 48);

// The process that bound a client socket; its path is removed by no other, such as a child of it.
constinit pid_t g_bound_by = 0;
constinit std::atomic<uint32_t> g_sequence{0};

// ---- The loop's calls ----

void receive_ready(ORP_UTIL_SOCKBASE_ST *sock_base, uint32_t /*event*/) {
  const int fd = g_client.fd;
  if (sock_base != g_client.sock_base || fd < 0) {
    // Left over from a former connection.
    uv::listen(sock_base, ORP_UTIL_SOCKBASE_NONE);
    return;
  }
  // A synchronous request of another callback in this pass may have put messages aside; they come
  // first, in the next iteration. It may also have read everything, and a wait for more would hold
  // up the loop.
  if (g_client.put_aside != nullptr) return;
  if (fd == sock_base->io.fd && os::wait_readable(fd, 0) == os::Readiness::kTimeout) return;

  const Result<Owned<Received>> received = receive_message(fd, kReceiveWait_ms);
  if (received.status() == Status::kPeerGone) {
    // Nothing more can come, but the descriptor would be ready for ever.
    uv::listen(sock_base, ORP_UTIL_SOCKBASE_NONE);
  }
  if (received) (void)deliver(&(*received)->message);
}

void deliver_put_aside(OrpUvIdle *idle) {
  if (idle != g_client.idle) {
    (void)uv::delete_watcher(&idle->head);
    return;
  }
  // Deliver only what is there now: procedures may put further messages aside.
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
  if (watcher != nullptr && uv::find_io(uv::default_loop(), g_client.watched_fd) == watcher) {
    uv::delete_socket_base(g_client.sock_base);  // closes the descriptor
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

Status post(const NOTIFY_MSG &fields, Bytes first, Bytes second) {
  NOTIFY_MSG head = fields;
  head.seq_num = next_sequence();
  head.source_id = g_client.module_id;
  head.ack_tag = ORP_NOTIFYCLT_REQUEST;
  const Owned<NOTIFY_MSG> message = build_message(head, first, second);
  return message ? send_message(g_client.fd, message.get()) : Status::kNoMemory;
}

Status post_values(uint32_t des_id, uint32_t msg_type, uint32_t value1, uint32_t value2) {
  const uint32_t values[] = {value1, value2};
  NOTIFY_MSG head{};
  head.msg_type = msg_type;
  head.des_id = des_id;
  head.sub_data_len1 = sizeof value1;
  head.sub_data_len2 = sizeof value2;
  return post(head, {reinterpret_cast<const char *>(values), sizeof values}, {});
}

Status bind_client_socket(int fd) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (!make_client_path(::getpid(), address.sun_path)) {
    std::printf("file %s, line %d: snprintf_s failed, err = %d\n", "ORP_NOTIFYCLT_Init", __LINE__,
                -1);
    return Status::kPathTooLong;
  }

  ::unlink(address.sun_path);
  if (::bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
    return Status::kNoSocket;
  }
  // Also for a process that ends without ORP_NOTIFYCLT_Destroy.
  static constinit bool removed_at_exit = false;
  if (!removed_at_exit) removed_at_exit = std::atexit(remove_client_path) == 0;
  g_bound_by = ::getpid();
  (void)ORP_UTIL_RemoveAndroidWPerm(address.sun_path, kSocketMode, kSocketMode);
  return Status::kOk;
}

Status connect_to_server(int fd) {
  sockaddr_un address{.sun_family = AF_UNIX,
                      .sun_path = ORP_NOTIFYCLT_DIRECTORY "/" ORP_NOTIFYCLT_SERVER_NAME};
  int result;
  do {
    result = ::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
  } while (result != 0 && errno == EINTR);
  if (result == 0) return Status::kOk;

  ORP_TRACE_PrintInfo("ORP_NOTIFYCLT_Init", __LINE__, 0, "notify", uv::kTraceLevel,
                      "connect failed, errno=%d\n", errno);
  return Status::kNoSocket;
}

Status register_with_server() {
  const Status status =
      post_values(ORP_NOTIFYCLT_SERVER, ORP_NOTIFYCLT_REGISTER, g_client.module_id, 0);
  if (status == Status::kOk) return status;

  std::printf("notifyclient: Register to notify server failed %x, pid=%d.\n", code(status),
              static_cast<int>(::getpid()));
  return Status::kPeerGone;
}

Status join_loop() {
  const auto data = reinterpret_cast<ORP_WORD>(&g_client);
  g_client.sock_base =
      uv::register_socket(g_client.fd, receive_ready, ORP_UTIL_SOCKBASE_READ, data);
  if (g_client.sock_base == nullptr) return Status::kNoMemory;
  g_client.watched_fd = g_client.fd;
  g_client.idle = uv::start_idle(uv::default_loop(), deliver_put_aside);
  return g_client.idle != nullptr ? Status::kOk : Status::kNoMemory;
}

Status start_client(uint32_t module_id) {
  if (!is_module_id(module_id)) return Status::kBadModule;
  if (g_client.fd >= 0) return Status::kOk;

  close_connection();  // the loop may still watch one that SwitchSock took the descriptor from
  g_client.module_id = module_id;
  g_client.fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (g_client.fd < 0) return Status::kNoSocket;
  const int on = 1;
  (void)::setsockopt(g_client.fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);

  Status status = bind_client_socket(g_client.fd);
  if (status == Status::kOk) status = connect_to_server(g_client.fd);
  if (status == Status::kOk) status = register_with_server();
  if (status == Status::kOk) status = join_loop();
  if (status != Status::kOk) destroy_client();
  return status;
}

}  // namespace

uint32_t next_sequence() {
  return g_sequence.fetch_add(1) + 1;
}

Status start_client_named(const char *name) {
  const uint32_t id = client_id(name);
  return id == 0 ? Status::kOk : start_client(id);
}

}  // namespace msgapi::notify

using namespace msgapi;
using namespace msgapi::notify;

extern "C" uint32_t ORP_NOTIFYCLT_Init(uint32_t moduleId) {
  return code(start_client(moduleId));
}

extern "C" uint32_t ORP_NOTIFYCLT_InitByName(const char *name) {
  return code(start_client_named(name));
}

extern "C" void ORP_NOTIFYCLT_Destroy(void) {
  destroy_client();
}

extern "C" void ORP_NOTIFYCLT_SwitchSock(int32_t fd) {
  g_client.fd = fd;
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
  return code(post(head, first, second));
}

extern "C" uint32_t ORP_NOTIFYCLT_PostSimpleAsynNotify(uint32_t desId, uint32_t msgType,
                                                       uint32_t value1, uint32_t value2) {
  return code(post_values(desId, msgType, value1, value2));
}
