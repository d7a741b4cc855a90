#include "notifyserver/frame_reader.h"

#include <algorithm>
#include <cstring>

namespace notifyserver {
namespace {

constexpr size_t kReadSize = 65536;

}  // namespace

std::span<char> FrameReader::room() {
  if (begin_ > 0) {
    std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
  }
  // Memory grows with what has arrived, not with what a head promises, and is given back behind a
  // long message.
  const size_t missing = wanted_ > end_ ? wanted_ - end_ : 0;
  const size_t size = end_ + std::max(kReadSize, std::min(missing, end_));
  if (buffer_.size() < size || buffer_.size() > 2 * size) {
    buffer_.resize(size);
    buffer_.shrink_to_fit();
  }
  return std::span(buffer_).subspan(end_);
}

std::optional<Frame> FrameReader::next() {
  if (malformed_ || end_ - begin_ < sizeof(NOTIFY_MSG)) return {};

  Frame frame;
  std::memcpy(&frame.head, buffer_.data() + begin_, sizeof frame.head);
  if (frame.head.data_len > ORP_NOTIFYCLT_MAX_DATA) {
    malformed_ = true;
    return {};
  }
  wanted_ = sizeof frame.head + frame.head.data_len;
  if (end_ - begin_ < wanted_) return {};

  frame.bytes = std::span(buffer_).subspan(begin_, wanted_);
  begin_ += wanted_;
  wanted_ = sizeof frame.head;
  return frame;
}

}  // namespace notifyserver
