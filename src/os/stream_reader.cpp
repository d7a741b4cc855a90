#include "os/stream_reader.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>

#include "os/wait.h"

namespace msgapi::os {

Status status_of(ReadEnd end) {
  switch (end) {
    case ReadEnd::kData:
      return Status::kOk;
    case ReadEnd::kPeerGone:
      return Status::kPeerGone;
    case ReadEnd::kSilence:
      return Status::kTimeout;
    case ReadEnd::kFailed:
      break;
  }
  return Status::kSystem;
}

// False after the time-out. True also for a descriptor that cannot be waited for, because the read
// that follows says why.
bool StreamReader::wait() {
  if (policy_.patience_ms == ReadPolicy::kBlock) return true;
  if (policy_.interrupted == Interrupted::kGoesOn) {
    return wait_readable_through_signals(fd_, policy_.patience_ms) != Readiness::kTimeout;
  }
  for (;;) {
    const Readiness readiness = wait_readable(fd_, policy_.patience_ms);
    if (readiness == Readiness::kTimeout) return false;
    if (readiness == Readiness::kReady || errno == EBADF) return true;
  }
}

Piece StreamReader::read_some(std::span<char> out) {
  assert(!out.empty());  // a read of nothing would look like the end of the stream
  const int flags = policy_.patience_ms == ReadPolicy::kBlock ? 0 : MSG_DONTWAIT;
  for (;;) {
    if (!is_socket_ && !wait()) return {ReadEnd::kSilence, -1};
    const ssize_t count = is_socket_ ? ::recv(fd_, out.data(), out.size(), flags)
                                     : ::read(fd_, out.data(), out.size());
    if (count > 0) return {ReadEnd::kData, count};
    if (count == 0 || errno == ENOTRECOVERABLE) return {ReadEnd::kPeerGone, count};
    if (errno == ENOTSOCK) {
      is_socket_ = false;
    } else if (errno == EAGAIN) {
      if (is_socket_ && !wait()) return {ReadEnd::kSilence, -1};
    } else if (errno != EINTR) {
      return {ReadEnd::kFailed, count};
    }
  }
}

Filled StreamReader::fill(std::span<char> out) {
  size_t done = 0;
  while (done < out.size()) {
    const Piece piece = read_some(out.subspan(done));
    if (piece.end != ReadEnd::kData) return {piece.end, done};
    done += static_cast<size_t>(piece.count);
    assert(done <= out.size());
  }
  return {ReadEnd::kData, done};
}

}  // namespace msgapi::os
