// The loop's descriptor sets: the only code that turns a descriptor into a bit.
//
// The layout is that of fd_set: descriptor fd is bit fd%32 of word fd/32. Descriptors that do not
// fit are refused here, so no caller can write beside a set.
#pragma once

#include <sys/select.h>

#include <bit>
#include <iterator>

#include "msgapi/loop.h"

namespace msgapi::uv {

static_assert(sizeof(fd_set) == sizeof(OrpUvDescriptorSet));
static_assert(std::endian::native == std::endian::little || sizeof(long) == sizeof(uint32_t));

inline bool fits_set(int fd) {
  return fd >= 0 && fd < ORP_UV_MAX_DESCRIPTORS;
}

inline bool set_contains(const OrpUvDescriptorSet &set, int fd) {
  return fits_set(fd) && (set[fd / 32] >> (fd % 32) & 1u) != 0;
}

inline void set_add(OrpUvDescriptorSet &set, int fd) {
  if (fits_set(fd)) set[fd / 32] |= 1u << (fd % 32);
}

// False if the set still holds the descriptor afterwards.
inline bool set_remove(OrpUvDescriptorSet &set, int fd) {
  if (fits_set(fd)) set[fd / 32] &= ~(1u << (fd % 32));
  return !set_contains(set, fd);
}

// A copy of a loop's set for one select(), which overwrites it.
class WorkingSet {
 public:
  void copy(const OrpUvDescriptorSet &from) {
    uint32_t any = 0;
    for (size_t i = 0; i < std::size(words_); ++i) any |= words_[i] = from[i];
    empty_ = any == 0;
  }

  // Keeps what is also in `mask`; true when something was taken out.
  bool keep(const OrpUvDescriptorSet &mask) {
    uint32_t any = 0, removed = 0;
    for (size_t i = 0; i < std::size(words_); ++i) {
      removed |= words_[i] & ~mask[i];
      any |= words_[i] &= mask[i];
    }
    empty_ = any == 0;
    return removed != 0;
  }

  // Nothing was waited for; select() can only make a set smaller.
  bool empty() const { return empty_; }
  bool contains(int fd) const { return set_contains(words_, fd); }
  fd_set *native() { return empty_ ? nullptr : reinterpret_cast<fd_set *>(words_); }

 private:
  alignas(fd_set) OrpUvDescriptorSet words_;
  bool empty_;
};

}  // namespace msgapi::uv
