// Name-value lists, chained by the platform's list functions.

#include "msgapi/nvpair.h"

#include <cstring>

#include "base/list.h"
#include "base/memory.h"

namespace msgapi::str {
namespace {

using Pair = ORP_UTIL_NV_PAIR_ST;

static_assert(sizeof(void *) != 4 || sizeof(Pair) == 12);

Pair *find_pair(Pair *head, const char *name) {
  for (Pair *pair = head; pair != nullptr; pair = pair->pstNext) {
    if (pair->pcName != nullptr && std::strcmp(pair->pcName, name) == 0) return pair;
  }
  return nullptr;
}

// The list functions free the node itself.
void release_pair(void *node) {
  Pair *pair = static_cast<Pair *>(node);
  std::free(pair->pcName);
  std::free(pair->pcValue);
  pair->pcName = nullptr;
  pair->pcValue = nullptr;
}

Pair *set_pair(Pair *&head, const char *name, const char *value) {
  Owned<char> value_copy = duplicate_text(value);
  if (!value_copy) return nullptr;

  if (Pair *pair = find_pair(head, name)) {
    std::free(pair->pcValue);
    pair->pcValue = value_copy.release();
    return pair;
  }

  Owned<Pair> pair = make<Pair>();
  Owned<char> name_copy = duplicate_text(name);
  if (!pair || !name_copy) return nullptr;
  pair->pcName = name_copy.release();
  pair->pcValue = value_copy.release();
  list_append(head, pair.get());
  return pair.release();
}

}  // namespace
}  // namespace msgapi::str

using namespace msgapi;
using namespace msgapi::str;

extern "C" ORP_UTIL_NV_PAIR_ST *ORP_UTIL_NvPairSet(ORP_UTIL_NV_PAIR_ST **head, const char *name,
                                                   const char *value) {
  if (head == nullptr || name == nullptr || value == nullptr) return nullptr;
  return set_pair(*head, name, value);
}

extern "C" ORP_UTIL_NV_PAIR_ST *ORP_UTIL_NvPairFindByName(ORP_UTIL_NV_PAIR_ST *head,
                                                          const char *name) {
  return name == nullptr ? nullptr : find_pair(head, name);
}

extern "C" char *ORP_UTIL_NvPairGetValue(ORP_UTIL_NV_PAIR_ST *head, const char *name) {
  const Pair *pair = name == nullptr ? nullptr : find_pair(head, name);
  return pair == nullptr ? nullptr : pair->pcValue;
}

extern "C" void ORP_UTIL_NvPairDelByName(ORP_UTIL_NV_PAIR_ST **head, const char *name) {
  if (head == nullptr || name == nullptr) return;
  if (Pair *pair = find_pair(*head, name)) list_delete(*head, pair, release_pair);
}

extern "C" void ORP_UTIL_NvPairDelAll(ORP_UTIL_NV_PAIR_ST **head) {
  if (head != nullptr) list_delete_all(*head, release_pair);
}
