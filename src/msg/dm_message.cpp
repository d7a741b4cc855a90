// DM messages.
//
// The functions on bodies go by the lengths in the body: a body may be a copy without a header in
// front of it, and the application may set any length in a header. So the lengths of a body from
// another process are checked against its message once, on receipt.

#include "msg/dm_message.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "base/bytes.h"
#include "base/memory.h"
#include "cfmapi.h"
#include "msg/send.h"

namespace msgapi::msg {
namespace {

static_assert(sizeof(void *) != 4 || sizeof(ORP_DMMSG_ITEM_ST) == 20);

constexpr uint32_t kFirstCapacity = 1024;
constexpr uint32_t kGrowth = 1024;

// How far a last item may reach beyond the used area: long-standing and kept.
constexpr uint32_t kTolerance = 12;

DmBody *as_dm(void *body) {
  auto *dm = static_cast<DmBody *>(body);
  return dm != nullptr && dm->magic == ORP_DMMSG_MAGIC ? dm : nullptr;
}

const DmBody *as_dm(const void *body) {
  return as_dm(const_cast<void *>(body));
}

// Makes room for an item of `size` bytes. Without memory, frees the message and returns null.
DmBody *reserve(DmBody *dm, uint64_t size) {
  if (size <= dm->free) return dm;
  Owned<Header> block(head_of(dm));
  const uint64_t raise = size + kGrowth;
  const uint64_t capacity = dm->capacity + raise;
  if (capacity > UINT32_MAX) return nullptr;

  void *grown = grow(block.get(), ORP_MSG_HEADER_SIZE + (dm->capacity - dm->free),
                     ORP_MSG_HEADER_SIZE + capacity, "CfmDmMsgReallocMem", __LINE__);
  if (grown == nullptr) return nullptr;
  // The block has become the grown one already.
  (void)block.release();
  dm = reinterpret_cast<DmBody *>(static_cast<Header *>(grown) + 1);
  dm->capacity = static_cast<uint32_t>(capacity);
  dm->free += static_cast<uint32_t>(raise);
  return dm;
}

// Bytes that go into an item. They may lie in the message to which the item is added, and that
// moves when it grows.
class Source {
 public:
  Source(const void *bytes, size_t size, const DmBody *dm)
      : bytes_(static_cast<const char *>(bytes)), size_(size) {
    const uintptr_t start = reinterpret_cast<uintptr_t>(dm);
    const uintptr_t place = reinterpret_cast<uintptr_t>(bytes);
    inside_ = place >= start && place - start < dm->capacity;
    if (inside_) offset_ = place - start;
  }

  // Writes the bytes to `out` in the message `dm` and returns where they end.
  char *write(char *out, const DmBody *dm) const {
    const char *from = inside_ ? reinterpret_cast<const char *>(dm) + offset_ : bytes_;
    if (size_ > 0) std::memmove(out, from, size_);
    return out + size_;
  }

