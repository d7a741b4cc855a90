// Tracked reallocation and the two-part allocation.

#include <cstdlib>

#include "orputil.h"

extern "C" void *OrpReallocInternal(void *block, size_t /*old_size*/, size_t new_size,
                                    const char * /*tag*/, uint32_t /*line*/) {
  return new_size == 0 ? nullptr : std::realloc(block, new_size);
}

extern "C" void *__ORP_UTIL_CallocVarg(size_t size, size_t trailing_size, void **trailing) {
  size_t total;
  if (trailing == nullptr || __builtin_add_overflow(size, trailing_size, &total)) return nullptr;

  char *block = static_cast<char *>(std::calloc(1, total));
  *trailing = block == nullptr ? nullptr : block + size;
  return block;
}
