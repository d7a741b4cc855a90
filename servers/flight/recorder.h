// Writes the flight recorder's file. One thread only.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "flight/record.h"

namespace flight {

class Recorder {
 public:
  // Records nothing, and numbers everything 0.
  Recorder() = default;
  // A new ring of `ring_size` bytes (a power of two from kLeastRing to kMostRing) at `path`, mode
  // 0600; an old file there moves to `path` + ".1". The first `body_limit` bytes of each body are
  // kept, kMostKept at most. The memory is allocated at once, so writing never fails. Throws
  // std::system_error.
  Recorder(const std::string &path, uint64_t ring_size, uint32_t body_limit);
  ~Recorder();
  Recorder(Recorder &&other) noexcept;
  Recorder &operator=(Recorder &&other) noexcept;

  bool on() const { return base_ != nullptr; }
  // Bytes of the ring; 0 if the recorder is off.
  uint64_t ring_size() const { return on() ? ring_size_ : 0; }
  // Records written since the start: the number of the last one.
  uint64_t count() const { return number_; }

  // Reads the clock. The records that follow carry this time: call it once after each system call
  // that brought or took messages.
  void tick();

  // Each returns the number of its record, 0 if the recorder is off.

  // `header` has kHeaderSize bytes, in the server's byte order.
  uint64_t accepted(uint32_t from, uint32_t to, const void *header, uint32_t body_length,
                    std::span<const char> body);
  uint64_t delivered(uint64_t about, uint32_t from, uint32_t to, uint32_t type, uint32_t sequence);
  uint64_t lost(Loss loss, uint64_t about, uint32_t from, uint32_t to, uint32_t type,
                uint32_t sequence);
  // Everything else. `text` is cut at kMostKept.
  uint64_t note(Kind kind, Record facts, std::string_view text = {});

 private:
  // What became of a message.
  uint64_t fate(Kind kind, Loss loss, uint64_t about, uint32_t from, uint32_t to, uint32_t type,
                uint32_t sequence);
  uint64_t write(Record record, const void *header, std::span<const char> rest);
  void make_room(uint32_t size);
  char *place(uint64_t position) const {
    return base_ + kRingOffset + (position & (ring_size_ - 1));
  }
  void unmap();

  char *base_ = nullptr;  // of the mapping: FileHead, then the ring
  uint64_t ring_size_ = 0;
  uint32_t body_limit_ = 0;
  uint64_t head_ = 0;
  uint64_t tail_ = 0;
  uint64_t number_ = 0;
  uint64_t now_ns_ = 0;
  uint64_t next_clock_ns_ = 0;
  uint64_t next_clock_number_ = 0;
};

}  // namespace flight
