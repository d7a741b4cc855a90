// What waits to be written to one client's socket: whole frames, frames that are still arriving
// from somebody else (streams), and descriptors.
//
// Frames go out in the order in which they were sent or their stream was opened. They are never
// interleaved. A write never ends inside the first `chunk` bytes of a frame unless it ends the
// frame. A Unix socket takes such a write whole or not at all, so a reader that asks for a frame's
// head with a single read gets all of it.
#pragma once

#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <span>
#include <vector>

#include "common/unique_fd.h"

namespace servers {

class OutputQueue {
 public:
  // Travels with a frame and comes back when the frame is written or lost: says whom to tell, and
  // about what. Of it, the queue knows only descriptors. Every queued frame has one, so it is kept
  // small.
  struct Tag {
    uint32_t origin = 0;          // whose message it is
    uint32_t type : 30 = 0;       // the message's
    uint32_t silent : 1 = 0;      // its loss is nobody's business
    uint32_t descriptor : 1 = 0;  // it is no message, but a descriptor that one announced
    uint32_t sequence = 0;
    uint32_t file_key = 0;  // what finds the file that goes with it: its sender's user, or a number
    uint64_t record = 0;    // under which the flight recorder knows it
  };
  struct Frame {
    const char *data;
    size_t size;
    Tag tag;
    size_t reserve = 0;  // this frame may exceed the limit by as much
  };
  struct Stream;

  // Is told what becomes of frames while the queue is at work; it must not call the queue.
  class Observer {
   public:
    // The socket has taken bytes; the calls that follow are about them.
    virtual void wrote() noexcept = 0;
    // The last byte of a frame is written.
    virtual void written(const Tag &tag) noexcept = 0;
    virtual void descriptor_passed(const Tag &tag) noexcept = 0;
    // The kernel does not pass the descriptor on.
    virtual void descriptor_dropped(const Tag &tag) noexcept = 0;

   protected:
    ~Observer() = default;
  };

  // Every queued frame weighs its bytes and this much.
  static constexpr size_t kFrameWeight = 64;
  // The longest write that a Unix socket takes in one piece.
  static constexpr size_t kChunk = 32768;

  // For the connected, non-blocking stream socket `fd`, which stays the caller's. A frame that
  // would raise the weight above `limit` is refused.
  OutputQueue(int fd, size_t limit, Observer *observer = nullptr);
  ~OutputQueue();

  // Writes what the socket takes now and keeps the rest. The tags of frames that were refused,
  // for lack of room or memory or because the connection is broken, are appended to *refused.
  void send(std::span<const Frame> frames, std::vector<Tag> *refused);
  // The same; the frames that were refused become the first of `frames`. Returns their number.
  size_t send(std::span<Frame> frames) noexcept;

  // Queues a descriptor that travels with two zero bytes in a write of its own. `owner` is kept
  // until the descriptor has left the queue. False when refused.
  bool send_descriptor(UniqueFd fd, Tag tag, size_t reserve = 0,
                       std::shared_ptr<void> owner = nullptr);

  // Begins a frame: `begin` is there, and `to_come` (not 0) more bytes will follow. Null when
  // refused. The queue owns the stream. The handle is valid until the last byte has been given to
  // extend(), give_up() is called, or the queue is gone.
  Stream *open_stream(std::span<const char> begin, uint64_t to_come, Tag tag, size_t reserve = 0);
  // Adds bytes, at most as many as are still to come. Without memory it throws std::bad_alloc, and
  // the stream must be given up.
  void extend(Stream *stream, std::span<const char> bytes);
  // The rest will not come. When nothing of the frame has been written, it is taken back (true).
  // Otherwise zero bytes fill its rest, so that the reader stays in step (false).
  bool give_up(Stream *stream) noexcept;

  // Writes what the socket takes; called when it has become writable.
  void flush() noexcept;

  // True when the socket did not take all bytes: wait until it is writable, then flush().
  bool blocked() const;
  // The socket would take more, but the next bytes of a stream have not come, and everything queued
  // waits for them: the stream's tag. Null when that is not so.
  const Tag *awaited() const;
  // The reader is gone; nothing more will be written.
  bool broken() const { return broken_; }
  // Makes the queue act as if the reader were gone; the socket is not touched again.
  void close() { broken_ = true; }
  bool empty() const { return chunks_.empty(); }
  size_t weight() const { return weight_; }
  size_t limit() const { return limit_; }
  // How many descriptors wait.
  size_t descriptors() const { return descriptors_; }
  // Since the beginning, as the socket took them.
  uint64_t frames_written() const { return frames_written_; }
  uint64_t bytes_written() const { return bytes_written_; }

  // Empties the queue. Returns the tags of all frames that have not been written to their end; open
  // streams are gone without a tag.
  std::vector<Tag> take_unwritten();
  // The same, one after the other with their bytes; without bytes when the queue does not have the
  // whole frame. Anything but this queue may be used meanwhile.
  using Lost = std::function<void(const Tag &tag, std::span<const char> frame)>;
  void take_unwritten(const Lost &lost);

 private:
  struct Chunk;
  using Chunks = std::list<Chunk>;

  size_t write_directly(std::span<const Frame> frames, size_t *offset);
  bool keep(const Frame &frame, size_t offset) noexcept;
  void append(std::span<const char> bytes, Tag tag, bool headless);
  static Chunks make_chunk(size_t capacity);
  ssize_t write(iovec *pieces, size_t count, int descriptor);
  void note_written(const Tag &tag);
  void complete_frames(Chunk &chunk);
  void release_descriptor(Chunk &chunk);
  bool fits(size_t size, size_t reserve) const {
    return weight_ + size + kFrameWeight <= limit_ + reserve;
  }
  void add_to(Stream *stream, std::span<const char> bytes);
  void finish(Stream *stream) noexcept;
  bool adds_up() const;

  int fd_;
  size_t limit_;
  Observer *observer_;
  size_t chunk_size_;  // kChunk, or less if the socket's buffer is small
  Chunks chunks_;
  std::list<Stream> streams_;
  size_t weight_ = 0;
  size_t descriptors_ = 0;
  uint64_t frames_written_ = 0;
  uint64_t bytes_written_ = 0;
  bool broken_ = false;
};

}  // namespace servers
