#include "common/output_queue.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <new>

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
  size_t frames_written = 0;  // so many of them, the first
  Stream *stream = nullptr;   // which this chunk belongs to
  bool open = false;          // the stream goes on after this chunk's bytes
  bool headless = false;      // the first frame did not, or may not, begin in this chunk
  UniqueFd descriptor;
  std::shared_ptr<void> descriptor_owner;

  void put(std::span<const char> bytes) {
    std::memcpy(data.get() + size, bytes.data(), bytes.size());
    size += bytes.size();
  }
};

struct OutputQueue::Stream {
  Chunks::iterator last;  // the open chunk, which holds the frame's tag
  uint64_t to_come;
  bool begun = false;  // bytes of it are written
  Chunks filler;       // one chunk, so that giving up needs no memory
};

OutputQueue::OutputQueue(int fd, size_t limit, Observer *observer)
    : fd_(fd), limit_(limit), observer_(observer), chunk_size_(atomic_write_size(fd)) {}

OutputQueue::~OutputQueue() {
  assert(adds_up());
}

// Whether the weight, the descriptors and the open streams are those of the chunks.
bool OutputQueue::adds_up() const {
  size_t weight = 0;
  size_t descriptors = 0;
  size_t open = 0;
  for (const Chunk &chunk : chunks_) {
    if (chunk.written > chunk.size || chunk.frames_written > chunk.frames.size()) return false;
    if (chunk.open && (chunk.stream == nullptr || &*chunk.stream->last != &chunk)) return false;
    if (chunk.data) weight += chunk.size - chunk.written;
    weight += (chunk.frames.size() - chunk.frames_written) * kFrameWeight;
    if (chunk.descriptor) weight += kDescriptorWeight;
    descriptors += chunk.descriptor ? 1 : 0;
    open += chunk.open ? 1 : 0;
  }
  return weight == weight_ && descriptors == descriptors_ && open == streams_.size();
}

ssize_t OutputQueue::write(iovec *pieces, size_t count, int descriptor) {
  const ssize_t written = write_pieces(fd_, pieces, count, descriptor);
  if (written <= 0) return written;
  bytes_written_ += static_cast<size_t>(written);
  if (observer_ != nullptr) observer_->wrote();
  return written;
}

void OutputQueue::note_written(const Tag &tag) {
  if (!tag.descriptor) ++frames_written_;
  if (observer_ != nullptr) observer_->written(tag);
}

void OutputQueue::send(std::span<const Frame> frames, std::vector<Tag> *refused) {
  assert(adds_up());
  refused->reserve(refused->size() + frames.size());  // the only step that may fail
  size_t offset = 0;
  size_t next = chunks_.empty() && !broken_ ? write_directly(frames, &offset) : 0;
  for (; next < frames.size(); ++next, offset = 0) {
    if (!keep(frames[next], offset)) refused->push_back(frames[next].tag);
  }
}

size_t OutputQueue::send(std::span<Frame> frames) noexcept {
  assert(adds_up());
  size_t refused = 0;
  size_t offset = 0;
  size_t next = chunks_.empty() && !broken_ ? write_directly(frames, &offset) : 0;
  for (; next < frames.size(); ++next, offset = 0) {
    if (!keep(frames[next], offset)) frames[refused++] = frames[next];
  }
  return refused;
}

// Keeps the frame from `offset` on, which is not written yet. A frame that has begun must be
// finished whatever the limit says, or the reader is out of step.
bool OutputQueue::keep(const Frame &frame, size_t offset) noexcept {
  if (broken_ || (offset == 0 && !fits(frame.size, frame.reserve))) return false;
  try {
    append({frame.data + offset, frame.size - offset}, frame.tag, offset > 0);
    return true;
  } catch (const std::bad_alloc &) {
    write_log_line("a message is lost: there is no memory for it");
    broken_ = offset > 0;
    return false;
  }
}

// Returns the first frame that is not written to its end, and in *offset how many bytes of it are.
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

    const ssize_t result = write(pieces.data(), count, -1);
    if (result < 0) {
      broken_ = !try_later();
      return next;
    }
    size_t written = static_cast<size_t>(result);
    const bool blocked = written < total;
    while (written > 0) {
      const size_t left = frames[next].size - *offset;
      if (written < left) {
        *offset += written;
        break;
      }
      written -= left;
      *offset = 0;
      note_written(frames[next++].tag);
    }
    if (blocked) break;
  }
  return next;
}

