// Reading messages from a stream: the one place that decides when a read is tried, when it waits,
// and what ends the stream.
//
// Nothing is read beyond what the caller asks for, although reading ahead would save calls. Other
// readers may share the connection (a synchronous wait reads past the event loop's watcher); they
// would never see what one reader has read ahead. Descriptors travel between messages, too, and a
// plain read of their place loses them.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <span>

#include "base/status.h"

namespace msgapi::os {

// How a read went. kFailed leaves the reason in errno.
enum class ReadEnd {
  kData,
  kPeerGone,  // the end of the stream; ENOTRECOVERABLE counts as one, on purpose
  kSilence,   // nothing came in time
  kFailed,
};

Status status_of(ReadEnd end);

// How reading a message, or a part of one, ended, and how much of it there is, also after a
// failure.
struct Filled {
  ReadEnd end;
  size_t count;

  bool operator==(const Filled &) const = default;
};

struct Piece {
  ReadEnd end;
  ssize_t count;  // what the read returned; -1 for kSilence
};

// A wait that a signal interrupts starts again with its full time, or goes on with what is left.
enum class Interrupted { kStartsAgain, kGoesOn };

struct ReadPolicy {
  // For each piece that is not there yet. 0 looks once.
  uint32_t patience_ms;
  Interrupted interrupted = Interrupted::kStartsAgain;

  // Patience without a wait of its own: the read itself blocks.
  static constexpr uint32_t kBlock = UINT32_MAX;
};

// Reads from one descriptor. On a socket the read comes first, and the wait only when nothing was
// there, because a message usually is there already. On any other descriptor the wait comes first.
class StreamReader {
 public:
  StreamReader(int fd, ReadPolicy policy) : fd_(fd), policy_(policy) {}

  // One read of up to out.size() bytes; `out` is not empty.
  Piece read_some(std::span<char> out);

  // Reads until `out` is full.
  Filled fill(std::span<char> out);

 private:
  bool wait();

  int fd_;
  ReadPolicy policy_;
  bool is_socket_ = true;
};

}  // namespace msgapi::os
