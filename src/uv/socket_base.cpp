// Socket bases: the descriptor-oriented face of I/O watchers on the default loop.

#include "uv/socket_base.h"

#include "base/memory.h"
#include "base/status.h"
#include "uv/default_loop.h"
#include "uv/io.h"
#include "uv/timer.h"
#include "uv/watcher.h"

namespace msgapi::uv {
namespace {

static_assert(sizeof(void *) != 4 || sizeof(ORP_UTIL_SOCKBASE_ST) == 32);
static_assert(sizeof(void *) != 4 || sizeof(ORP_UTIL_SOCK_RESP_ST) == 20);

OrpUvIo *io_of(ORP_UTIL_SOCKBASE_ST *sock_base) {
  return sock_base == nullptr ? nullptr : &sock_base->io;
}

void call_procedure(OrpUvIo *watcher, uint32_t event) {
  auto *sock_base = reinterpret_cast<ORP_UTIL_SOCKBASE_ST *>(watcher);
  if (sock_base->proc != nullptr) sock_base->proc(sock_base, event);
}

// Cuts the connection from both sides.
void disconnect_timer(ORP_UTIL_SOCK_RESP_ST *response) {
  end_timer(response->timer);
  response->timer = nullptr;
}

void disconnect_socket_base(ORP_UTIL_SOCK_RESP_ST *response) {
  if (response->sockBase != nullptr) response->sockBase->io.head.status &= ~kResponseWait;
  response->sockBase = nullptr;
}

void response_timed_out(ORP_WORD data) {
  auto *response = reinterpret_cast<ORP_UTIL_SOCK_RESP_ST *>(data);
  disconnect_timer(response);
  response->timedOut = 1;
  ORP_UTIL_SOCKBASE_ST *sock_base = response->sockBase;
  if (sock_base == nullptr || is_deleted(&sock_base->io.head)) return;
  // The procedure tells a time-out by timedOut; the event means nothing.
  call_procedure(&sock_base->io, 0);
}

// Undoes a registration; the descriptor stays the caller's.
void give_back(ORP_UTIL_SOCKBASE_ST *sock_base) {
  (void)stop_io(&sock_base->io, kAllEvents);
  sock_base->io.fd = -1;
  (void)delete_watcher(&sock_base->io.head);
}

ORP_UTIL_SOCK_RESP_ST *wait_for_response(int fd, uint32_t timeout_ms, ORP_WORD user_value,
                                         ORP_UTIL_SOCKBASE_PROC proc) {
  Owned<ORP_UTIL_SOCK_RESP_ST> created = make<ORP_UTIL_SOCK_RESP_ST>();
  if (!created) return nullptr;
  const auto data = reinterpret_cast<ORP_WORD>(created.get());
  created->userValue = user_value;
  created->sockBase = register_socket(fd, proc, ORP_UTIL_SOCKBASE_READ, data);
  if (created->sockBase == nullptr) return nullptr;
  created->timer = add_timer(timeout_ms, 1, response_timed_out, data);
  if (created->timer == nullptr) {
    give_back(created->sockBase);
    return nullptr;
  }
  created->sockBase->io.head.status |= kResponseWait;
  return created.release();
}

void end_response(ORP_UTIL_SOCK_RESP_ST *response) {
  ORP_UTIL_SOCKBASE_ST *sock_base = response->sockBase;
  disconnect_timer(response);
  disconnect_socket_base(response);
  delete_socket_base(sock_base);
  std::free(response);
}

}  // namespace

void listen(ORP_UTIL_SOCKBASE_ST *sock_base, uint32_t mode) {
  if (sock_base == nullptr || sock_base->io.fd < 0) return;

  (void)stop_io(&sock_base->io, kAllEvents);
  if (mode == ORP_UTIL_SOCKBASE_READ) (void)start_io(&sock_base->io, ORP_UV_READABLE);
  if (mode == ORP_UTIL_SOCKBASE_WRITE) (void)start_io(&sock_base->io, ORP_UV_WRITABLE);
}

ORP_UTIL_SOCKBASE_ST *register_socket(int fd, ORP_UTIL_SOCKBASE_PROC proc, uint32_t mode,
                                      ORP_WORD data) {
  Owned<ORP_UTIL_SOCKBASE_ST> created = make<ORP_UTIL_SOCKBASE_ST>();
  if (!created || init_io(default_loop(), &created->io, fd, call_procedure) != Status::kOk) {
    return nullptr;
  }

  ORP_UTIL_SOCKBASE_ST *sock_base = created.release();
  sock_base->proc = proc;
  sock_base->io.head.data = data;
  sock_base->io.head.status |= ORP_UV_SOCKBASE;
  switch (mode) {
    case ORP_UTIL_SOCKBASE_NONE:
    case ORP_UTIL_SOCKBASE_READ:
      // Mode 0 arms and disarms again, which leaves a started watcher.
      (void)start_io(&sock_base->io, ORP_UV_READABLE);
      listen(sock_base, mode);
      break;
    case ORP_UTIL_SOCKBASE_WRITE:
      (void)start_io(&sock_base->io, ORP_UV_WRITABLE);
      break;
    default:
      (void)start_io(&sock_base->io, ORP_UV_EXCEPTION);
  }
  return sock_base;
}

void delete_socket_base(ORP_UTIL_SOCKBASE_ST *sock_base) {
  if (sock_base == nullptr) return;

  listen(sock_base, ORP_UTIL_SOCKBASE_NONE);
  if (sock_base->io.head.loop != nullptr) skip_pass(sock_base->io.head.loop, true);
  (void)delete_io(&sock_base->io);
}

void leave_response(OrpUvIo *sock_base) {
  if ((sock_base->head.status & kResponseWait) == 0) return;
  disconnect_socket_base(reinterpret_cast<ORP_UTIL_SOCK_RESP_ST *>(sock_base->head.data));
}

// An ended timer has another callback: its data word no longer leads to a wait.
void leave_response(OrpUvTimer *timer) {
  if (timer->callback != response_timed_out) return;
  reinterpret_cast<ORP_UTIL_SOCK_RESP_ST *>(timer->head.data)->timer = nullptr;
}

}  // namespace msgapi::uv

