#include "common/output_queue.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "common/log_line.h"

namespace servers {
namespace {

constexpr size_t kMostPieces = 64;
constexpr std::array<char, OutputQueue::kChunk> kZeros{};

// A queued descriptor occupies a place in the kernel's tables; few of them fit a queue.
constexpr size_t kDescriptorWeight = 4096;

// -1 with EAGAIN: later. -1 otherwise: broken.
ssize_t write_pieces(int fd, iovec *pieces, size_t count, int descriptor) {
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
  msghdr message{};
  message.msg_iov = pieces;
  message.msg_iovlen = count;
  if (descriptor >= 0) {
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr *header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
  }
  ssize_t written;
  do {
    written = ::sendmsg(fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
  } while (written < 0 && errno == EINTR);
  return written;
}

bool try_later() {
  return errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOBUFS || errno == ENOMEM;
}

size_t atomic_write_size(int fd) {
  int buffer = 0;
  socklen_t size = sizeof buffer;
  if (::getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &buffer, &size) != 0) return OutputQueue::kChunk;
  // The kernel splits a write to a Unix socket at half the buffer less 64.
  const int half = std::max(buffer / 2 - 64, 1024);
  return std::min(OutputQueue::kChunk, static_cast<size_t>(half));
}

}  // namespace

// Either whole frames of together at most a chunk, or one longer frame, or a part of a stream.
struct OutputQueue::Chunk {
  struct End {
    size_t offset;  // where the frame ends in this chunk
    Tag tag;
  };

  std::unique_ptr<char[]> data;  // null: zero bytes
  size_t capacity = 0;
  size_t size = 0;
  size_t written = 0;
  std::vector<End> frames;
  Stream *stream = nullptr;  // which this chunk belongs to
  bool open = false;         // the stream goes on behind this chunk's bytes
  UniqueFd descriptor;

