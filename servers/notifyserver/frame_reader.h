// Cuts what a client sends into whole messages.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <vector>

#include "msgapi/notify.h"

namespace notifyserver {

// A whole message as it arrived. The bytes lie in the reader and are valid until its next room().
struct Frame {
  NOTIFY_MSG head;
  std::span<const char> bytes;  // head and data

  std::span<const char> data() const { return bytes.subspan(sizeof head); }
};

class FrameReader {
 public:
  // Where to put the next bytes; never empty. Ends the life of all frames.
  std::span<char> room();
  // `count` bytes have been put there.
  void filled(size_t count) { end_ += count; }

  // The next whole message, or nothing when more bytes are needed or the stream is malformed.
  std::optional<Frame> next();

  // A head states more data than ORP_NOTIFYCLT_MAX_DATA: where the next message begins is unknown.
  bool malformed() const { return malformed_; }
  // Bytes of an incomplete message are there.
  bool inside_message() const { return begin_ < end_; }

 private:
  std::vector<char> buffer_;
  size_t begin_ = 0;  // first byte that no frame has taken
  size_t end_ = 0;
  size_t wanted_ = sizeof(NOTIFY_MSG);  // size of the message at begin_, as far as it is known
  bool malformed_ = false;
};

}  // namespace notifyserver
