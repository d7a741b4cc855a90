// Dispatch: the gate, and the registry of procedures by message type.
//
// A procedure may change the registry while it is walked, its own registration included. Every walk
// under way (a procedure may run the loop, and with it another walk) is therefore known, and a
// registration that goes is taken out of their way before it is freed.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "base/drop_count.h"
#include "base/list.h"
#include "msg/context.h"
#include "msg/header.h"
#include "msgapi/event.h"
#include "msgapi/loop.h"
#include "uv/trace_point.h"

struct ORP_MSG_REGISTRATION_ST {
  ORP_MSG_REGISTRATION_ST *link;
  uint32_t type;
  uint32_t priority;
  ORP_MSG_PROC message_proc;
  ORP_MSG_SYNC_PROC sync_proc;
};

namespace msgapi::msg {
namespace {

using Registration = ORP_MSG_REGISTRATION_ST;
using uv::kTraceLevel;

Registration *g_registry;

// A walk over the registry. The innermost one heads the chain.
class Walk {
 public:
  Walk() : next_(g_registry), outer_(innermost_) { innermost_ = this; }
  Walk(const Walk &) = delete;
  Walk &operator=(const Walk &) = delete;
  ~Walk() { innermost_ = outer_; }

  // The next registration, or null at the end.
  Registration *advance() {
    current_ = next_;
    if (current_ != nullptr) next_ = current_->link;
    return current_;
  }
  // What advance() returned, or null once that has been removed.
  Registration *current() const { return current_; }

  // Takes a registration that is about to be freed out of the way of all walks.
  static void forget(const Registration *registration) {
    for (Walk *walk = innermost_; walk != nullptr; walk = walk->outer_) {
      if (walk->current_ == registration) walk->current_ = nullptr;
      if (walk->next_ == registration) walk->next_ = registration->link;
    }
  }

 private:
  static inline Walk *innermost_;

  Registration *current_ = nullptr;
  Registration *next_;
  Walk *outer_;
};

// Daemons that an unclaimed exit request ends.
constexpr std::string_view kExitingDaemons[] = {
    "dhcps", "ssdpd", "ntwksync", "kobridge", "devmngr", "coapclient", "datacli",
};

bool is_registered(const Registration *registration) {
  const Registration *entry = g_registry;
  while (entry != nullptr && entry != registration) entry = entry->link;
  return entry != nullptr;
}

// Behind the registrations of the same type and a priority up to its own; others keep their places.
void insert(Registration *registration) {
  Registration **place = &g_registry;
  while (*place != nullptr &&
         !((*place)->type == registration->type && (*place)->priority > registration->priority)) {
    place = &(*place)->link;
  }
  registration->link = *place;
  *place = registration;
}

void send_reply(const Header &request, ORP_MSG_SYNC_PROC sync_proc, Header *message) {
  const Owned<Header> reply(sync_proc(message));
  if (!reply) return;

  reply->ulMsgType = request.ulMsgType;
  copy_cut(reply->aucRecvApp, sender(request));
  (void)ORP_MSG_Send(reply.get());
}

// Calls the procedures of every matching registration; false when there is none.
bool call_registered(Header *message) {
  bool matched = false;
  Walk walk;
  while (Registration *entry = walk.advance()) {
    if (entry->type != message->ulMsgType ||
        (entry->message_proc == nullptr && entry->sync_proc == nullptr)) {
      continue;
    }
    matched = true;
    ORP_TRACE_PrintInfo(__func__, __LINE__, 0, "msg", kTraceLevel,
                        "Match msg type:[0x%x] app:[%s] data:[%u] len:[%u] dst:[%.12s] "
                        "src:[%.12s] with function %p [%s].",
                        message->ulMsgType, g_stMsgCtx.aucAppName, message->ulMsgData,
                        message->ulDataLen, message->aucRecvApp, message->aucSendApp,
                        uv::address(entry->message_proc), "");
    if (entry->message_proc != nullptr) entry->message_proc(message);
    entry = walk.current();
    if (entry != nullptr && entry->sync_proc != nullptr) {
      send_reply(*message, entry->sync_proc, message);
    }
  }
  return matched;
}

void exit_when_daemon(const Header &message) {
  const std::string_view name = destination(message);
  for (const std::string_view daemon : kExitingDaemons) {
    if (daemon != name) continue;

    std::printf("Fatal: App(%.12s:%d) exited.=================================\n",
                message.aucRecvApp, static_cast<int>(::getpid()));
    Header acknowledgement = build_header(sender(message), ORP_MSG_EXIT, 0);
    (void)ORP_MSG_Send(&acknowledgement);
    std::exit(0);
  }
}

void dispatch(Header *message) {
  const uint32_t type = message->ulMsgType;
  const bool matched = call_registered(message);
  ORP_TRACE_PrintInfo(__func__, __LINE__, 0, "msg", kTraceLevel,
                      "Process msg type:[0x%x] app:[%s] data:[%u] len:[%u] dst:[%.12s] "
                      "src:[%.12s] finished.",
                      type, g_stMsgCtx.aucAppName, message->ulMsgData, message->ulDataLen,
                      message->aucRecvApp, message->aucSendApp);
  if (matched) return;

  if (type >> 8 == ORP_MSG_EVENT_PAGE) ORP_Evt_SubMsgProc(message);
  if (type == ORP_MSG_EXIT) exit_when_daemon(*message);
}

void filter(Header *message) {
  if (!is_terminated(message->aucSendApp) || !is_terminated(message->aucRecvApp)) {
    ++g_dropped.name;
    std::printf("msgapi recv/send app error type=0x%x\n", message->ulMsgType);
    return;
  }

  // The procedure may change the message; both records show what came.
  const Header header = *message;
  const uint64_t iteration = OrpUvLoopGetCurIdx(nullptr);
  uv::trace_handling(__func__, __LINE__, "start", iteration, header);
  if (header.ulDataLen > ORP_MSG_MAX_DISPATCHED_BODY) {
    ++g_dropped.oversize;
    return;
  }
  if (g_stMsgCtx.pfMsgProc != nullptr) g_stMsgCtx.pfMsgProc(message);
  uv::trace_handling(__func__, __LINE__, "end", iteration, header);
}

}  // namespace
}  // namespace msgapi::msg