// One chunk in a list of its own; moving it to its place later cannot fail.
OutputQueue::Chunks OutputQueue::make_chunk(size_t capacity) {
  Chunks chunks(1);
  chunks.front().data = std::make_unique_for_overwrite<char[]>(capacity);
  chunks.front().capacity = capacity;
  return chunks;
}

void OutputQueue::append(std::span<const char> bytes, Tag tag, bool headless) {
  const bool into_last = !chunks_.empty() && chunks_.back().stream == nullptr &&
                         chunks_.back().data != nullptr && !chunks_.back().descriptor &&
                         chunks_.back().size + bytes.size() <= chunks_.back().capacity &&
                         chunks_.back().size + bytes.size() <= chunk_size_;
  Chunks fresh;
  if (!into_last) fresh = make_chunk(std::max(bytes.size(), chunk_size_));
  Chunk &chunk = into_last ? chunks_.back() : fresh.front();
  chunk.frames.push_back({chunk.size + bytes.size(), tag});
  chunk.put(bytes);
  chunk.headless = chunk.headless || headless;
  chunks_.splice(chunks_.end(), fresh);
  weight_ += bytes.size() + kFrameWeight;
}

bool OutputQueue::send_descriptor(UniqueFd fd, Tag tag, size_t reserve,
                                  std::shared_ptr<void> owner) {
  if (broken_ || weight_ + kDescriptorWeight > limit_ + reserve) return false;
  tag.descriptor = 1;
  Chunks fresh = make_chunk(2);
  Chunk &chunk = fresh.front();
  chunk.frames.push_back({2, tag});
  chunk.put({kZeros.data(), 2});
  chunk.headless = true;  // it is no frame
  chunk.descriptor = std::move(fd);
  chunk.descriptor_owner = std::move(owner);
  chunks_.splice(chunks_.end(), fresh);
  weight_ += 2 + kFrameWeight + kDescriptorWeight;
  ++descriptors_;
  flush();
  return true;
}

void OutputQueue::release_descriptor(Chunk &chunk) {
  if (!chunk.descriptor) return;
  chunk.descriptor.reset();
  chunk.descriptor_owner.reset();
  weight_ -= kDescriptorWeight;
  --descriptors_;
}

OutputQueue::Stream *OutputQueue::open_stream(std::span<const char> begin, uint64_t to_come,
                                              Tag tag, size_t reserve) {
  assert(to_come > 0);
  if (broken_ || !fits(begin.size(), reserve)) return nullptr;
  Chunks fresh(1);
  Chunk &chunk = fresh.front();
  chunk.frames.push_back({0, tag});
  chunk.open = true;
  chunk.headless = true;
  Chunks filler(1);
  Stream &stream = streams_.emplace_back();
  stream.last = fresh.begin();
  stream.to_come = begin.size() + to_come;
  stream.filler.splice(stream.filler.end(), filler);
  chunk.stream = &stream;
  chunks_.splice(chunks_.end(), fresh);
  weight_ += kFrameWeight;
  try {
    add_to(&stream, begin);
  } catch (const std::bad_alloc &) {
    write_log_line("a message is lost: there is no memory for it");
    give_up(&stream);
    return nullptr;
  }
  return &stream;
}

void OutputQueue::extend(Stream *stream, std::span<const char> bytes) {
  assert(bytes.size() <= stream->to_come);
  add_to(stream, bytes);
  if (stream->to_come == 0) finish(stream);
}

// Bytes that the socket took count as arrived, even if there is no memory for the rest.
void OutputQueue::add_to(Stream *stream, std::span<const char> bytes) {
  assert(stream->last->open && stream->last->stream == stream);
  // If nothing waits before these bytes, those that the socket takes need no copy.
  const Chunk &front = chunks_.front();
  if (stream->last == chunks_.begin() && front.written == front.size && !broken_) {
    while (!bytes.empty()) {
      iovec piece{const_cast<char *>(bytes.data()), std::min(bytes.size(), chunk_size_)};
      const ssize_t written = write(&piece, 1, -1);
      if (written < 0) {
        broken_ = !try_later();
        break;
      }
      stream->begun = true;
      stream->to_come -= static_cast<size_t>(written);
      bytes = bytes.subspan(static_cast<size_t>(written));
    }
  }
  if (bytes.empty()) return;

  Chunk *last = &*stream->last;
  if (last == &front && last->written == last->size) last->written = last->size = 0;
  if (last->capacity - last->size < bytes.size()) {
    Chunks fresh = make_chunk(std::max(bytes.size(), chunk_size_));
    const auto before = stream->last;
    stream->last = fresh.begin();
    chunks_.splice(std::next(before), fresh);
    Chunk &next = *stream->last;
    next.stream = stream;
    next.open = true;
    next.headless = true;
    next.frames = std::move(last->frames);
    last->frames.clear();
    last->open = false;
    // A chunk without bytes would hide the bytes after it from blocked().
    if (last->written == last->size) chunks_.erase(before);
    last = &next;
  }
  last->put(bytes);
  weight_ += bytes.size();
  stream->to_come -= bytes.size();
}

