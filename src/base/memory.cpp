// Guarded allocation. Everything the library allocates passes through take(), which is therefore
// also where tests make an allocation fail.

#include "base/memory.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "orputil.h"

namespace msgapi {
namespace {

uint32_t g_fail_countdown;

// False when a test wants this allocation to fail.
bool take() {
  return g_fail_countdown == 0 || --g_fail_countdown != 0;
}

bool within_guard(uint64_t size) {
  if (size == 0) return false;
  if (size <= kMaxGuardedSize) return true;

  // The text says 4M while the bound is 8 MiB; both are long-standing and kept.
  std::printf("error: not host tool, but malloc 4M, return NULL, malloc len=%u\n",
              static_cast<unsigned>(std::min<uint64_t>(size, UINT32_MAX)));
  return false;
}

}  // namespace

void fail_allocation(uint32_t nth) {
  g_fail_countdown = nth;
}

void *guarded_alloc(uint64_t size) {
  return within_guard(size) ? plain_alloc(size) : nullptr;
}

void *guarded_zalloc(uint64_t size) {
  if (!within_guard(size) || !take()) return nullptr;
  return std::calloc(1, static_cast<size_t>(size));
}

void *plain_alloc(uint64_t size) {
  if (size == 0 || size > SIZE_MAX || !take()) return nullptr;
  return std::malloc(static_cast<size_t>(size));
}

void *plain_zalloc_with_tail(uint64_t size, uint64_t tail_size, void **tail) {
  if (size > SIZE_MAX || tail_size > SIZE_MAX || !take()) return nullptr;
  return __ORP_UTIL_CallocVarg(static_cast<size_t>(size), static_cast<size_t>(tail_size), tail);
}

void *grow(void *block, uint64_t old_size, uint64_t new_size, const char *tag, uint32_t line) {
  if (new_size > SIZE_MAX || !take()) return nullptr;
  return OrpReallocInternal(block, static_cast<size_t>(old_size), static_cast<size_t>(new_size),
                            tag, line);
}

Owned<char> duplicate_text(const char *text) {
  if (text == nullptr) return nullptr;
  const size_t size = std::strlen(text) + 1;
  Owned<char> copy(static_cast<char *>(plain_alloc(size)));
  if (copy) std::memcpy(copy.get(), text, size);
  return copy;
}

}  // namespace msgapi