 private:
  const char *bytes_;
  size_t size_;
  bool inside_;
  size_t offset_ = 0;
};

}  // namespace

DmBody *build_dm(std::string_view destination, uint32_t sub_type) {
  Owned<Header> block = allocate_message(kFirstCapacity);
  if (!block) return nullptr;

  constexpr uint32_t kFree = kFirstCapacity - sizeof(DmBody);
  store(body(block.get()),
        DmBody{ORP_DMMSG_MAGIC, kFirstCapacity, kFree, 0, ORP_CFM_GetCurrUser(), sub_type});
  block->ulMsgType = ORP_DMMSG_TYPE;
  copy_cut(block->aucRecvApp, destination);
  return reinterpret_cast<DmBody *>(body(block.release()));
}

bool append_item(DmBody **in_out, uint32_t type, const char *name, std::span<const char> value) {
  DmBody *dm = *in_out;
  assert(is_sound(*dm));
  const size_t name_length = name == nullptr || *name == '\0' ? 0 : std::strlen(name) + 1;
  const Source name_bytes(name, name_length, dm);
  const Source value_bytes(value.data(), value.size(), dm);
  const uint64_t size = sizeof(DmItemHead) + uint64_t{name_length} + value.size();

  dm = *in_out = reserve(dm, size);
  if (dm == nullptr) return false;

  char *place = reinterpret_cast<char *>(dm) + (dm->capacity - dm->free);
  store(place,
        DmItemHead{type, static_cast<uint32_t>(name_length), static_cast<uint32_t>(value.size())});
  place = name_bytes.write(place + sizeof(DmItemHead), dm);
  value_bytes.write(place, dm);
  dm->free -= static_cast<uint32_t>(size);
  return true;
}

Status send_dm(DmBody *dm) {
  assert(is_sound(*dm));
  dm->capacity -= dm->free;
  dm->free = 0;
  head_of(dm)->ulDataLen = dm->capacity;
  return send(head_of(dm));
}

// Offsets are from the start of the body; 64 bits hold every sum of the item's lengths.
bool read_item(const void *body, uint64_t carried, ORP_DMMSG_ITEM_ST *out, const void **cursor) {
  const DmBody *dm = as_dm(body);
  if (dm == nullptr || dm->free > dm->capacity) return false;
  const char *start = static_cast<const char *>(body);
  const uint64_t used = dm->capacity - dm->free;

  uint64_t offset = sizeof *dm;
  if (*cursor != nullptr) {
    const uintptr_t place = reinterpret_cast<uintptr_t>(*cursor);
    if (place < reinterpret_cast<uintptr_t>(start) + sizeof *dm) return false;
    offset = place - reinterpret_cast<uintptr_t>(start);
  }
  if (offset + sizeof(DmItemHead) >= used) return false;

  const DmItemHead head = load<DmItemHead>(start + offset);
  const uint64_t name_at = offset + sizeof head;
  const uint64_t value_at = name_at + head.name_length;
  const uint64_t end = value_at + head.value_length;
  if (end > used + kTolerance) return false;

  const char *name = head.name_length == 0 ? nullptr : start + name_at;
  const uint64_t name_end = std::min(value_at, used);
  if (name != nullptr &&
      std::memchr(name, '\0', static_cast<size_t>(name_end - name_at)) == nullptr) {
    return false;
  }
  const uint64_t value_length = std::min(end, carried) - std::min(value_at, carried);
  *out = {head.type, head.name_length, static_cast<uint32_t>(value_length), name,
          value_length == 0 ? nullptr : start + value_at};
  *cursor = start + end;
  return true;
}

void hold_to_length(Header *message) {
  if (message->ulDataLen < sizeof(uint32_t)) return;
  auto *dm = reinterpret_cast<DmBody *>(body(message));
  if (as_dm(static_cast<void *>(dm)) == nullptr) return;

  if (message->ulDataLen < sizeof *dm || dm->free > dm->capacity ||
      dm->capacity - dm->free > message->ulDataLen) {
    dm->magic = 0;
  } else if (dm->capacity > message->ulDataLen) {
    dm->capacity -= dm->free;
    dm->free = 0;
  }
}

}  // namespace msgapi::msg

using namespace msgapi;
using namespace msgapi::msg;

extern "C" uint32_t ORP_DMMSG_Builder(void **bodyOut, const char *dstApp, uint32_t subType) {
  if (bodyOut != nullptr) *bodyOut = nullptr;
  if (bodyOut == nullptr || dstApp == nullptr) return ORP_DMMSG_ERR;
  *bodyOut = build_dm(dstApp, subType);
  return *bodyOut == nullptr ? ORP_DMMSG_ERR_MEMORY : 0;
}

extern "C" uint32_t ORP_DMMSG_AppendItem(void **bodyInOut, uint32_t itemType, const char *name,
                                         const void *value, uint32_t valueLength) {
  DmBody *dm = bodyInOut == nullptr ? nullptr : as_dm(*bodyInOut);
  if (dm == nullptr || !is_sound(*dm)) return ORP_DMMSG_ERR;
  if (value == nullptr && valueLength != 0) return ORP_DMMSG_ERR;

  const bool appended = append_item(&dm, itemType, name, content_of(value, valueLength));
  *bodyInOut = dm;
  return appended ? 0 : ORP_DMMSG_ERR_GROW;
}

extern "C" uint32_t ORP_DMMSG_GetItemEx(const void *body, ORP_DMMSG_ITEM_ST *itemOut,
                                        const void **cursorInOut) {
  if (itemOut == nullptr || cursorInOut == nullptr) return ORP_DMMSG_ERR;
  return read_item(body, UINT64_MAX, itemOut, cursorInOut) ? 0 : ORP_DMMSG_ERR;
}

extern "C" uint32_t ORP_DMMSG_GetErrCode(const void *body) {
  const DmBody *dm = as_dm(body);
  return dm == nullptr ? 0 : dm->error;
}

extern "C" uint32_t ORP_DMMSG_GetSubType(const void *body) {
  const DmBody *dm = as_dm(body);
  return dm == nullptr ? 0 : dm->sub_type;
}

extern "C" void ORP_DMMSG_Free(void *body) {
  DmBody *dm = as_dm(body);
  if (dm != nullptr) std::free(head_of(dm));
}

extern "C" uint32_t ORP_DMMSG_Send(void *body) {
  DmBody *dm = as_dm(body);
  return dm != nullptr && is_sound(*dm) ? code(send_dm(dm)) : ORP_DMMSG_ERR;
}