  void put(std::span<const char> bytes) {
    std::memcpy(data.get() + size, bytes.data(), bytes.size());
    size += bytes.size();
  }
};

struct OutputQueue::Stream {
  Chunks::iterator last;  // the open chunk, which holds the frame's tag
  uint64_t to_come;
  bool begun = false;  // bytes of it are written
};

OutputQueue::OutputQueue(int fd, size_t limit)
    : fd_(fd), limit_(limit), chunk_size_(atomic_write_size(fd)) {}

OutputQueue::~OutputQueue() = default;

void OutputQueue::send(std::span<const Frame> frames, std::vector<Tag> *refused) {
  size_t next = 0;
  size_t offset = 0;
  if (chunks_.empty() && !broken_) next = write_directly(frames, &offset);

  for (; next < frames.size(); ++next, offset = 0) {
    const Frame &frame = frames[next];
    // What has begun must be finished, whatever the limit says.
    if (broken_ || (offset == 0 && !fits(frame.size, frame.reserve))) {
      refused->push_back(frame.tag);
    } else {
      append({frame.data + offset, frame.size - offset}, frame.tag);
    }
  }
}

// Returns the first frame that is not written to its end, and in *offset how far it is.
size_t OutputQueue::write_directly(std::span<const Frame> frames, size_t *offset) {
  std::array<iovec, kMostPieces> pieces;
  size_t next = 0;
  while (next < frames.size()) {
    size_t count = 0;
    size_t total = 0;
    const Frame &first = frames[next];
    if (*offset > 0 || first.size > chunk_size_) {
      total = std::min(first.size - *offset, chunk_size_);
      pieces[count++] = {const_cast<char *>(first.data) + *offset, total};
    } else {
      for (size_t i = next; i < frames.size() && total + frames[i].size <= chunk_size_; ++i) {
        iovec *last = count > 0 ? &pieces[count - 1] : nullptr;
        if (last != nullptr &&
            static_cast<char *>(last->iov_base) + last->iov_len == frames[i].data) {
          last->iov_len += frames[i].size;
        } else if (count < kMostPieces) {
          pieces[count++] = {const_cast<char *>(frames[i].data), frames[i].size};
        } else {
          break;
        }
        total += frames[i].size;
      }
    }

    const ssize_t result = write_pieces(fd_, pieces.data(), count, -1);
    if (result < 0) {
      broken_ = !try_later();
      return next;
    }
    size_t written = static_cast<size_t>(result);
    const bool blocked = written < total;
    bytes_written_ += written;
    while (written > 0) {
      const size_t left = frames[next].size - *offset;
      if (written < left) {
        *offset += written;
        break;
      }
      written -= left;
      *offset = 0;
      ++next;
      ++frames_written_;
    }
    if (blocked) break;
  }
  return next;
}

OutputQueue::Chunk &OutputQueue::add_chunk(Chunks::const_iterator before, size_t capacity) {
  Chunk &chunk = *chunks_.emplace(before);
  chunk.data = std::make_unique_for_overwrite<char[]>(capacity);
  chunk.capacity = capacity;
  return chunk;
}

void OutputQueue::append(std::span<const char> bytes, Tag tag) {
  const bool into_last = !chunks_.empty() && chunks_.back().stream == nullptr &&
                         chunks_.back().data != nullptr && !chunks_.back().descriptor &&
                         chunks_.back().size + bytes.size() <= chunk_size_;
  Chunk &chunk =
      into_last ? chunks_.back() : add_chunk(chunks_.end(), std::max(bytes.size(), chunk_size_));
  chunk.put(bytes);
  chunk.frames.push_back({chunk.size, tag});
  weight_ += bytes.size() + kFrameWeight;
}

bool OutputQueue::send_descriptor(UniqueFd fd, Tag tag, size_t reserve) {
  if (broken_ || weight_ + kDescriptorWeight > limit_ + reserve) return false;
  Chunk &chunk = add_chunk(chunks_.end(), 2);
  chunk.put({kZeros.data(), 2});
  chunk.descriptor = std::move(fd);
  chunk.frames.push_back({2, tag});
  weight_ += 2 + kFrameWeight + kDescriptorWeight;
  flush();
  return true;
}

OutputQueue::Stream *OutputQueue::open_stream(std::span<const char> begin, uint64_t to_come,
                                              Tag tag, size_t reserve) {
  if (broken_ || !fits(begin.size(), reserve)) return nullptr;
  Chunk &chunk = *chunks_.emplace(chunks_.end());
  chunk.frames.push_back({0, tag});
  chunk.open = true;
  Stream &stream = streams_.emplace_back(Stream{std::prev(chunks_.end()), to_come});
  chunk.stream = &stream;
  weight_ += kFrameWeight;
  add_to(&stream, begin);
  return &stream;
}

void OutputQueue::extend(Stream *stream, std::span<const char> bytes) {
  stream->to_come -= bytes.size();
  add_to(stream, bytes);
  if (stream->to_come == 0) finish(stream);
}

void OutputQueue::add_to(Stream *stream, std::span<const char> bytes) {
  // If nothing waits before these bytes, they need no copy as far as the socket takes them.
  const Chunk &front = chunks_.front();
  if (stream->last == chunks_.begin() && front.written == front.size && !broken_) {
    while (!bytes.empty()) {
      iovec piece{const_cast<char *>(bytes.data()), std::min(bytes.size(), chunk_size_)};
      const ssize_t written = write_pieces(fd_, &piece, 1, -1);
      if (written < 0) {
        broken_ = !try_later();
        break;
      }
      stream->begun = true;
      bytes_written_ += static_cast<size_t>(written);
      bytes = bytes.subspan(static_cast<size_t>(written));
    }
  }
  if (bytes.empty()) return;

  Chunk *last = &*stream->last;
  if (last == &front && last->written == last->size) last->written = last->size = 0;
  if (last->capacity - last->size < bytes.size()) {
    Chunk &next = add_chunk(std::next(stream->last), std::max(bytes.size(), chunk_size_));
    next.stream = stream;
    next.open = true;
    next.frames = std::move(last->frames);
    last->frames.clear();
    last->open = false;
    stream->last = std::next(stream->last);
    last = &next;
  }
  last->put(bytes);
  weight_ += bytes.size();
}

// Nothing more is added to the stream: forgets it, and lets what waits behind it out.
void OutputQueue::finish(Stream *stream) {
  stream->last->open = false;
  for (Chunk::End &frame : stream->last->frames) frame.offset = stream->last->size;
  for (Chunk &chunk : chunks_) {
    if (chunk.stream == stream) chunk.stream = nullptr;
  }
  std::erase_if(streams_, [stream](const Stream &each) { return &each == stream; });
  flush();
}

bool OutputQueue::give_up(Stream *stream) {
  const bool begun = stream->begun;
  if (begun) {
    // The frame counts as lost, not as written.
    stream->last->frames.clear();
    weight_ -= kFrameWeight;
    Chunk &zeros = *chunks_.emplace(std::next(stream->last));
    zeros.size = static_cast<size_t>(stream->to_come);
    finish(stream);
  } else {
    for (auto chunk = chunks_.begin(); chunk != chunks_.end();) {
      if (chunk->stream == stream) {
        weight_ -= chunk->size;
        chunk = chunks_.erase(chunk);
      } else {
        ++chunk;
      }
    }
    weight_ -= kFrameWeight;
    std::erase_if(streams_, [stream](const Stream &each) { return &each == stream; });
    flush();
  }
  return !begun;
}

void OutputQueue::flush() {
  while (!chunks_.empty() && !broken_) {
    Chunk &chunk = chunks_.front();
    while (chunk.written < chunk.size) {
      const char *data = chunk.data ? chunk.data.get() + chunk.written : kZeros.data();
      iovec piece{const_cast<char *>(data), std::min(chunk.size - chunk.written, chunk_size_)};
      const ssize_t written = write_pieces(fd_, &piece, 1, chunk.descriptor.get());
      if (written < 0 && errno == ETOOMANYREFS) {
        log_line("a descriptor is dropped: too many of them are on their way");
        chunk.frames.clear();
        weight_ -= chunk.size + kFrameWeight + kDescriptorWeight;
        break;
      }
      if (written < 0) {
        broken_ = !try_later();
        return;
      }
      if (chunk.descriptor) weight_ -= kDescriptorWeight;
      chunk.descriptor.reset();
      chunk.written += static_cast<size_t>(written);
      bytes_written_ += static_cast<size_t>(written);
      if (chunk.data) weight_ -= static_cast<size_t>(written);
      if (chunk.stream != nullptr) chunk.stream->begun = true;
    }
    if (chunk.open) return;
    frames_written_ += chunk.frames.size();
    weight_ -= chunk.frames.size() * kFrameWeight;
    chunks_.pop_front();
  }
}

bool OutputQueue::blocked() const {
  return !broken_ && !chunks_.empty() && chunks_.front().written < chunks_.front().size;
}

std::vector<OutputQueue::Tag> OutputQueue::take_unwritten() {
  std::vector<Tag> tags;
  for (const Chunk &chunk : chunks_) {
    if (chunk.open) continue;
    for (const Chunk::End &frame : chunk.frames) {
      if (frame.offset > chunk.written) tags.push_back(frame.tag);
    }
  }
  chunks_.clear();
  streams_.clear();
  weight_ = 0;
  return tags;
}

}  // namespace servers
