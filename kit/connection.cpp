// Staying connected.
//
// Both connections are in one epoll set that asks only for their ends, and the loop watches the
// set's descriptor. So messages do not wake it. What arrived before an end is read first: the end
// counts when nothing is left to read.

#include <sys/epoll.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "announce.h"
#include "msgapi/kit.h"
#include "msgapi/log.h"
#include "msgapi/loop.h"
#include "msgapi/sockbase.h"

namespace msgkit {
namespace {

constexpr uint32_t kFirstDelay_ms = 50;
constexpr uint32_t kLongestDelay_ms = 2000;
constexpr uint32_t kServers = 2;
constexpr uint32_t kSendBoard = 7u << ORP_MSG_CTX_SEND_BOARD_SHIFT;

constexpr const char *kServerNames[kServers] = {"message server", "notify server"};

struct Link {
  int fd;  // in the epoll set; -1 while there is no connection
  uint32_t failures;
  OrpUvTimer *timer;  // of the next attempt
};

// What the library clears when a connection ends.
struct Context {
  ORP_MSG_PROC procedure;
  uint32_t sequence;
  uint32_t trace;
  uint32_t board;
};

char g_name[ORP_APP_NAME_SIZE];  // empty: no connection is kept
MSGKIT_CHANGED_PROC g_changed;
Link g_links[kServers] = {{-1, 0, nullptr}, {-1, 0, nullptr}};
Context g_context;
int g_epoll = -1;
ORP_UTIL_SOCKBASE_ST *g_sock_base;

// ---- What the message context loses ----

void save_context() {
  g_context = {g_stMsgCtx.pfMsgProc, g_stMsgCtx.ulSeqNum, g_stMsgCtx.ulTraceEnabled,
               g_stMsgCtx.ulFlags & kSendBoard};
}

// Sequence numbers go on: an answer to an old request must not fit a new one.
void restore_context() {
  g_stMsgCtx.pfMsgProc = g_context.procedure;
  g_stMsgCtx.ulSeqNum = g_context.sequence;
  g_stMsgCtx.ulTraceEnabled = g_context.trace;
  g_stMsgCtx.ulFlags = (g_stMsgCtx.ulFlags & ~kSendBoard) | g_context.board;
}

// The loop may have freed the watcher unnoticed.
void check_watcher(OrpUvWatcher *watcher, ORP_WORD argument) {
  auto *wanted = reinterpret_cast<OrpUvMsg **>(argument);
  const bool found = reinterpret_cast<OrpUvMsg *>(watcher) == g_stMsgCtx.pstWatcher;
  if (found && (watcher->status & ORP_UV_DELETED) == 0) *wanted = g_stMsgCtx.pstWatcher;
}

// Destroys the connection and its watcher, which the library leaves in the loop, and ends the
// pending requests, because their answers can no longer come.
void destroy_messages() {
  OrpUvMsg *watcher = nullptr;
  if (g_stMsgCtx.pstWatcher != nullptr) {
    (void)OrpUvWatcherIterateItem(nullptr, reinterpret_cast<ORP_WORD>(&watcher), check_watcher);
  }
  ORP_MSG_Destroy();
  if (watcher == nullptr) return;
  // A procedure cannot add to these: there is no connection.
  while (watcher->pending != nullptr) {
    UvMsgWatcherTimeout(reinterpret_cast<ORP_WORD>(watcher->pending));
  }
  (void)OrpUvMsgDelete(watcher);
}

// ---- Noticing the end ----

bool watch_end(uint32_t server, int fd) {
  epoll_event event = {};
  event.events = EPOLLRDHUP;
  event.data.u32 = server;
  if (::epoll_ctl(g_epoll, EPOLL_CTL_ADD, fd, &event) != 0) return false;
  g_links[server].fd = fd;
  return true;
}

void unwatch_end(uint32_t server) {
  const int fd = std::exchange(g_links[server].fd, -1);
  if (fd >= 0) (void)::epoll_ctl(g_epoll, EPOLL_CTL_DEL, fd, nullptr);
}

// The loop reads what is left, one message in each iteration, unless the descriptor does not fit
// its sets.
bool has_unread(int fd) {
  char byte;
  return fd<ORP_UV_MAX_DESCRIPTORS && ::recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT)> 0;
}

void find_notify_connection(OrpUvWatcher *watcher, ORP_WORD argument) {
  if ((watcher->status & ORP_UV_SOCKBASE) == 0 || (watcher->status & ORP_UV_DELETED) != 0) return;
  const int fd = reinterpret_cast<OrpUvIo *>(watcher)->fd;
  constexpr char kPath[] = ORP_NOTIFYCLT_DIRECTORY "/" ORP_NOTIFYCLT_SERVER_NAME;
  sockaddr_un address = {};
  socklen_t size = sizeof address;
  if (fd < 0 || ::getpeername(fd, reinterpret_cast<sockaddr *>(&address), &size) != 0) return;
  if (address.sun_family != AF_UNIX) return;
  if (std::strncmp(address.sun_path, kPath, sizeof address.sun_path) != 0) return;
  *reinterpret_cast<int *>(argument) = fd;
}

// ---- Attempts ----

// Many daemons lose the same server at the same moment; they must not all come back at once.
uint32_t delay_ms(uint32_t failures) {
  const uint32_t longest =
      failures > 5 ? kLongestDelay_ms : std::min(kFirstDelay_ms << failures, kLongestDelay_ms);
  uint32_t random = 0;
  if (::getrandom(&random, sizeof random, GRND_NONBLOCK) < 0) random = g_stMsgCtx.ulSeqNum;
  return longest - random % (longest / 2 + 1);
}

void attempt(ORP_WORD server);

void try_later(uint32_t server) {
  Link &link = g_links[server];
  if (link.timer != nullptr) return;
  link.timer = ORP_TIMER_AddWithName(delay_ms(link.failures), 1, attempt, "reconnect", server);
  ++link.failures;
  if (link.timer == nullptr) {
    mlog_print(g_name, MLOG_LEVEL_FATAL, "No memory to try the %s again.", kServerNames[server]);
  }
}

void report(uint32_t server, uint32_t connected) {
  Link &link = g_links[server];
  if (connected != 0) {
    mlog_print(g_name, MLOG_LEVEL_INFO, "Connected to the %s.", kServerNames[server]);
    link.failures = 0;
  } else {
    mlog_print(g_name, MLOG_LEVEL_WARN, "The connection to the %s has ended; trying again.",
               kServerNames[server]);
  }
  if (g_changed != nullptr) g_changed(server, connected);
}

// Keeps the notify client's connection, when there is one and it is not known yet.
void keep_notifications() {
  Link &link = g_links[MSGKIT_NOTIFY_SERVER];
  int fd = -1;
  if (link.fd >= 0 || link.timer != nullptr) return;
  (void)OrpUvWatcherIterateItem(nullptr, reinterpret_cast<ORP_WORD>(&fd), find_notify_connection);
  if (fd < 0) return;
  if (watch_end(MSGKIT_NOTIFY_SERVER, fd)) {
    report(MSGKIT_NOTIFY_SERVER, 1);
  } else {
    try_later(MSGKIT_NOTIFY_SERVER);
  }
}

void connect_notifications() {
  ORP_NOTIFYCLT_Destroy();
  register_notifications();
  if (ORP_NOTIFYCLT_InitByName(g_name) == ORP_NOTIFYCLT_OK) {
    keep_notifications();
  } else {
    try_later(MSGKIT_NOTIFY_SERVER);
  }
}

void connect_messages() {
  save_context();
  register_notifications();
  const uint32_t status = ORP_MSG_Init(g_name);
  if (status != ORP_OK || g_stMsgCtx.slSocket < 0 ||
      !watch_end(MSGKIT_MESSAGE_SERVER, g_stMsgCtx.slSocket)) {
    destroy_messages();
    restore_context();
    try_later(MSGKIT_MESSAGE_SERVER);
    return;
  }
  announce_all(g_name);
  report(MSGKIT_MESSAGE_SERVER, 1);
  if (g_name[0] != '\0') keep_notifications();
}

void attempt(ORP_WORD server) {
  g_links[server].timer = nullptr;  // it has fired its only time
  if (server == MSGKIT_MESSAGE_SERVER) {
    connect_messages();
  } else {
    connect_notifications();
  }
}

// ---- The end of a connection ----

void lose_messages() {
  unwatch_end(MSGKIT_MESSAGE_SERVER);
  ORP_MSG_QueueClear();           // what a synchronous wait put aside came before the end
  if (g_name[0] == '\0') return;  // a procedure has disconnected
  save_context();
  destroy_messages();
  restore_context();
  if (g_name[0] == '\0') return;  // the procedure of a request has
  try_later(MSGKIT_MESSAGE_SERVER);
  report(MSGKIT_MESSAGE_SERVER, 0);
}

// The next attempt destroys the notify client; until then the loop delivers what a synchronous
// request put aside.
void lose_notifications() {
  unwatch_end(MSGKIT_NOTIFY_SERVER);
  try_later(MSGKIT_NOTIFY_SERVER);
  report(MSGKIT_NOTIFY_SERVER, 0);
}

void notice(ORP_UTIL_SOCKBASE_ST * /*sock_base*/, uint32_t /*event*/) {
  epoll_event events[kServers];
  const int count = ::epoll_wait(g_epoll, events, kServers, 0);
  for (int i = 0; i < count; ++i) {
    const uint32_t server = events[i].data.u32;
    const int fd = g_links[server].fd;
    if (g_name[0] == '\0' || fd < 0 || has_unread(fd)) continue;
    if (server == MSGKIT_MESSAGE_SERVER) {
      lose_messages();
    } else {
      lose_notifications();
    }
  }
}

uint32_t open_epoll() {
  g_epoll = ::epoll_create1(EPOLL_CLOEXEC);
  if (g_epoll < 0) return ORP_ERR_SYSTEM;
  uint32_t status = ORP_ERR_SYSTEM;
  if (g_epoll < ORP_UV_MAX_DESCRIPTORS) {
    g_sock_base = ORP_UTIL_SockBaseRegNew(g_epoll, 0, notice, ORP_UTIL_SOCKBASE_READ, 0);
    if (g_sock_base != nullptr) return ORP_OK;
    status = ORP_ERR_MEMORY;
  }
  ::close(std::exchange(g_epoll, -1));
  return status;
}

uint32_t stay_connected(const char *name, MSGKIT_CHANGED_PROC changed) {
  const uint32_t status = open_epoll();
  if (status != ORP_OK) return status;

  std::strncpy(g_name, name, sizeof g_name - 1);
  g_changed = changed;
  if (g_stMsgCtx.pfMsgProc == nullptr) g_stMsgCtx.pfMsgProc = ORP_MSG_DefaultMsgProc;
  connect_messages();
  return ORP_OK;
}

void disconnect() {
  if (g_name[0] == '\0') return;
  g_name[0] = '\0';
  for (uint32_t server = 0; server < kServers; ++server) {
    OrpTimerSafeDel(&g_links[server].timer);
    g_links[server].failures = 0;
    unwatch_end(server);
  }
  ORP_UTIL_SocketBaseDelete(std::exchange(g_sock_base, nullptr));  // closes the descriptor
  g_epoll = -1;
  save_context();
  destroy_messages();
  restore_context();
  ORP_NOTIFYCLT_Destroy();
}

}  // namespace

}  // namespace msgkit

using namespace msgkit;

extern "C" uint32_t msgkit_stay_connected(const char *name, MSGKIT_CHANGED_PROC changed) {
  if (name == nullptr || g_name[0] != '\0') return ORP_ERR_ARGUMENT;
  const size_t length = ::strnlen(name, ORP_APP_NAME_SIZE);
  if (length == 0 || length >= ORP_APP_NAME_SIZE) return ORP_ERR_ARGUMENT;
  return stay_connected(name, changed);
}

extern "C" void msgkit_disconnect(void) {
  disconnect();
}

extern "C" uint32_t msgkit_is_connected(uint32_t server) {
  return server < kServers && g_links[server].fd >= 0 ? 1 : 0;
}
