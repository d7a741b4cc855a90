// The message context and the small settings that live in it.

#include "msg/context.h"

#include <unistd.h>

#include <cstdio>

#include "msgapi/trace.h"
#include "uv/default_loop.h"
#include "uv/watcher.h"

static_assert(sizeof(void *) != 4 || sizeof(ORP_MSG_CTX_ST) == 14 * sizeof(uint32_t));

namespace msgapi::msg {
namespace {

constexpr ORP_MSG_CTX_ST unconnected(int32_t trace_fd) {
  ORP_MSG_CTX_ST context = {};
  context.slSocket = -1;
  context.slTraceFd = trace_fd;
  return context;
}

bool g_is_remote;

void close_trace() {
  if (g_stMsgCtx.pstTraceStream != nullptr) std::fclose(g_stMsgCtx.pstTraceStream);
  g_stMsgCtx.pstTraceStream = nullptr;
  g_stMsgCtx.slTraceFd = -1;
}

}  // namespace

uint32_t next_sequence_number() {
  return ++g_stMsgCtx.ulSeqNum;
}

void set_own_name(std::string_view name) {
  copy_cut(g_stMsgCtx.aucAppName, name);
  copy_cut(g_appName, own_name());
}

bool is_local_connection(int fd) {
  return fd == g_stMsgCtx.slSocket && !g_is_remote;
}

void set_remote_connection() {
  g_is_remote = true;
}

OrpUvMsg *running_watcher() {
  // The pointer alone could be stale: the application may have destroyed its loop.
  OrpUvWatcher *watcher = uv::own_default_loop()->watchers;
  while (watcher != nullptr && uv::as<OrpUvMsg>(watcher) != g_stMsgCtx.pstWatcher) {
    watcher = watcher->link;
  }
  return watcher == nullptr || uv::is_deleted(watcher) ? nullptr : g_stMsgCtx.pstWatcher;
}

void clear_context() {
  close_trace();
  g_is_remote = false;
  g_stMsgCtx = unconnected(0);
  set_own_name({});
}

}  // namespace msgapi::msg

using namespace msgapi::msg;

constinit ORP_MSG_CTX_ST g_stMsgCtx = unconnected(-1);

extern "C" void ORP_MSG_RegisterMsgProc(ORP_MSG_PROC procedure) {
  g_stMsgCtx.pfMsgProc = procedure;
}

extern "C" void ORP_MSG_TraceProc(int32_t descriptor) {
  close_trace();

  FILE *stream = nullptr;
  if (g_stMsgCtx.ulTraceEnabled != 0 && descriptor >= 0) stream = ::fdopen(descriptor, "w");
  if (stream == nullptr) {
    if (descriptor >= 0) ::close(descriptor);
    return;
  }
  g_stMsgCtx.pstTraceStream = stream;
  g_stMsgCtx.slTraceFd = descriptor;
}
