// Notifiers.
//
// The notifier's spare word counts the notifications under way. Entries that are unregistered
// meanwhile lose their procedure and name but stay linked, so that every walk finds its successor.
// They are freed when the outermost notification ends.

#include "msgapi/notifier.h"

#include <cassert>
#include <cstring>

#include "base/list.h"
#include "base/memory.h"
#include "base/status.h"
#include "uv/default_loop.h"
#include "uv/trace_point.h"

namespace msgapi::uv {
namespace {

using Notifier = ORP_UTIL_NOTIFIER_ST;
using Entry = ORP_UTIL_NOTIFIER_ENTRY_ST;

static_assert(sizeof(void *) != 4 || sizeof(Notifier) == 12);
static_assert(sizeof(void *) != 4 || sizeof(Entry) == 20);

enum class Order { kAscending, kDescending };

// A registered entry always has a name, if only "".
bool is_removed(const Entry &entry) {
  return entry.name == nullptr;
}

// Whether an entry of `priority` stands in front of `other`.
bool comes_before(uint32_t priority, const Entry &other, Order order) {
  return order == Order::kAscending ? other.priority > priority : other.priority <= priority;
}

Status add(Notifier *notifier, const ORP_UTIL_NOTIFIER_PAIR_ST &pair, uint32_t priority,
           ORP_WORD data, Order order, Entry **entry_out) {
  if (entry_out != nullptr) *entry_out = nullptr;
  if (notifier == nullptr || pair.proc == nullptr) return Status::kBadArgument;
  Owned<Entry> entry = make<Entry>();
  if (!entry) return Status::kNoMemory;

  entry->proc = pair.proc;
  entry->priority = priority;
  entry->data = data;
  entry->name = pair.name == nullptr ? "" : pair.name;
  Entry **place = &notifier->entries;
  while (*place != nullptr && !comes_before(priority, **place, order)) place = &(*place)->link;
  entry->link = *place;
  *place = entry.get();
  if (entry_out != nullptr) *entry_out = entry.get();
  (void)entry.release();
  return Status::kOk;
}

void remove_entry(Notifier *notifier, Entry *entry) {
  for (Entry **place = &notifier->entries; *place != nullptr; place = &(*place)->link) {
    if (*place != entry) continue;
    if (notifier->reserved == 0) {
      std::free(list_unlink_at(place));
    } else {
      entry->proc = nullptr;
      entry->name = nullptr;
    }
    return;
  }
}

void free_removed(Notifier *notifier) {
  for (Entry **place = &notifier->entries; *place != nullptr;) {
    if (is_removed(**place)) {
      std::free(list_unlink_at(place));
    } else {
      place = &(*place)->link;
    }
  }
}

uint32_t call_entries(const Notifier *notifier, bool stop,
                      const ORP_UTIL_NOTIFIER_HOOKS_ST &hooks) {
  const ORP_WORD context = notifier->context;
  uint32_t result = 0;
  for (Entry *entry = notifier->entries, *next; entry != nullptr; entry = next) {
    next = entry->link;
    if (is_removed(*entry)) continue;
    if (hooks.filter != nullptr && hooks.filter(context, entry, hooks.filterArgument) == 0) {
      continue;
    }
    if (entry->proc != nullptr && hooks.pre != nullptr) hooks.pre(context, entry);
    if (entry->proc == nullptr) continue;  // removed by the filter or by pre
    result = entry->proc(context, entry->data);
    if (hooks.post != nullptr) hooks.post(context, entry, result);
    if (stop && result != 0) break;
  }
  return result;
}

uint32_t notify(Notifier *notifier, bool stop, const ORP_UTIL_NOTIFIER_HOOKS_ST *hooks) {
  if (notifier == nullptr) return code(Status::kBadArgument);

  ++notifier->reserved;
  const ORP_UTIL_NOTIFIER_HOOKS_ST none = {};
  const uint32_t result = call_entries(notifier, stop, hooks == nullptr ? none : *hooks);
  assert(notifier->reserved > 0);
  if (--notifier->reserved == 0) free_removed(notifier);
  return result;
}

uint32_t notify_traced(const char *caller, Notifier *notifier, bool stop) {
  if (caller == nullptr) return notify(notifier, stop, nullptr);

  constexpr char kFunction[] = "ORP_UTIL_NotifierDoNotifyWrapEx";
  const char *slash = std::strrchr(caller, '/');
  const char *name = slash == nullptr ? caller : slash + 1;
  ORP_TRACE_PrintInfo(kFunction, __LINE__, 0, "notify", kTraceLevel, "[start  notify %lld:%p:%s].",
                      static_cast<long long>(default_loop()->iteration),
                      static_cast<void *>(notifier), name);
  const uint32_t result = notify(notifier, stop, nullptr);
  ORP_TRACE_PrintInfo(kFunction, __LINE__, 0, "notify", kTraceLevel,
                      "[end  notify %lld:%p:%s] return 0x%x.",
                      static_cast<long long>(default_loop()->iteration),
                      static_cast<void *>(notifier), name, result);
  return result;
}

}  // namespace
}  // namespace msgapi::uv

