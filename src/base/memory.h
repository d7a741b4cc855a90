// The library's one way to memory: the guarded allocator, growth, and owners of malloc blocks.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

namespace msgapi {

// The largest request that the guarded allocator serves.
constexpr uint64_t kMaxGuardedSize = 0x800000;

// Zero bytes that stand after every received body and that no length mentions: a reader that takes
// the body for text, or runs over its end by a word, finds zeros.
constexpr uint32_t kZeroTail = 16;

// A block of `size` bytes, not cleared. Null for size 0 and, with a console line, above
// kMaxGuardedSize. The size is 64 bits wide so that a header plus a 32-bit length cannot wrap.
void *guarded_alloc(uint64_t size);

// The same, cleared.
void *guarded_zalloc(uint64_t size);

// A cleared plain block of `size` bytes followed by a buffer of `tail_size`, at *tail.
void *plain_zalloc_with_tail(uint64_t size, uint64_t tail_size, void **tail);

// Grows `block` through the platform's tracked reallocation, which has no upper bound: bodies
// beyond kMaxGuardedSize exist only through it. Null leaves `block` as it is.
void *grow(void *block, uint64_t old_size, uint64_t new_size, const char *tag, uint32_t line);

// An unguarded plain block for sizes the library itself has bounded; null for size 0.
void *plain_alloc(uint64_t size);

// Makes the nth allocation from now on (1 is the next) fail, once; 0 switches that off. Calls of
// every function above are counted. For tests of what happens without memory.
void fail_allocation(uint32_t nth);

struct FreeDeleter {
  void operator()(void *block) const { std::free(block); }
};

// Owns one malloc'd object (or array of trivial elements) and leaves the library by release().
template <typename T>
using Owned = std::unique_ptr<T, FreeDeleter>;

// A new object in a guarded block, or null. Its destructor is never run.
template <typename T, typename... Args>
Owned<T> make(Args &&...args) {
  static_assert(std::is_trivially_destructible_v<T>);
  void *block = guarded_alloc(sizeof(T));
  return Owned<T>(block == nullptr ? nullptr : new (block) T{std::forward<Args>(args)...});
}

// A cleared guarded block of `size` bytes and the zero tail, or null.
template <typename T>
Owned<T> make_tailed(uint64_t size) {
  return Owned<T>(static_cast<T *>(guarded_zalloc(size + kZeroTail)));
}

// Grows such a block to `new_size` bytes, not cleared, and the zero tail; it may move. False
// without memory: the block stays as it is.
template <typename T>
bool grow_tailed(Owned<T> *block, uint64_t old_size, uint64_t new_size, const char *tag,
                 uint32_t line) {
  assert(*block != nullptr && new_size >= old_size);
  void *grown = grow(block->get(), old_size + kZeroTail, new_size + kZeroTail, tag, line);
  if (grown == nullptr) return false;
  (void)block->release();
  block->reset(static_cast<T *>(grown));
  std::memset(static_cast<char *>(grown) + new_size, 0, kZeroTail);
  return true;
}

// A plain copy of NUL-terminated `text`, or null for null and without memory.
Owned<char> duplicate_text(const char *text);

}  // namespace msgapi