using namespace msgapi;
using namespace msgapi::msg;

extern "C" void ORP_MSG_FilterProc(ORP_MSG_HEADER_ST *message) {
  if (message != nullptr) {
    filter(message);
  } else if (g_stMsgCtx.pfMsgProc != nullptr) {
    g_stMsgCtx.pfMsgProc(nullptr);
  }
}

extern "C" uint32_t ORP_MSG_RegMsgProcEx(uint32_t type, ORP_MSG_PROC messageProcedure,
                                         ORP_MSG_SYNC_PROC syncProcedure, uint32_t priority,
                                         ORP_MSG_REG_HANDLE *handleOut) {
  if (handleOut != nullptr) *handleOut = nullptr;
  Registration *registration =
      make<Registration>(nullptr, type, priority, messageProcedure, syncProcedure).release();
  if (registration == nullptr) return ORP_ERR_MEMORY;

  insert(registration);
  if (handleOut != nullptr) *handleOut = registration;
  return ORP_OK;
}

extern "C" uint32_t ORP_MSG_RegMsgProc(uint32_t type, ORP_MSG_PROC messageProcedure,
                                       uint32_t priority, ORP_MSG_REG_HANDLE *handleOut) {
  return ORP_MSG_RegMsgProcEx(type, messageProcedure, nullptr, priority, handleOut);
}

extern "C" uint32_t ORP_MSG_RegisterSyncMsgProc(uint32_t type, ORP_MSG_SYNC_PROC syncProcedure,
                                                uint32_t priority, ORP_MSG_REG_HANDLE *handleOut) {
  return ORP_MSG_RegMsgProcEx(type, nullptr, syncProcedure, priority, handleOut);
}

extern "C" void ORP_MSG_UnRegisterMsgProc(ORP_MSG_REG_HANDLE handle) {
  if (!is_registered(handle)) return;
  Walk::forget(handle);
  list_delete(g_registry, handle);
}

extern "C" void ORP_MSG_DefaultMsgProcs(ORP_MSG_HEADER_ST *message) {
  if (message != nullptr) dispatch(message);
}

extern "C" void ORP_MSG_DefaultMsgProc(ORP_MSG_HEADER_ST *message) {
  ORP_MSG_DefaultMsgProcs(message);
}
