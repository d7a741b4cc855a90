// The connection to the message server: connecting, registering, keep-alive, and what the event
// loop needs to know to read messages from it.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/bytes.h"
#include "base/drop_count.h"
#include "log/client.h"
#include "msg/context.h"
#include "msg/dm_message.h"
#include "msg/exchange.h"
#include "msg/hand_over.h"
#include "msg/header.h"
#include "msg/queue.h"
#include "msg/receive.h"
#include "msg/send.h"
#include "notify/client.h"
#include "orputil.h"
#include "os/fd.h"
#include "uv/default_loop.h"
#include "uv/idle.h"
#include "uv/io.h"
#include "uv/loop.h"
#include "uv/message_watcher.h"
#include "uv/pending.h"
#include "uv/timer.h"
#include "uv/trace_point.h"
#include "uv/watcher.h"

namespace msgapi::msg {
namespace {

constexpr timeval kSlaveSendTimeout = {.tv_sec = 1, .tv_usec = 0};

// ---- Sockets ----

os::UniqueFd open_socket(int family) {
  os::UniqueFd socket(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int on = 1;
  if (socket) ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  return socket;
}

template <typename Address>
bool connect_to(const os::UniqueFd &socket, const Address &address) {
  int result;
  do {
    result = ::connect(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address);
  } while (result != 0 && errno == EINTR);
  return result == 0;
}

os::UniqueFd connect_local() {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  copy_cut(address.sun_path, ORP_MSG_SERVER_PATH);

  os::UniqueFd socket = open_socket(AF_UNIX);
  if (socket && !connect_to(socket, address)) socket.reset();
  return socket;
}

os::UniqueFd connect_remote(const char *host, uint16_t port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);

  os::UniqueFd socket = open_socket(AF_INET);
  if (!socket) return socket;
  ::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &kSlaveSendTimeout, sizeof kSlaveSendTimeout);
  if (::inet_pton(AF_INET, host, &address.sin_addr) != 1) {
    errno = EINVAL;
    socket.reset();
  } else if (!connect_to(socket, address)) {
    socket.reset();
  }
  return socket;
}

// Many daemons only pass the status on, so the reason is logged here.
void log_unreachable(const char *where, int error) {
  const char *meaning = error == EACCES || error == EPERM ? "this user may not use it"
                        : error == ENOENT                 ? "no message server runs here"
                        : error == ECONNREFUSED           ? "the message server has ended"
                                                          : "no connection";
  log::print("msg", MLOG_LEVEL_ERROR,
             "Cannot connect to the message server %s: %s (errno %d): %s.\n", where,
             std::strerror(error), error, meaning);
}

// ---- The message watcher ----

// About the message that the watcher is reading. It reads one at a time, and nothing runs in
// between.
bool g_body_in_file;

uint32_t read_length(Header *header, uint32_t *wants_completion) {
  if (header == nullptr) return 0;
  g_body_in_file = prepare_header(header);
  *wants_completion = g_body_in_file || may_carry_dm(header->ulMsgType) ? 1 : 0;
  uv::MessageTrace(*header).received(receive_board(), g_stMsgCtx.ulFlags);
  return header->ulDataLen;
}

uint32_t answers(const Header *message, uint32_t type, uint32_t sequence) {
  return type_proper(message->ulMsgType) == type_proper(type) && message->ulSeqNum == sequence;
}

uint32_t complete(Header **message) {
  const Status status = g_body_in_file ? complete_hand_over(message) : Status::kOk;
  if (status == Status::kOk && may_carry_dm((*message)->ulMsgType)) hold_to_length(*message);
  return code(status);
}

// What a synchronous wait of another callback in this pass has put aside arrived earlier.
void receive_in_order(OrpUvIo *io, uint32_t event) {
  dispatch_put_aside();
  if (!uv::is_deleted(&io->head) && io->fd >= 0) uv::receive_message(io, event);
}

// Puts the context's socket on the default loop.
bool start_watcher() {
  Owned<OrpUvMsg> watcher = make<OrpUvMsg>();
  if (!watcher) return false;
  watcher->headerSize = ORP_MSG_HEADER_SIZE;
  watcher->lengthProc = read_length;
  watcher->matchProc = answers;
  watcher->completeProc = complete;

  uv::set_take_answer(take_answer_from_queue);
  g_stMsgCtx.pstWatcher = watcher.get();
  (void)uv::init_message_watcher(nullptr, watcher.release(), g_stMsgCtx.slSocket,
                                 ORP_MSG_FilterProc);
  g_stMsgCtx.pstWatcher->io.callback = receive_in_order;
  (void)uv::start_message_watcher(g_stMsgCtx.pstWatcher);
  return true;
}

// ---- What outlives a connection on the loop ----

// The loop keeps idle procedure and timer of an earlier connection of this process.
template <typename T, typename Matches>
T *find_watcher(uint32_t type, Matches matches) {
  for (OrpUvWatcher *watcher = uv::default_loop()->watchers; watcher != nullptr;
       watcher = watcher->link) {
    if (uv::has_type(watcher, type) && !uv::is_deleted(watcher) && matches(uv::as<T>(watcher))) {
      return uv::as<T>(watcher);
    }
  }
  return nullptr;
}

void dispatch_when_idle(OrpUvIdle * /*watcher*/) {
  dispatch_put_aside();
}

void start_idle_dispatch() {
  const auto is_ours = [](const OrpUvIdle *idle) { return idle->proc == dispatch_when_idle; };
  if (find_watcher<OrpUvIdle>(ORP_UV_IDLE, is_ours) == nullptr) {
    (void)uv::start_idle(nullptr, dispatch_when_idle);
  }
}

void send_keep_alive(ORP_WORD /*data*/) {
  (void)send_header(kServer, ORP_MSG_KEEP_ALIVE, 0);
}

// Each registration decides anew: the keep-alive that an earlier one asked for ends.
void stop_keep_alive() {
  const auto is_keep_alive = [](const OrpUvTimer *timer) {
    return timer->callback == send_keep_alive;
  };
  while (OrpUvTimer *earlier = find_watcher<OrpUvTimer>(ORP_UV_TIMER, is_keep_alive)) {
    uv::end_timer(earlier);
  }
}

void start_keep_alive(uint32_t period_s) {
  const uint64_t period_ms = uint64_t{period_s} * 1000;
  (void)uv::add_timer(static_cast<uint32_t>(std::min<uint64_t>(period_ms, UINT32_MAX)), 0,
                      send_keep_alive, 0);
}

// ---- The connection ----

void destroy() {
  if (OrpUvMsg *watcher = running_watcher()) uv::take_descriptor_away(&watcher->io);
  if (g_stMsgCtx.slSocket > 0) ::close(g_stMsgCtx.slSocket);
  g_dropped.queue += ORP_ListGetCount(g_stMsgCtx.pstQueue);
  clear_context();
}

// Destroys a connection that never came into use. Its watcher and the messages that the
// registration put aside go with it: nobody has seen them, and an application that keeps trying
// must not leak memory.
void abandon() {
  OrpUvMsg *watcher = running_watcher();
  destroy_queue(&g_stMsgCtx.pstQueue);
  destroy();
  if (watcher != nullptr) (void)uv::delete_watcher(&watcher->io.head);
}

// Takes over what the server's reply to the registration says.
Status apply_registration(const Header &reply) {
  if (reply.ulMsgData != 0) {
    g_stMsgCtx.ulFlags |= ORP_MSG_CTX_SWAP;
  } else {
    g_stMsgCtx.ulFlags &= ~ORP_MSG_CTX_SWAP;
  }
  set_own_name(destination(reply));

  if (reply.ulDataLen < 2 * sizeof(uint32_t)) return Status::kBadArgument;
  const auto keep_alive = load<uint32_t>(body(&reply));
  const auto period_s = load<uint32_t>(body(&reply) + sizeof(uint32_t));
  stop_keep_alive();
  if (keep_alive != 0) start_keep_alive(period_s);
  return own_name().empty() ? Status::kEmptyName : Status::kOk;
}

Status register_process() {
  Header request = {};
  request.ulMsgType = ORP_MSG_REGISTER;
  copy_cut(request.aucSendApp, own_name());

  const Result<Owned<Header>> reply = exchange(&request, 0);
  return reply ? apply_registration(**reply) : reply.status();
}

enum class Loop { kUsed, kNotUsed };

// What a connection puts on the loop must outlive a synchronous spawn, one of whose callbacks may
// connect: it goes to the process's own loop, not to the spawn's.
class OwnLoopScope {
 public:
  OwnLoopScope() { uv::set_default_loop_override(nullptr); }
  OwnLoopScope(const OwnLoopScope &) = delete;
  OwnLoopScope &operator=(const OwnLoopScope &) = delete;
  ~OwnLoopScope() { uv::set_default_loop_override(override_); }