// Nothing more is added to the stream: forgets it, so that what waits after it can be written.
void OutputQueue::finish(Stream *stream) noexcept {
  stream->last->open = false;
  for (Chunk::End &frame : stream->last->frames) frame.offset = stream->last->size;
  for (Chunk &chunk : chunks_) {
    if (chunk.stream == stream) chunk.stream = nullptr;
  }
  std::erase_if(streams_, [stream](const Stream &each) { return &each == stream; });
  flush();
}

bool OutputQueue::give_up(Stream *stream) noexcept {
  const bool begun = stream->begun;
  if (begun) {
    // The frame counts as lost, not as written.
    stream->last->frames.clear();
    weight_ -= kFrameWeight;
    stream->filler.front().size = static_cast<size_t>(stream->to_come);
    chunks_.splice(std::next(stream->last), stream->filler);
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

void OutputQueue::flush() noexcept {
  assert(adds_up());
  while (!chunks_.empty() && !broken_) {
    Chunk &chunk = chunks_.front();
    while (chunk.written < chunk.size) {
      const char *data = chunk.data ? chunk.data.get() + chunk.written : kZeros.data();
      iovec piece{const_cast<char *>(data), std::min(chunk.size - chunk.written, chunk_size_)};
      const ssize_t written = write(&piece, 1, chunk.descriptor.get());
      if (written < 0 && errno == ETOOMANYREFS) {
        write_log_line("a descriptor is dropped: too many of them are on their way");
        if (observer_ != nullptr) observer_->descriptor_dropped(chunk.frames.front().tag);
        chunk.frames.clear();
        weight_ -= chunk.size + kFrameWeight;
        release_descriptor(chunk);
        break;
      }
      if (written < 0) {
        broken_ = !try_later();
        return;
      }
      if (chunk.descriptor && observer_ != nullptr) {
        observer_->descriptor_passed(chunk.frames.front().tag);
      }
      release_descriptor(chunk);
      chunk.written += static_cast<size_t>(written);
      if (chunk.data) weight_ -= static_cast<size_t>(written);
      if (chunk.stream != nullptr) chunk.stream->begun = true;
      complete_frames(chunk);
    }
    if (chunk.open) return;
    complete_frames(chunk);
    chunks_.pop_front();
  }
}

// A frame ends when its last byte is written, not when its chunk ends.
void OutputQueue::complete_frames(Chunk &chunk) {
  if (chunk.open) return;
  while (chunk.frames_written < chunk.frames.size()) {
    const Chunk::End &frame = chunk.frames[chunk.frames_written];
    if (frame.offset > chunk.written) return;
    ++chunk.frames_written;
    weight_ -= kFrameWeight;
    note_written(frame.tag);
  }
}

bool OutputQueue::blocked() const {
  if (broken_) return false;
  for (const Chunk &chunk : chunks_) {
    if (chunk.written < chunk.size) return true;
    if (chunk.open) return false;
  }
  return false;
}

const OutputQueue::Tag *OutputQueue::awaited() const {
  if (broken_) return nullptr;
  for (const Chunk &chunk : chunks_) {
    if (chunk.written < chunk.size) return nullptr;
    if (chunk.open) return &chunk.frames.back().tag;
  }
  return nullptr;
}

std::vector<OutputQueue::Tag> OutputQueue::take_unwritten() {
  std::vector<Tag> tags;
  take_unwritten([&tags](const Tag &tag, std::span<const char>) { tags.push_back(tag); });
  return tags;
}

void OutputQueue::take_unwritten(const Lost &lost) {
  const Chunks chunks = std::move(chunks_);
  chunks_.clear();
  streams_.clear();
  weight_ = 0;
  descriptors_ = 0;
  for (const Chunk &chunk : chunks) {
    if (chunk.open) continue;
    size_t begin = 0;
    for (const Chunk::End &frame : chunk.frames) {
      const bool whole = chunk.data != nullptr && !(chunk.headless && begin == 0);
      const std::span<const char> bytes(chunk.data.get() + begin, whole ? frame.offset - begin : 0);
      if (frame.offset > chunk.written) lost(frame.tag, bytes);
      begin = frame.offset;
    }
  }
}

}  // namespace servers
