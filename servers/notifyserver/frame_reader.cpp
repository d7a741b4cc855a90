#include "notifyserver/frame_reader.h"

#include <algorithm>
#include <cstring>

namespace notifyserver {
namespace {

constexpr size_t kReadSize = 65536;
constexpr size_t kLeastRoom = 16384;

}  // namespace

std::span<char> FrameReader::room() {
  if (begin_ > 0) {
    std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
  }
  if (end_ == 0 && buffer_.size() > kReadSize) buffer_ = {};  // behind a long message
  if (buffer_.size() - end_ < kLeastRoom) {
    // Memory grows with what has arrived, not with what a head promises.
    const size_t missing = wanted_ > end_ ? wanted_ - end_ : 0;
    buffer_.resize(end_ + std::max(kReadSize, std::min(missing, end_)));
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
