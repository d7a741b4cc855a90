// Dispatch: the gate, and the registry of procedures by message type.
//
// A procedure may change the registry while it is walked, its own registration included, and may
// run the loop, which starts another walk. So all walks under way are known, and a registration is
// taken out of their way before it is freed.

#include "msg/dispatch.h"

#include <unistd.h>

#include <cassert>
#include <cstdio>
#include <cstdlib>

#include "base/drop_count.h"
#include "base/list.h"
#include "msg/context.h"
#include "msg/event.h"
#include "msg/send.h"
#include "uv/default_loop.h"
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

Registration *g_registry;

// A walk over the registry. The innermost one heads the chain.
class Walk {
 public:
  Walk() : next_(g_registry), outer_(innermost_) { innermost_ = this; }
  Walk(const Walk &) = delete;
  Walk &operator=(const Walk &) = delete;
  ~Walk() {
    assert(innermost_ == this);  // walks end in the reverse order of their beginning
    innermost_ = outer_;
  }

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

// Puts it after the registrations of its type with a priority up to its own; others keep their
// places.
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
  (void)send(reply.get());
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
    uv::MessageTrace(*message).matched(uv::address(entry->message_proc));
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
    (void)send(&acknowledgement);
    std::exit(0);
  }
}

void dispatch(Header *message) {
  const uint32_t type = message->ulMsgType;
  const bool matched = call_registered(message);
  uv::MessageTrace(*message).processed(type);
  if (matched) return;

  if (type >> 8 == ORP_MSG_EVENT_PAGE) deliver_event(message);
  if (type == ORP_MSG_EXIT) exit_when_daemon(*message);
}

void filter(Header *message) {
  if (!is_terminated(message->aucSendApp) || !is_terminated(message->aucRecvApp)) {
    ++g_dropped.name;
    std::printf("msgapi recv/send app error type=0x%x\n", message->ulMsgType);
    return;
  }

  const uv::HandledMessage handled(__func__, *message);
  const uint64_t iteration = uv::default_loop()->iteration;
  handled.trace_start(iteration);
  if (message->ulDataLen > ORP_MSG_MAX_DISPATCHED_BODY) {
    ++g_dropped.oversize;
    return;
  }
  if (g_stMsgCtx.pfMsgProc != nullptr) g_stMsgCtx.pfMsgProc(message);
  handled.trace_end(iteration);
}

uint32_t register_given(uint32_t type, ORP_MSG_PROC message_proc, ORP_MSG_SYNC_PROC sync_proc,
                        uint32_t priority, ORP_MSG_REG_HANDLE *handle_out) {
  const Result<ORP_MSG_REG_HANDLE> handle =
      register_procedure(type, message_proc, sync_proc, priority);
  if (handle_out != nullptr) *handle_out = handle ? *handle : nullptr;
  return code(handle.status());
}

}  // namespace

void take_in(Header *message) {
  if (message != nullptr) {
    filter(message);
  } else if (g_stMsgCtx.pfMsgProc != nullptr) {
    g_stMsgCtx.pfMsgProc(nullptr);
  }
}

Result<ORP_MSG_REG_HANDLE> register_procedure(uint32_t type, ORP_MSG_PROC message_proc,
                                              ORP_MSG_SYNC_PROC sync_proc, uint32_t priority) {
  Registration *registration =
      make<Registration>(nullptr, type, priority, message_proc, sync_proc).release();
  if (registration == nullptr) return Status::kNoMemory;
  insert(registration);
  return registration;
}

}  // namespace msgapi::msg

using namespace msgapi;
using namespace msgapi::msg;

extern "C" void ORP_MSG_FilterProc(ORP_MSG_HEADER_ST *message) {
  take_in(message);
}

extern "C" uint32_t ORP_MSG_RegMsgProcEx(uint32_t type, ORP_MSG_PROC messageProcedure,
                                         ORP_MSG_SYNC_PROC syncProcedure, uint32_t priority,
                                         ORP_MSG_REG_HANDLE *handleOut) {
  return register_given(type, messageProcedure, syncProcedure, priority, handleOut);
}

extern "C" uint32_t ORP_MSG_RegMsgProc(uint32_t type, ORP_MSG_PROC messageProcedure,
                                       uint32_t priority, ORP_MSG_REG_HANDLE *handleOut) {
  return register_given(type, messageProcedure, nullptr, priority, handleOut);
}

extern "C" uint32_t ORP_MSG_RegisterSyncMsgProc(uint32_t type, ORP_MSG_SYNC_PROC syncProcedure,
                                                uint32_t priority, ORP_MSG_REG_HANDLE *handleOut) {
  return register_given(type, nullptr, syncProcedure, priority, handleOut);
}

extern "C" void ORP_MSG_UnRegisterMsgProc(ORP_MSG_REG_HANDLE handle) {
  if (!list_contains(g_registry, handle)) return;
  Walk::forget(handle);
  list_delete(g_registry, handle);
}

extern "C" void ORP_MSG_DefaultMsgProcs(ORP_MSG_HEADER_ST *message) {
  if (message != nullptr) dispatch(message);
}

extern "C" void ORP_MSG_DefaultMsgProc(ORP_MSG_HEADER_ST *message) {
  if (message != nullptr) dispatch(message);
}