using namespace msgapi;
using namespace msgapi::uv;

extern "C" ORP_UTIL_SOCKBASE_ST *ORP_UTIL_SockBaseRegNew(int32_t fd, ORP_WORD /*ignored*/,
                                                         ORP_UTIL_SOCKBASE_PROC proc, uint32_t mode,
                                                         ORP_WORD data) {
  return register_socket(fd, proc, mode, data);
}

extern "C" uint32_t ORP_UTIL_SockBaseReg(int32_t fd, ORP_WORD /*ignored*/,
                                         ORP_UTIL_SOCKBASE_PROC proc, uint32_t mode, ORP_WORD data,
                                         ORP_UTIL_SOCKBASE_ST **sockBaseOut) {
  ORP_UTIL_SOCKBASE_ST *sock_base = register_socket(fd, proc, mode, data);
  if (sockBaseOut != nullptr) *sockBaseOut = sock_base;
  return code(sock_base != nullptr ? Status::kOk : Status::kBadArgument);
}

extern "C" void ORP_UTIL_SocketBaseListen(ORP_UTIL_SOCKBASE_ST *sockBase, uint32_t mode) {
  listen(sockBase, mode);
}

extern "C" uint32_t ORP_UTIL_SetWriteFd(ORP_UTIL_SOCKBASE_ST *sockBase) {
  return code(start_io(io_of(sockBase), ORP_UV_WRITABLE));
}

extern "C" uint32_t ORP_UTIL_ClearWriteFd(ORP_UTIL_SOCKBASE_ST *sockBase) {
  return code(stop_io(io_of(sockBase), ORP_UV_WRITABLE));
}

extern "C" uint32_t ORP_UTIL_SocketBaseForceLoop(ORP_UTIL_SOCKBASE_ST *sockBase) {
  if (sockBase == nullptr) return code(Status::kBadArgument);
  if (sockBase->io.fd < 0) return code(Status::kOk);

  return code(force_io(&sockBase->io, ORP_UV_READABLE));
}

extern "C" void ORP_UTIL_SocketBaseDirectDo(ORP_UTIL_SOCKBASE_ST *sockBase) {
  (void)force_io(io_of(sockBase), ORP_UV_READABLE);
}

extern "C" void ORP_UTIL_SocketBaseDelete(ORP_UTIL_SOCKBASE_ST *sockBase) {
  delete_socket_base(sockBase);
}

extern "C" void ORP_UTIL_SockBaseDeleteNew(int32_t fd) {
  if (fd < 0) return;

  OrpUvIo *watcher = find_io(default_loop(), fd);
  if (watcher == nullptr || (watcher->head.status & ORP_UV_SOCKBASE) == 0) return;
  delete_socket_base(reinterpret_cast<ORP_UTIL_SOCKBASE_ST *>(watcher));
}

extern "C" void ORP_UTIL_SockBaseDestroy(ORP_UTIL_SOCKBASE_ST * /*sockBase*/) {}

extern "C" uint32_t ORP_UTIL_SockBaseRegEvtProc(void) {
  return code(Status::kOk);
}

extern "C" ORP_UTIL_SOCK_RESP_ST *ORP_UTIL_SockbaseWaitSockRespAsync(int32_t fd,
                                                                     ORP_WORD /*ignored*/,
                                                                     uint32_t timeoutMs,
                                                                     ORP_WORD userValue,
                                                                     ORP_UTIL_SOCKBASE_PROC proc) {
  return wait_for_response(fd, timeoutMs, userValue, proc);
}

extern "C" void ORP_UTIL_SocketbaseAsyncEvtDestroy(ORP_UTIL_SOCK_RESP_ST *response) {
  if (response != nullptr) end_response(response);
}