 private:
  OrpUvLoop *const override_ = uv::default_loop_override();
};

// Returns a code, because it may be one of the notify client's.
uint32_t connect_process(const char *name, Loop loop) {
  if (g_stMsgCtx.slSocket >= 0) return ORP_OK;
  const OwnLoopScope own_loop;
  ::signal(SIGPIPE, SIG_IGN);
  set_own_name(text_or_empty(name));

  g_stMsgCtx.slSocket = connect_local().release();
  if (g_stMsgCtx.slSocket < 0) {
    log_unreachable(ORP_MSG_SERVER_PATH, errno);
    return code(Status::kNoSocket);
  }
  if (loop == Loop::kUsed && !start_watcher()) return code(Status::kNoMemory);

  // A failed registration shows only as a destroyed context; the notify client's status is what the
  // caller gets. Long-standing, and applications rely on it.
  if (register_process() != Status::kOk) abandon();
  const notify::Status notify_status = notify::start_client_named(name);
  if (notify_status != notify::Status::kOk) abandon();
  if (loop == Loop::kUsed) start_idle_dispatch();
  return code(notify_status);
}

Status connect_slave(const char *name, const char *host, uint16_t port) {
  set_own_name(text_or_empty(name));
  os::UniqueFd socket = connect_remote(host, port);
  if (!socket) {
    log_unreachable(host, errno);
    return Status::kNoSocket;
  }

  g_stMsgCtx.slSocket = socket.release();
  set_remote_connection();
  const Status status = register_process();
  if (status != Status::kOk) abandon();
  return status;
}

}  // namespace
}  // namespace msgapi::msg

using namespace msgapi;
using namespace msgapi::msg;

extern "C" uint32_t ORP_MSG_Init(const char *appName) {
  return connect_process(appName, Loop::kUsed);
}

extern "C" uint32_t ORP_MSG_InitWithoutHandle(const char *appName) {
  return connect_process(appName, Loop::kNotUsed);
}

extern "C" uint32_t ORP_MSG_InitSlaveApp(const char *appName, const char *serverAddress,
                                         uint16_t port) {
  return code(serverAddress == nullptr ? Status::kBadArgument
                                       : connect_slave(appName, serverAddress, port));
}

extern "C" void ORP_MSG_Destroy(void) {
  destroy();
}

extern "C" uint32_t ORP_MSG_GetAndDispatch(void) {
  return code(uv::run_loop(uv::default_loop(), 0, uv::RunMode::kNormal));
}