using namespace msgapi;
using namespace msgapi::uv;

extern "C" uint32_t ORP_UTIL_NotifierInitEx(ORP_WORD context, ORP_UTIL_NOTIFIER_ST **notifierOut) {
  if (notifierOut == nullptr) return code(Status::kBadArgument);

  *notifierOut = make<Notifier>(ORP_WORD{0}, context, nullptr).release();
  return code(*notifierOut != nullptr ? Status::kOk : Status::kNoMemory);
}

extern "C" uint32_t ORP_UTIL_NotifierRegEx(ORP_UTIL_NOTIFIER_ST *notifier,
                                           const ORP_UTIL_NOTIFIER_PAIR_ST *pair, uint32_t priority,
                                           ORP_WORD data, ORP_UTIL_NOTIFIER_ENTRY_ST **entryOut) {
  const ORP_UTIL_NOTIFIER_PAIR_ST none = {};
  return code(
      add(notifier, pair == nullptr ? none : *pair, priority, data, Order::kAscending, entryOut));
}

extern "C" uint32_t ORP_UTIL_NotifierReg(ORP_UTIL_NOTIFIER_ST *notifier,
                                         ORP_UTIL_NOTIFIER_PROC proc, uint32_t priority,
                                         ORP_WORD data, ORP_UTIL_NOTIFIER_ENTRY_ST **entryOut) {
  return code(add(notifier, {proc, nullptr}, priority, data, Order::kAscending, entryOut));
}

extern "C" uint32_t ORP_UTIL_NotifierReverseReg(ORP_UTIL_NOTIFIER_ST *notifier,
                                                ORP_UTIL_NOTIFIER_PROC proc, uint32_t priority,
                                                ORP_WORD data,
                                                ORP_UTIL_NOTIFIER_ENTRY_ST **entryOut) {
  return code(add(notifier, {proc, nullptr}, priority, data, Order::kDescending, entryOut));
}

extern "C" void ORP_UTIL_NotifierUnReg(ORP_UTIL_NOTIFIER_ST *notifier,
                                       ORP_UTIL_NOTIFIER_ENTRY_ST *entry) {
  if (notifier != nullptr && entry != nullptr) remove_entry(notifier, entry);
}

extern "C" uint32_t ORP_UTIL_NotifierDoNotifyWithCmsInit(ORP_UTIL_NOTIFIER_ST *notifier,
                                                         uint32_t stop,
                                                         const ORP_UTIL_NOTIFIER_HOOKS_ST *hooks,
                                                         ORP_WORD /*further*/) {
  return notify(notifier, stop != 0, hooks);
}

extern "C" uint32_t ORP_UTIL_NotifierDoNotifyExtend(ORP_UTIL_NOTIFIER_ST *notifier, uint32_t stop,
                                                    const ORP_UTIL_NOTIFIER_HOOKS_ST *hooks) {
  return notify(notifier, stop != 0, hooks);
}

extern "C" uint32_t ORP_UTIL_NotifierDoNotifyWrapEx(const char *caller, ORP_WORD /*ignored*/,
                                                    ORP_UTIL_NOTIFIER_ST *notifier, uint32_t stop) {
  return notify_traced(caller, notifier, stop != 0);
}
